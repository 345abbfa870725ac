#!/usr/bin/env bash
# kelodbg's verbs, one group each: what they do, and a bad input with its
# exit code and message.
#
# Usage: verbs_test.sh KELODBG DATA_DIR GROUP
kelodbg=$1 data=$2
source "$(dirname "$0")/lib.sh"

test_create_add() {
  make_game || fail "building game.kdbg"
  expect 0 '' -- "$kelodbg" add --kind 3 game.kdbg 5=util.o 0:5=main.o
  local m u x
  m=$(size_of main.o) u=$(size_of util.o) x=$(size_of extra.o)
  local w
  w=$(printf '%s\n' 4 ${#m} ${#u} ${#x} | sort -n | tail -1)
  {
    printf "KIND  NUMBER      %${w}s  SECTIONS\n" SIZE
    printf "   0  0x00000005  %${w}s  -\n" "$m"
    printf "   1  0x00000007  %${w}s  .kelo.overlay=0x00000009\n" "$u"
    printf "   1  0x00000020  %${w}s  -\n" "$x"
    printf "   1  0x00011234  %${w}s  .constant=0x00002000 .text=0x80001000\n" "$m"
    printf "   3  0x00000005  %${w}s  -\n" "$u"
  } >expected.txt
  "$kelodbg" list game.kdbg >list.txt || fail "list exited with $?"
  diff -u expected.txt list.txt >&2 || fail "list output"

  expect 0 '' -- "$kelodbg" create empty.kdbg
  [[ $(size_of empty.kdbg) == 20 ]] || fail "an empty list is 20 bytes"
  printf '%s\n' '# entries' '8=main.o' '' ' 9=util.o ' >entries.txt
  expect 0 '' -- "$kelodbg" add empty.kdbg @entries.txt
  [[ $("$kelodbg" list empty.kdbg | wc -l) == 3 ]] || fail "@FILE gives two entries"

  expect 9 'identifier 1:0x00000007 is already present$' -- "$kelodbg" add game.kdbg 7=main.o
  expect 9 'identifier 1:0x00000006 is given twice' -- "$kelodbg" add game.kdbg 6=main.o 1:6=util.o
  printf 'not an ELF file' >text.o
  expect 7 '^kelodbg: text\.o: not an ELF file that can be loaded$' -- "$kelodbg" add game.kdbg 6=text.o
  expect 3 '^kelodbg: gone\.o: No such file or directory$' -- "$kelodbg" create new.kdbg 6=gone.o
  [[ ! -e new.kdbg ]] || fail "a failed create leaves no file"
  expect 2 "'256:5' is not an identifier" -- "$kelodbg" add game.kdbg 256:5=main.o
  expect 2 "'5' is not of the form ID=ELF-FILE" -- "$kelodbg" add game.kdbg 5
}

test_remove() {
  make_game || fail "building game.kdbg"
  cp game.kdbg before.kdbg
  expect 8 '^kelodbg: game\.kdbg: no entry 0:0x00000007 \(did you mean 1:0x00000007\?\)$' -- \
    "$kelodbg" remove game.kdbg 0x20 0:7
  same_file game.kdbg before.kdbg "remove is all or nothing"
  expect 0 '' -- "$kelodbg" remove game.kdbg 0x20 7
  [[ $("$kelodbg" list game.kdbg | wc -l) == 2 ]] || fail "two entries removed"
}

test_set_addr() {
  make_game || fail "building game.kdbg"
  expect 0 '' -- "$kelodbg" set-addr game.kdbg 7 .text=0x10 .data=0x20 .local=0x30
  "$kelodbg" list game.kdbg | grep -q '^   1  0x00000007 .* \.data=0x00000020 \.kelo\.overlay=0x00000009 \.local=0x00000030 \.text=0x00000010$' ||
    fail "three addresses in one call: $("$kelodbg" list game.kdbg)"
  cp game.kdbg before.kdbg
  expect 11 "^kelodbg: game\\.kdbg: entry 1:0x00000007 has no section '\\.nope'" -- \
    "$kelodbg" set-addr game.kdbg 7 .text=1 .nope=2
  same_file game.kdbg before.kdbg "a refused set-addr"
  expect 2 "'0x100000000' is larger than 4294967295" -- "$kelodbg" set-addr game.kdbg 7 .text 0x100000000

  expect 0 '' -- "$kelodbg" unset-addr game.kdbg 7 .text .local
  "$kelodbg" list game.kdbg | grep -q '^   1  0x00000007 .* \.data=0x00000020 \.kelo\.overlay=0x00000009$' ||
    fail "unset-addr"
  expect 11 "has no address for section '\\.text'" -- "$kelodbg" unset-addr game.kdbg 7 .text

  # Many entries in one rewrite, all or none.
  printf '# from a link map\n7 .text=0x1000 .data=0x2000\n\n0x20 .text=0x3000\n' >list.txt
  expect 0 '' -- "$kelodbg" set-addr game.kdbg --from list.txt
  "$kelodbg" list game.kdbg | grep -q '^   1  0x00000007 .* \.data=0x00002000 .*\.text=0x00001000$' &&
    "$kelodbg" list game.kdbg | grep -q '^   1  0x00000020 .* \.text=0x00003000$' || fail "set-addr --from"
  cp game.kdbg before.kdbg
  printf '7 .text=0x5000\n0x20 .nope=0x10\n' >bad.txt
  expect 11 "entry 1:0x00000020 has no section '\\.nope'" -- "$kelodbg" set-addr game.kdbg --from bad.txt
  printf '7 .text=0x5000\n0x99 .text=0x10\n' >bad.txt
  expect 8 'no entry 1:0x00000099' -- "$kelodbg" set-addr game.kdbg --from bad.txt
  same_file game.kdbg before.kdbg "a refused set-addr --from"

  # A loader's layout from a base: header order, each section at its
  # alignment, sections without bytes left out.
  "$kelodbg" create placed.kdbg 1=main.o || fail "create placed.kdbg"
  expect 0 '' -- "$kelodbg" place placed.kdbg 1 --base 0x80001000
  # size_align NAME: the section's size and alignment, as readelf gives them.
  size_align() { readelf -SW main.o | awk -v n="$1" '{ for (i = 1; i < NF; i++) if ($i == n) print $(i + 4), $(i + 9) }'; }
  local text data bss size align
  read -r size align <<<"$(size_align .text)"
  [[ -n $size ]] || { fail "readelf"; return; }
  text=$((0x80001000 + 0x$size))
  read -r size align <<<"$(size_align .data)"
  data=$(((text + align - 1) / align * align))
  local dataEnd=$((data + 0x$size))
  read -r size align <<<"$(size_align .bss)"
  bss=$(printf '0x%08x' $(((dataEnd + align - 1) / align * align)))
  data=$(printf '0x%08x' "$data")
  "$kelodbg" list placed.kdbg | grep -q "\.bss=$bss \.data=$data \.text=0x80001000" ||
    fail "place: $("$kelodbg" list placed.kdbg) (want .data=$data .bss=$bss)"
}

test_renumber() {
  make_game || fail "building game.kdbg"
  cp game.kdbg before.kdbg
  expect 10 '1:0x00000020 is held by an entry that keeps its identifier' -- "$kelodbg" renumber game.kdbg 7=0x20
  expect 10 'two entries would be renumbered to 1:0x00000050' -- "$kelodbg" renumber game.kdbg 7=0x50 0x20=0x50
  expect 10 'identifier 1:0x00000007 is renumbered twice' -- "$kelodbg" renumber game.kdbg 7=0x50 1:7=0x51
  expect 8 'no entry 1:0x00000099' -- "$kelodbg" renumber game.kdbg 7=8 0x99=9
  # The reason given is the first one the list's own check meets, pair by
  # pair: the missing 0x99 comes before the twice renumbered 7.
  expect 8 'no entry 1:0x00000099' -- "$kelodbg" renumber game.kdbg 0x99=9 7=0x50 7=0x51
  same_file game.kdbg before.kdbg "refused renumberings"
  # An exchange, and a move to another kind, in one step.
  expect 0 '' -- "$kelodbg" rename game.kdbg 0x20=0x00011234 0x00011234=0x20 7=200:7
  "$kelodbg" list game.kdbg | grep -q "^   1  0x00000020  *$(size_of main.o)  \\.constant" || fail "exchange"
  "$kelodbg" list game.kdbg | grep -q "^ 200  0x00000007 " || fail "renumbered to kind 200"
}

test_merge() {
  make_game || fail "building game.kdbg"
  "$kelodbg" create other.kdbg 0x99=extra.o && "$kelodbg" create third.kdbg 0x100=util.o || fail "create"
  expect 0 '' -- "$kelodbg" merge all.kdbg game.kdbg other.kdbg
  [[ $("$kelodbg" list all.kdbg | wc -l) == 5 ]] || fail "merge: 4 entries and a header"
  expect 0 '' -- "$kelodbg" merge --into other.kdbg third.kdbg
  [[ $("$kelodbg" list other.kdbg | wc -l) == 3 ]] || fail "merge --into: 2 entries and a header"
  expect 10 '^kelodbg: identifier 1:0x00000099 is in both other\.kdbg and all\.kdbg$' -- \
    "$kelodbg" merge --into other.kdbg all.kdbg
  expect 14 'is also the input game\.kdbg' -- "$kelodbg" merge game.kdbg game.kdbg third.kdbg
  # Through pipes: standard input in, standard output out.
  "$kelodbg" merge - - third.kdbg <game.kdbg >piped.kdbg || fail "merge through pipes"
  [[ $("$kelodbg" list piped.kdbg | wc -l) == 5 ]] || fail "merge through pipes: 4 entries and a header"
}

test_list_show() {
  make_game || fail "building game.kdbg"
  "$kelodbg" show game.kdbg 0x00011234 >show.txt || fail "show exited with $?"
  grep -Eq '^identifier  1:0x00011234$' show.txt || fail "show: identifier line"
  grep -Eq "^image size  $(size_of main.o) bytes$" show.txt || fail "show: size line"
  grep -Eq '^\.text +0x80001000$' show.txt || fail "show: .text address"
  grep -Eq '^\.constant +0x00002000  \(not an image section\)$' show.txt || fail "show: .constant"
  expect 8 'no entry 1:0x00000099$' -- "$kelodbg" show game.kdbg 0x99
  # Standard input.
  "$kelodbg" list - <game.kdbg | grep -q '^   1  0x00000020 ' || fail "list -"
}

test_extract() {
  make_game || fail "building game.kdbg"
  expect 0 '' -- "$kelodbg" extract game.kdbg 0x00011234 -o main-copy.o
  same_file main.o main-copy.o "extract"
  "$kelodbg" extract - 7 -o - <game.kdbg >util-copy.o || fail "extract from and to streams"
  same_file util.o util-copy.o "extract through streams"
  expect 8 'no entry' -- "$kelodbg" extract game.kdbg 0x99 -o x.o
  [[ ! -e x.o ]] || fail "a failed extract writes nothing"
}

test_diff() {
  make_game || fail "building game.kdbg"
  cp game.kdbg copy.kdbg
  expect 0 '' -- "$kelodbg" diff game.kdbg copy.kdbg
  "$kelodbg" remove copy.kdbg 0x20 && "$kelodbg" add copy.kdbg 0:7=util.o &&
    "$kelodbg" set-addr copy.kdbg 7 .kelo.overlay=10 .text=3 || fail "changing copy.kdbg"
  "$kelodbg" diff game.kdbg copy.kdbg >diff.txt
  [[ $? == 1 ]] || fail "diff of different files exits with 1"
  cat >expected.txt <<'EOF'
only in game.kdbg: 1:0x00000020
only in copy.kdbg: 0:0x00000007
changed 1:0x00000007: .kelo.overlay 0x00000009 -> 0x0000000a
changed 1:0x00000007: .text - -> 0x00000003
EOF
  diff -u expected.txt diff.txt >&2 || fail "diff output"
  "$kelodbg" diff --json game.kdbg copy.kdbg >diff.json
  grep -q '"equal": false' diff.json || fail "diff --json"
  expect 4 'not a debug-info file' -- "$kelodbg" diff game.kdbg main.o
}

test_check_version() {
  make_game || fail "building game.kdbg"
  # (game.kdbg's entries are placed in part: warned about, on standard error.)
  [[ $("$kelodbg" check game.kdbg 2>/dev/null) =~ ^"game.kdbg: debug-info file version 1.1.2, 3 entries, "[0-9]+" warnings"$ ]] ||
    fail "check output: $("$kelodbg" check game.kdbg 2>&1)"
  "$kelodbg" check game.kdbg >/dev/null 2>warned.txt
  grep -q "warning: entry 1:0x00011234: section '\.data' (4 bytes) is allocated and has no address" warned.txt ||
    fail "check warns of allocated sections without an address: $(cat warned.txt)"
  [[ $("$kelodbg" version game.kdbg) == 1.1.2 ]] || fail "version output"
  "$kelodbg" version | grep -Eq '^kelodbg 1\.1\.2 \(debug-info library 1\.1\.2' || fail "version of the tool"

  # Errors say where: the field, the entry and the byte offset.
  head -c 100 game.kdbg >cut.kdbg
  expect 6 '^kelodbg: cut\.kdbg: damaged debug-info file: it ends inside the image \([0-9]+ bytes\) at entry 0 \(1:0x[0-9a-f]{8}\), offset 33$' -- \
    "$kelodbg" check cut.kdbg
  { header '\x01\x01\x02\x00'; le 1 8; le 1 1; le 5 2; le 0 2; le 4 8; printf 'JUNK'; le 0 8; } >junk.kdbg
  # Images are read when a command needs them: list shows the entry, show
  # and extract say that its image does not load.
  expect 0 '' -- "$kelodbg" list junk.kdbg
  grep -q '^   1  0x00000005     4  -$' out.txt || fail "list of an entry whose image does not load: $(cat out.txt)"
  expect 6 'the image at entry 0 \(1:0x00000005\), offset 33 \(4 bytes\) is not an ELF file that loads' -- \
    "$kelodbg" show junk.kdbg 5
  expect 6 'offset 33 \(4 bytes\) is not an ELF file that loads' -- "$kelodbg" extract junk.kdbg 5 -o junk.o
  expect 6 'offset 33 \(4 bytes\) is not an ELF file that loads' -- "$kelodbg" check junk.kdbg
  expect 4 '^kelodbg: main\.o: not a debug-info file \(wrong magic\)$' -- "$kelodbg" check main.o
  { header '\x02\x01\x00\x00'; le 0 8; } >v210.kdbg
  expect 5 'unsupported version 2\.1\.0' -- "$kelodbg" check v210.kdbg
  [[ $("$kelodbg" version v210.kdbg) == 2.1.0 ]] || fail "version reports 2.1.0"
  expect 3 '^kelodbg: missing\.kdbg: No such file or directory$' -- "$kelodbg" list missing.kdbg

  # Warnings: what the reader silently drops or ignores.
  {
    header '\x01\x01\x02\x00'
    le $((1 << 32 | 2)) 8
    local i
    for i in 1 2; do
      le 2 1; le 5 2; le 0 2
      le "$(size_of util.o)" 8
      cat util.o
      le 0 8
    done
    printf 'xyz'
  } >odd.kdbg
  expect 0 'entry 1, offset [0-9]+: identifier 2:0x00000005 repeats an earlier entry' -- "$kelodbg" check odd.kdbg
  grep -q 'kind 2, which the C interface cannot reach' err.txt || fail "warning: kind"
  grep -q '3 bytes after the last entry' err.txt || fail "warning: trailing bytes"
  grep -q 'entry count 0x0000000100000002 has a non-zero high half' err.txt || fail "warning: high half"
  expect 15 '' -- "$kelodbg" check --strict -q odd.kdbg
  "$kelodbg" check --json odd.kdbg 2>/dev/null | grep -q '"reason": "duplicate-id"' || fail "check --json warnings"
}

test_help() {
  expect 2 'a command is required' -- "$kelodbg"
  grep -q '^  renumber ' err.txt || fail "no command: the command list"
  expect 2 "unknown command 'frobnicate'" -- "$kelodbg" frobnicate game.kdbg
  expect 2 'file is required' -- "$kelodbg" list
  "$kelodbg" help >help.txt || fail "help exited with $?"
  grep -q '^  14  refused to protect a file' help.txt || fail "help lists the exit codes"
  "$kelodbg" help set-addr >help.txt || fail "help set-addr exited with $?"
  grep -q 'SECTION=ADDRESS' help.txt || fail "help set-addr"
  grep -q 'Exit codes' help.txt && fail "a command's help leaves the exit codes to the top-level help"
  "$kelodbg" --version | grep -Eq '^kelodbg 1\.1\.2 \(debug-info library 1\.1\.2' || fail "--version"
}

# Changes write the new file by streaming: entries they do not touch are
# copied byte for byte, and only the image a change needs is loaded.
test_streamed_changes() {
  make_game || fail "building game.kdbg"
  "$kelodbg" create other.kdbg 0x30=main.o && "$kelodbg" set-addr other.kdbg 0x30 .text=0x9000 ||
    fail "building other.kdbg"
  "$kelodbg" set-addr game.kdbg 0x00011234 .text=0x1234 .data=0x5000 &&
    "$kelodbg" unset-addr game.kdbg 0x00011234 .constant &&
    "$kelodbg" renumber game.kdbg 7=8 0x20=7 &&
    "$kelodbg" remove game.kdbg 7 &&
    "$kelodbg" add game.kdbg 9=extra.o &&
    "$kelodbg" merge --into game.kdbg other.kdbg || fail "a chain of changes"
  # What the reader reads: every image loads, nothing is dropped (the
  # warnings are about sections without addresses).
  expect 0 '' -- "$kelodbg" check game.kdbg
  grep -v 'has no address' err.txt >other-warnings.txt
  ! grep -q warning other-warnings.txt || fail "after the changes: $(cat err.txt)"
  "$kelodbg" list game.kdbg >got.txt
  cat >want.txt <<'LIST'
KIND  NUMBER      SIZE  SECTIONS
   1  0x00000008  SIZE_UTIL  .kelo.overlay=0x00000009
   1  0x00000009  SIZE_EXTRA  -
   1  0x00000030  SIZE_MAIN  .text=0x00009000
   1  0x00011234  SIZE_MAIN  .data=0x00005000 .text=0x00001234
LIST
  local main util extra
  main=$(size_of main.o) util=$(size_of util.o) extra=$(size_of extra.o)
  sed -E 's/  +/ /g' got.txt >got-words.txt
  sed -e "s/SIZE_UTIL/$util/" -e "s/SIZE_EXTRA/$extra/" -e "s/SIZE_MAIN/$main/" want.txt | sed -E 's/  +/ /g' >want-words.txt
  cmp -s got-words.txt want-words.txt || fail "after the changes: $(cat got.txt)"
  local id object
  for id in 8=util.o 9=extra.o 0x30=main.o 0x00011234=main.o; do
    object=${id#*=}
    "$kelodbg" extract game.kdbg "${id%=*}" -o entry.o && same_file entry.o "$object" "entry ${id%=*}"
  done

  # An entry whose image does not load is carried along by changes of other
  # entries, and can be removed; a change that needs it says why.
  { header '\x01\x01\x02\x00'; le 2 8; le 1 1; le 5 2; le 0 2; le 4 8; printf 'JUNK'; le 0 8
    le 1 1; le 1 2; le 0 2; le "$(size_of main.o)" 8; cat main.o; le 0 8; } >junk.kdbg
  expect 0 '' -- "$kelodbg" set-addr junk.kdbg 1 .text=0x10
  grep -q 'JUNK' junk.kdbg || fail "the entry whose image does not load was not copied"
  expect 6 'offset [0-9]+ \(4 bytes\) is not an ELF file that loads' -- "$kelodbg" set-addr junk.kdbg 5 .text=0x20
  expect 0 '' -- "$kelodbg" remove junk.kdbg 5
  expect 0 '' -- "$kelodbg" place junk.kdbg 1 --base 0x10000
  expect 0 '' -- "$kelodbg" check --strict junk.kdbg
  # A store cut inside an image fails the same way whether the image is read
  # (check) or passed over (list).
  head -c 100 game.kdbg >cut.kdbg
  expect 6 'damaged debug-info file: it ends inside the image \([0-9]+ bytes\) at entry 0' -- "$kelodbg" list cut.kdbg
}

# What users of other tools type: --version on any command, -e FILE and
# -C[=STYLE] for addr2line, quiet checks, documents for scripts.
test_habits() {
  make_game || fail "building game.kdbg"
  local version
  version=$("$kelodbg" --version)
  [[ $("$kelodbg" list --version) == "$version" ]] || fail "list --version"
  [[ $("$kelodbg" version --json | head -1) == "{" ]] || fail "version --json is one document over several lines"
  # check -q prints nothing at all, warnings included; the exit code tells.
  { header '\x01\x01\x02\x00'; le 1 8; le 1 1; le 5 2; le 0 2; le "$(size_of main.o)" 8; cat main.o; le 0 8
    printf 'trailing'; } >warned.kdbg
  expect 15 '' -- "$kelodbg" check -q --strict warned.kdbg
  [[ ! -s err.txt && ! -s out.txt ]] || fail "check -q printed: $(cat out.txt err.txt)"
  # Addresses as nm and readelf print them could be hex or decimal: refused
  # with a hint, never stored as the other.
  cp game.kdbg before.kdbg
  expect 2 "'80001000' could be hex .* write 0x80001000" -- "$kelodbg" set-addr game.kdbg 7 .text=80001000
  expect 2 "'08001760' could be hex" -- "$kelodbg" set-addr game.kdbg 7 .text 08001760
  expect 2 "'8000abcd' is hex without 0x" -- "$kelodbg" set-addr game.kdbg 7 .text=8000abcd
  same_file game.kdbg before.kdbg "ambiguous addresses"
  expect 0 '' -- "$kelodbg" set-addr game.kdbg 7 .text=4096
  # With --json a failure is a document too, on standard output.
  expect 3 'missing\.kdbg' -- "$kelodbg" list --json missing.kdbg
  grep -q '"ok": false' out.txt && grep -q '"code": 3' out.txt || fail "list --json of a missing file: $(cat out.txt)"
  "$kelodbg" help addr2line >/dev/null 2>&1 || return 0
  # map's document names its version, and each overlap's kind and number.
  "$kelodbg" set-addr game.kdbg 0x20 .text=0x80001000 || fail "an overlap"
  expect 0 '' -- "$kelodbg" map --json game.kdbg
  grep -q '"version": "1.1.2"' out.txt && grep -q '"number": 32' out.txt || fail "map --json: $(cat out.txt)"
  # An address above 32 bits is answered, and said to be out of reach.
  expect 0 'does not fit in 32 bits' -- "$kelodbg" addr2line game.kdbg 0x180001000
  [[ $("$kelodbg" addr2line --version) == "$version" ]] || fail "addr2line --version"
  expect 0 '' -- "$kelodbg" addr2line -f game.kdbg 0x80001000
  cp out.txt plain.txt
  expect 0 '' -- "$kelodbg" addr2line -f -e game.kdbg 0x80001000
  cmp -s out.txt plain.txt || fail "addr2line -e FILE answers as addr2line FILE"
  local style
  for style in -C --demangle --demangle=auto --demangle=gnu-v3; do
    expect 0 '' -- "$kelodbg" addr2line "$style" -f game.kdbg 0x80001000
  done
  expect 2 "'java': the styles are auto, gnu-v3 and gnu" -- "$kelodbg" addr2line --demangle=java game.kdbg 0x80001000
  expect 2 "'other.kdbg' is a file, not an address" -- "$kelodbg" addr2line game.kdbg other.kdbg
  expect 2 "needs FILE" -- "$kelodbg" addr2line
}

# Stack traces: every form of frame line, return addresses looked up less
# one, module offsets, JSON.
test_traces() {
  "$kelodbg" help stack >/dev/null 2>&1 || return 0
  # util_scale fills 0x1000-0x1012, main starts at 0x1013: a return address
  # at 0x1013 follows a call at the end of util_scale.
  "$kelodbg" create t.kdbg 1=util.o 2=main.o || fail "create t.kdbg"
  "$kelodbg" set-addr t.kdbg 1 .text=0x1000 && "$kelodbg" set-addr t.kdbg 2 .text=0x1013 || fail "set-addr"
  printf '%s\n' 'Program received signal SIGSEGV' '#0  0x0000000000001013 in ?? ()' '#1  0x0000000000001013 in ?? ()' \
    '#2  main () at main.c:3' '#3  <signal handler called>' '#4  0x0000000000001013 in ?? ()' >gdb.txt
  expect 0 '' -- "$kelodbg" stack t.kdbg gdb.txt
  # Each line as it was, then its frames.
  local want
  want=$(printf '%s\n' 'Program received signal SIGSEGV' '#0  0x0000000000001013 in ?? ()' '    main at *' \
    '#1  0x0000000000001013 in ?? ()' '    util_scale at *' '#2  main () at main.c:3' '    (no address in this line)' \
    '#3  <signal handler called>' '#4  0x0000000000001013 in ?? ()' '    main at *')
  local i=0 line
  while IFS= read -r line; do
    i=$((i + 1))
    # shellcheck disable=SC2053
    [[ $(sed -n "${i}p" out.txt) == $line ]] || fail "stack, line $i: '$(sed -n "${i}p" out.txt)', want '$line'"
  done <<<"$want"
  [[ $(wc -l <out.txt) == "$i" ]] || fail "stack printed $(wc -l <out.txt) lines: $(cat out.txt)"

  # A plain list from standard input: the first line as it is, the others
  # less one; a blank line starts a new trace.
  printf '0x1013\n1013\n\n0x1013\n' | "$kelodbg" stack t.kdbg >out.txt 2>err.txt || fail "stack from stdin"
  [[ $(grep -c '^    main at' out.txt) == 2 && $(grep -c '^    util_scale at' out.txt) == 1 ]] ||
    fail "plain addresses: $(cat out.txt)"

  # Sanitizer and glibc lines: with --module, that module's frames by their
  # offset, the others not at all.
  printf '%s\n' '    #0 0x7f0000005013  (/opt/app/prog+0x1013)' '    #1 0x7f0000005013  (/opt/app/prog+0x1013)' \
    '    #2 0x7f00000a1013  (/lib/x86_64-linux-gnu/libc.so.6+0x1013)' './prog(+0x1013) [0x555555555013]' >asan.txt
  expect 0 '' -- "$kelodbg" stack --module prog t.kdbg asan.txt
  [[ $(sed -n 2p out.txt) == '    main at '* && $(sed -n 4p out.txt) == '    util_scale at '* &&
    $(sed -n 5p out.txt) == *libc.so.6* && $(sed -n 6p out.txt) == ./prog* &&
    $(sed -n 7p out.txt) == '    main at '* && $(wc -l <out.txt) == 7 ]] || fail "stack --module: $(cat out.txt)"
  expect 0 '' -- "$kelodbg" stack t.kdbg asan.txt
  grep -q 'no stored section holds 0x7f0000005012' out.txt || fail "stack without --module: $(cat out.txt)"

  expect 0 '' -- "$kelodbg" stack --json t.kdbg gdb.txt
  grep -q '"lookup": "0x1012"' out.txt && grep -q '"returnAddress": true' out.txt &&
    grep -q '"FunctionName":"util_scale"' out.txt && grep -q '"Section":".text"' out.txt &&
    grep -q '"version": "1.1.2"' out.txt || fail "stack --json: $(cat out.txt)"
  [[ $(grep -c '"frame":' out.txt) == 5 ]] || fail "stack --json holds the five frames: $(cat out.txt)"

  head -c 70000 /dev/zero | tr '\0' 'x' >long.txt
  expect 2 'line 1 is longer than' -- "$kelodbg" stack t.kdbg long.txt
  expect 3 'missing.txt' -- "$kelodbg" stack t.kdbg missing.txt
}

# place --map: the input sections of a GNU ld link map, for the objects
# whose bytes are stored.
test_link_maps() {
  ar rc libx.a extra.o util.o || fail "ar"
  "$kelodbg" create m.kdbg 1=main.o 2=util.o 3=extra.o || fail "create m.kdbg"
  cat >link.map <<'MAP'
Discarded input sections

 .text          0x0000000000000000       0x4f main.o

Linker script and memory map

LOAD main.o
.text           0x0000000000401000      0x200
 *(.text .text.*)
 .text          0x0000000000401000       0x4f main.o
                0x0000000000401000                main
 .text          0x0000000000401050       0x13 libx.a(util.o)
 .text          0x0000000000401070       0x13 main.o
 *fill*         0x0000000000401083        0xd 
 .text          0x0000000000401090       0x10 /nonexistent/crt1.o
.rodata         0x0000000000402000       0x20
 .rodata
                0x0000000000402000        0xa libx.a(util.o)
.debug_info     0x0000000000000000      0x100
 .debug_info    0x0000000000000000       0x80 main.o
MAP
  expect 0 'main\.o has several sections .\.text.; only the first has an address' -- \
    "$kelodbg" place m.kdbg --map link.map
  grep -q '1:0x00000002  libx.a(util.o)  2 sections placed' out.txt && grep -q 'placed 3 sections of 2 entries' out.txt ||
    fail "place --map said: $(cat out.txt)"
  grep -q 'crt1.o (No such file' err.txt || fail "place --map names what it could not read: $(cat err.txt)"
  "$kelodbg" list m.kdbg >list.txt
  grep -q '0x00000001  .* \.text=0x00401000$' list.txt && grep -q '0x00000002  .* \.rodata=0x00402000 \.text=0x00401050$' list.txt &&
    grep -q '0x00000003  .* -$' list.txt || fail "place --map recorded: $(cat list.txt)"

  # Nothing of the map stored, or no map at all: refused, the file as it was.
  cp m.kdbg before.kdbg
  sed 's/main\.o/other.o/; s/libx.a(util.o)/libx.a(nothing.o)/' link.map >other.map
  expect 8 'no object of other.map is stored' -- "$kelodbg" place m.kdbg --map other.map
  expect 2 'not a GNU ld link map' -- "$kelodbg" place m.kdbg --map main.o
  expect 2 'place takes ID --base ADDRESS, or --map' -- "$kelodbg" place m.kdbg 1 --map link.map
  same_file m.kdbg before.kdbg "refused place --map"
}

run_group "$3"
