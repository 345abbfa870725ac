#!/usr/bin/env bash
# Tests of the kelodbg command-line tool, run through the built binary.
#
# Usage: kelodbg_test.sh KELODBG EXAMPLES_DIR GROUP
# Groups: workflow json errors unchanged
set -uo pipefail
export LC_ALL=C # byte lengths, and byte-wise patterns

kelodbg=$1
examples=$2
group=$3

work=$(mktemp -d "${TMPDIR:-/tmp}/kelodbg-test.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
cp "$examples/main.o" "$examples/util.o" "$examples/extra.o" .

failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

# expect CODE PATTERN -- COMMAND...: runs COMMAND, checks its exit code and
# that stderr matches the extended regular expression PATTERN ('' for none).
expect() {
  local code=$1 pattern=$2
  shift 3
  "$@" >out.txt 2>err.txt
  local got=$?
  [[ $got == "$code" ]] || fail "'$*' exited with $got, expected $code; stderr: $(cat err.txt)"
  if [[ -n $pattern ]]; then
    grep -Eq -- "$pattern" err.txt || fail "'$*': stderr '$(cat err.txt)' does not match '$pattern'"
  fi
}

same_file() {
  cmp -s "$1" "$2" || fail "$3: $1 changed"
}

# Little-endian unsigned integer of $2 bytes, as raw bytes on stdout.
le() {
  local value=$1 n=$2 i escaped=
  for ((i = 0; i < n; i++)); do
    escaped+=$(printf '\\x%02x' $(((value >> (8 * i)) & 255)))
  done
  printf "$escaped"
}

header() { printf '\x80KELODBG'; printf "$1"; }

size_of() { stat -c %s "$1"; }

make_game() {
  "$kelodbg" create game.kdbg 0x00011234=main.o 7=util.o &&
    "$kelodbg" add game.kdbg 0x20=extra.o &&
    "$kelodbg" set-addr game.kdbg 0x00011234 .text 0x80001000 &&
    "$kelodbg" set-addr game.kdbg 0x00011234 .constant 0x2000 &&
    "$kelodbg" set-addr game.kdbg 7 .kelo.overlay 9
}

# ---------------------------------------------------------------------------
test_workflow() {
  make_game || fail "building game.kdbg"
  expect 0 '' -- "$kelodbg" renumber game.kdbg 0x00011234=1:0x40 7=0:0x41

  local m u x w
  m=$(size_of main.o) u=$(size_of util.o) x=$(size_of extra.o)
  w=$(printf '%s\n' 4 ${#m} ${#u} ${#x} | sort -n | tail -1)
  {
    printf "KIND  NUMBER      %${w}s  SECTIONS\n" SIZE
    printf "   0  0x00000041  %${w}s  .kelo.overlay=0x00000009\n" "$u"
    printf "   1  0x00000020  %${w}s  -\n" "$x"
    printf "   1  0x00000040  %${w}s  .constant=0x00002000 .text=0x80001000\n" "$m"
  } >expected.txt
  "$kelodbg" list game.kdbg >list.txt || fail "list exited with $?"
  diff -u expected.txt list.txt >&2 || fail "list output"

  "$kelodbg" show game.kdbg 0x40 >show.txt || fail "show exited with $?"
  grep -Eq '^identifier  1:0x00000040$' show.txt || fail "show: identifier line"
  grep -Eq "^image size  $m bytes$" show.txt || fail "show: size line"
  grep -Eq '^\.text +0x80001000$' show.txt || fail "show: .text address"
  grep -Eq '^\.constant +0x00002000  \(not an image section\)$' show.txt || fail "show: .constant"

  expect 0 '' -- "$kelodbg" extract game.kdbg 1:0x40 -o main-copy.o
  expect 0 '' -- "$kelodbg" extract game.kdbg 0:65 --output util-copy.o
  same_file main.o main-copy.o "extract 0x40" && same_file util.o util-copy.o "extract 0:65"

  [[ $("$kelodbg" version game.kdbg) == 1.1.2 ]] || fail "version output"
  [[ $("$kelodbg" check game.kdbg) == "game.kdbg: debug-info file version 1.1.2, 3 entries" ]] || fail "check output"

  # Merge into a new file, and into one of its own inputs.
  expect 0 '' -- "$kelodbg" create other.kdbg 0x99=extra.o
  expect 0 '' -- "$kelodbg" merge all.kdbg game.kdbg other.kdbg
  [[ $("$kelodbg" list all.kdbg | wc -l) == 5 ]] || fail "merge: 4 entries and a header"
  expect 0 '' -- "$kelodbg" create third.kdbg 0x100=util.o
  expect 0 '' -- "$kelodbg" merge other.kdbg other.kdbg third.kdbg
  [[ $("$kelodbg" list other.kdbg | wc -l) == 3 ]] || fail "merge into an input: 2 entries and a header"
  expect 10 'identifier 1:0x00000099 is in both other.kdbg and other.kdbg' -- \
    "$kelodbg" merge other.kdbg other.kdbg other.kdbg

  # An empty file: 20 bytes, lists as a header only.
  expect 0 '' -- "$kelodbg" create empty.kdbg
  [[ $(size_of empty.kdbg) == 20 ]] || fail "an empty list is 20 bytes"
  [[ $("$kelodbg" list empty.kdbg) == "KIND  NUMBER      SIZE  SECTIONS" ]] || fail "empty list output"

  # Renumbering: an exchange is one step; numbers in decimal or hex.
  expect 0 '' -- "$kelodbg" renumber game.kdbg 0x20=64 1:64=32
  "$kelodbg" list game.kdbg | grep -Eq "^   1  0x00000020  +$m  \.constant" || fail "exchange moved main.o's entry to 0x20"

  # --help on every command, --version.
  local cmd
  for cmd in create add set-addr renumber merge list show extract version check; do
    "$kelodbg" "$cmd" --help >help.txt || fail "$cmd --help exited with $?"
    grep -q '^Usage: kelodbg '"$cmd" help.txt || fail "$cmd --help usage line"
    grep -q '^  10  renumbering or merge refused' help.txt || fail "$cmd --help lists exit codes"
  done
  "$kelodbg" --version | grep -Eq '^kelodbg 1\.1\.2 \(debug-info library 1\.1\.2' || fail "--version"
}

# ---------------------------------------------------------------------------
test_json() {
  local py=
  command -v python3 >/dev/null && python3 -c 'import json' 2>/dev/null && py=python3
  make_game || fail "building game.kdbg"

  # A file carrying section names that need escaping; the format allows
  # any name, only setSectionAddr restricts them.
  local n1='q"u\o' n2=$'tab\there' n3=$'\xc3\xa9t\xc3\xa9' n4=$'bad\xffbyte\x01'
  {
    header '\x01\x01\x02\x00'
    le 1 8
    le 1 1; le 5 2; le 0 2
    le "$(size_of util.o)" 8
    cat util.o
    le 4 8
    local n
    for n in "$n1" "$n2" "$n3" "$n4"; do
      le ${#n} 8
      printf '%s' "$n"
      le 16 4
    done
  } >names.kdbg
  expect 0 '' -- "$kelodbg" check names.kdbg

  "$kelodbg" list --json names.kdbg >names.json || fail "list --json exited with $?"
  grep -Fq '"q\"u\\o": 16' names.json || fail "quote and backslash escaped: $(cat names.json)"
  grep -Fq '"tab\there": 16' names.json || fail "tab escaped"
  grep -Fq $'"\xc3\xa9t\xc3\xa9": 16' names.json || fail "valid UTF-8 passes through"
  grep -Fq '"bad\u00ffbyte\u0001": 16' names.json || fail "invalid UTF-8 and control bytes escaped"
  "$kelodbg" list names.kdbg | grep -Fq 'q"u\x5co=0x00000010 tab\x09here=0x00000010' ||
    fail "table escapes unprintable bytes"

  "$kelodbg" list --json game.kdbg >game.json || fail "list --json exited with $?"
  "$kelodbg" show --json game.kdbg 0x00011234 >show.json || fail "show --json exited with $?"
  "$kelodbg" create empty.kdbg && "$kelodbg" list --json empty.kdbg >empty.json || fail "empty list --json"
  if [[ -z $py ]]; then
    echo "python3 not found: JSON documents not parsed" >&2
    return
  fi
  $py - game.json show.json names.json empty.json "$(size_of main.o)" <<'EOF' || fail "JSON content"
import json, sys
game, show, names, empty = (json.load(open(p, encoding="utf-8")) for p in sys.argv[1:5])
size = int(sys.argv[5])
assert game["version"] == "1.1.2" and game["file"] == "game.kdbg", game
ids = [e["id"] for e in game["entries"]]
assert ids == ["1:0x00000007", "1:0x00000020", "1:0x00011234"], ids
main = game["entries"][2]
assert main["kind"] == 1 and main["number"] == 0x11234 and main["size"] == size, main
assert main["sections"] == {".constant": 0x2000, ".text": 0x80001000}, main
assert show["id"] == "1:0x00011234" and ".text" in show["image_sections"], show
assert show["sections"] == main["sections"], show
assert set(names["entries"][0]["sections"]) == {'q"u\\o', "tab\there", "\u00e9t\u00e9", "bad\u00ffbyte\u0001"}
assert empty["entries"] == [], empty
EOF
}

# ---------------------------------------------------------------------------
test_errors() {
  make_game || fail "building game.kdbg"

  # Usage errors: code 2, nothing touched.
  expect 2 'subcommand is required' -- "$kelodbg"
  expect 2 'file is required' -- "$kelodbg" list
  expect 2 '' -- "$kelodbg" frobnicate game.kdbg
  expect 2 "'2:5': the kind is 0 or 1" -- "$kelodbg" show game.kdbg 2:5
  expect 2 "'0x100000000' does not fit in 32 bits" -- "$kelodbg" set-addr game.kdbg 7 .text 0x100000000
  expect 2 "'12z' is not a number" -- "$kelodbg" show game.kdbg 12z
  expect 2 "'5' is not of the form ID=ELF-FILE" -- "$kelodbg" add game.kdbg 5
  expect 2 "'7' is not of the form OLD=NEW" -- "$kelodbg" renumber game.kdbg 7
  expect 2 'entries are added under kind 1' -- "$kelodbg" add game.kdbg 0:5=main.o

  # Files that cannot be read, or are not debug-info files.
  expect 3 '^kelodbg: missing\.kdbg: No such file or directory$' -- "$kelodbg" list missing.kdbg
  mkdir adir
  expect 3 '^kelodbg: adir: Is a directory$' -- "$kelodbg" check adir
  expect 4 '^kelodbg: main\.o: not a debug-info file \(wrong magic\)$' -- "$kelodbg" list main.o
  : >zero.kdbg
  expect 4 'not a debug-info file' -- "$kelodbg" version zero.kdbg
  header '\x01\x01' >short.kdbg
  expect 6 'short\.kdbg: damaged debug-info file \(header cut short\)' -- "$kelodbg" check short.kdbg

  # Versions: the header is reported as it stands; only 1.1.x is read.
  { header '\x01\x02\x00\x00'; le 0 8; } >v120.kdbg
  { header '\x02\x01\x00\x00'; le 0 8; } >v210.kdbg
  { header '\x01\x01\x09\xff'; le 0 8; } >v119.kdbg
  expect 5 '^kelodbg: v120\.kdbg: unsupported version 1\.2\.0' -- "$kelodbg" list v120.kdbg
  expect 5 'unsupported version 2\.1\.0' -- "$kelodbg" add v210.kdbg 5=main.o
  [[ $("$kelodbg" version v210.kdbg) == 2.1.0 ]] || fail "version reports 2.1.0"
  expect 0 '' -- "$kelodbg" check v119.kdbg

  # Damaged bodies: cut short, or an image that does not load.
  head -c 100 game.kdbg >cut.kdbg
  expect 6 '^kelodbg: cut\.kdbg: damaged debug-info file \(its entries cannot be decoded\)$' -- \
    "$kelodbg" list cut.kdbg
  { header '\x01\x01\x02\x00'; le 1 8; le 1 1; le 5 2; le 0 2; le 4 8; printf 'JUNK'; le 0 8; } >junk.kdbg
  expect 6 'damaged' -- "$kelodbg" show junk.kdbg 5

  # ELF files that do not load, or are not there.
  printf 'not an ELF file' >text.o
  expect 7 '^kelodbg: text\.o: not an ELF file that can be loaded$' -- "$kelodbg" add game.kdbg 5=text.o
  expect 7 'zero\.kdbg: not an ELF' -- "$kelodbg" create new.kdbg 5=main.o 6=zero.kdbg
  [[ ! -e new.kdbg ]] || fail "a failed create leaves no file"
  expect 3 '^kelodbg: gone\.o: No such file or directory$' -- "$kelodbg" add game.kdbg 5=gone.o

  # Identifiers absent or present.
  expect 9 '^kelodbg: game\.kdbg: identifier 1:0x00000007 is already present$' -- "$kelodbg" add game.kdbg 7=main.o
  expect 9 'identifier 1:0x00000005 is given twice' -- "$kelodbg" add game.kdbg 5=main.o 1:5=util.o
  expect 8 '^kelodbg: game\.kdbg: no entry 1:0x00000099$' -- "$kelodbg" show game.kdbg 0x99
  expect 8 'no entry 1:0x00000099' -- "$kelodbg" renumber game.kdbg 7=8 0x99=9

  # Refused renumberings and merges name the colliding identifier.
  expect 10 'cannot renumber 1:0x00000007 to 1:0x00000020: an entry that keeps its identifier holds it' -- \
    "$kelodbg" renumber game.kdbg 7=0x20
  expect 10 'two entries would be renumbered to 1:0x00000050' -- "$kelodbg" renumber game.kdbg 7=0x50 0x20=0x50
  expect 10 'identifier 1:0x00000007 is renumbered twice' -- "$kelodbg" renumber game.kdbg 7=0x50 1:7=0x51
  "$kelodbg" create other.kdbg 0x20=util.o 0x30=main.o || fail "create other.kdbg"
  expect 10 '^kelodbg: identifier 1:0x00000020 is in both game\.kdbg and other\.kdbg$' -- \
    "$kelodbg" merge all.kdbg game.kdbg other.kdbg
  [[ ! -e all.kdbg ]] || fail "a refused merge writes nothing"

  # Sections the image does not have.
  expect 11 "^kelodbg: game\\.kdbg: entry 1:0x00000007 has no section '\\.nope'" -- \
    "$kelodbg" set-addr game.kdbg 7 .nope 1
  expect 0 '' -- "$kelodbg" set-addr game.kdbg 7 .local 1

  # Output that cannot be written.
  expect 3 'cannot create a temporary file' -- "$kelodbg" extract game.kdbg 7 -o no/such/dir/x.o
  if [[ -w /dev/full ]]; then
    expect 3 '<stdout>: cannot write' -- bash -c "'$kelodbg' list game.kdbg >/dev/full"
  fi
}

# ---------------------------------------------------------------------------
test_unchanged() {
  make_game || fail "building game.kdbg"
  cp game.kdbg before.kdbg

  # Every refused change leaves the file as it was, byte for byte.
  "$kelodbg" add game.kdbg 5=main.o 7=util.o 2>/dev/null && fail "add over a taken identifier"
  "$kelodbg" renumber game.kdbg 0x00011234=0x50 7=0x20 2>/dev/null && fail "renumber onto a kept identifier"
  "$kelodbg" set-addr game.kdbg 7 .nope 1 2>/dev/null && fail "set-addr of a missing section"
  "$kelodbg" merge game.kdbg game.kdbg before.kdbg 2>/dev/null && fail "merge with itself"
  same_file game.kdbg before.kdbg "refused changes"

  # A write that fails half-way (the file size limit stops it) leaves the
  # original and no temporary file behind.
  (
    trap '' XFSZ
    ulimit -f 4
    "$kelodbg" add game.kdbg 0x300=extra.o 2>err.txt
    echo $? >rc.txt
  )
  [[ $(cat rc.txt) == 3 ]] || fail "a failed write exits with 3, not $(cat rc.txt)"
  grep -Eq '^kelodbg: game\.kdbg: cannot write' err.txt || fail "failed write message: $(cat err.txt)"
  same_file game.kdbg before.kdbg "failed write"
  [[ -z $(find . -name '.game.kdbg.*') ]] || fail "temporary file left behind"

  # A change keeps the file's mode and replaces a symbolic link's target.
  chmod 640 game.kdbg
  ln -s game.kdbg link.kdbg
  expect 0 '' -- "$kelodbg" set-addr link.kdbg 7 .constant 0x44
  [[ -L link.kdbg ]] || fail "the link is still a link"
  [[ $(stat -c %a game.kdbg) == 640 ]] || fail "mode kept: $(stat -c %a game.kdbg)"
  "$kelodbg" list game.kdbg | grep -q '\.constant=0x00000044' || fail "the change went to the link's target"
}

case $group in
  workflow | json | errors | unchanged) "test_$group" ;;
  *)
    echo "unknown group '$group'" >&2
    exit 2
    ;;
esac

if ((failures > 0)); then
  echo "$failures check(s) failed in group $group" >&2
  exit 1
fi
echo "group $group passed"
