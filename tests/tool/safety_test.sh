#!/usr/bin/env bash
# kelodbg never loses data: parallel changes, outputs that are not regular
# files, refusals that protect files, signals, and exhausted resources.
#
# Usage: safety_test.sh KELODBG DATA_DIR GROUP
kelodbg=$1 data=$2
source "$(dirname "$0")/lib.sh"

no_temporaries() { [[ -z $(find . -name '*.kelodbg-*') ]] || fail "$1: temporary file left behind"; }

test_parallel() {
  local round i
  for round in 1 2 3; do
    "$kelodbg" create par.kdbg || fail "create"
    for i in $(seq 1 16); do "$kelodbg" add par.kdbg "$i=main.o" & done
    wait
    [[ $("$kelodbg" list par.kdbg | wc -l) == 17 ]] || fail "round $round: 16 parallel adds give 16 entries"
  done
  # A lock held too long is reported, naming the file.
  exec 9<par.kdbg
  flock -x 9
  expect 13 '^kelodbg: par\.kdbg: locked by another change for more than 0\.2 s' -- \
    "$kelodbg" add --wait 0.2 par.kdbg 99=main.o
  exec 9<&-
  no_temporaries "parallel"
}

test_outputs() {
  make_game || fail "building game.kdbg"
  # Links: followed to their target; dangling and looping ones refused.
  ln -s game.kdbg link.kdbg
  expect 0 '' -- "$kelodbg" set-addr link.kdbg 7 .constant 0x44
  [[ -L link.kdbg ]] || fail "the link is still a link"
  ln -s nowhere dangling.kdbg
  expect 14 'dangling\.kdbg: a dangling symbolic link; refused' -- "$kelodbg" create dangling.kdbg 1=main.o
  [[ -L dangling.kdbg && ! -e nowhere ]] || fail "the dangling link is left as it is"
  ln -s loop-b loop-a && ln -s loop-a loop-b
  expect 14 'a symbolic link loop' -- "$kelodbg" extract game.kdbg 7 -o loop-a
  # FIFOs and character devices are streamed to, never replaced.
  mkfifo pipe
  timeout 20 cat pipe >from-pipe &  # does not wait forever if nothing comes
  expect 0 '' -- "$kelodbg" extract game.kdbg 7 -o pipe
  wait
  [[ -p pipe ]] || fail "the FIFO is still a FIFO"
  same_file util.o from-pipe "extract to a FIFO"
  expect 0 '' -- "$kelodbg" extract game.kdbg 7 -o /dev/null
  [[ -c /dev/null ]] || fail "/dev/null is still a device"
  # Directories are refused; in-place changes need a regular file.
  mkdir folder
  expect 14 'folder: a directory; refused as an output' -- "$kelodbg" create folder 1=main.o
  expect 14 'a change needs a regular file' -- "$kelodbg" add pipe 5=main.o
  no_temporaries "outputs"
}

test_refusals() {
  make_game || fail "building game.kdbg"
  cp game.kdbg before.kdbg
  expect 14 '^kelodbg: game\.kdbg: is also the input game\.kdbg; refused before anything was written$' -- \
    "$kelodbg" extract game.kdbg 7 -o game.kdbg
  ln -s game.kdbg alias.kdbg
  expect 14 'is also the input' -- "$kelodbg" extract alias.kdbg 7 -o game.kdbg
  expect 14 'is also the input' -- bash -c "'$kelodbg' extract game.kdbg 7 -o - >>game.kdbg"
  same_file game.kdbg before.kdbg "same-file refusals"
  chmod a-w game.kdbg
  expect 14 'read-only; not changed' -- "$kelodbg" add game.kdbg 5=main.o
  chmod u+w game.kdbg
  ln game.kdbg second-name.kdbg
  expect 14 'has 2 hard links; replacing it would split it from its other names' -- \
    "$kelodbg" add game.kdbg 5=main.o
  same_file game.kdbg before.kdbg "refused changes"
  rm second-name.kdbg
  # A replaced file keeps its mode; a name of 250 bytes can still be changed.
  chmod 640 game.kdbg
  expect 0 '' -- "$kelodbg" add game.kdbg 5=main.o
  [[ $(stat -c %a game.kdbg) == 640 ]] || fail "mode kept: $(stat -c %a game.kdbg)"
  local long
  long=$(printf 'n%.0s' $(seq 1 245)).kdbg
  expect 0 '' -- "$kelodbg" create "$long" 1=main.o
  expect 0 '' -- "$kelodbg" add "$long" 2=util.o
  no_temporaries "refusals"
}

test_signals() {
  # A big image, so that the write takes a while; the signal is sent as soon
  # as the temporary file appears.
  echo 'char big[64 << 20] = {1};' >big.c && "${CC:-cc}" -c big.c -o big.o || fail "compiling big.o"
  make_game || fail "building game.kdbg"
  cp game.kdbg before.kdbg
  local sig status
  local -a temp
  shopt -s nullglob
  for sig in INT TERM HUP; do
    # A leftover of an earlier round would be taken for this round's file.
    temp=(.game.kdbg.kelodbg-*)
    ((${#temp[@]} == 0)) || fail "SIG$sig: a temporary file was left before the round: ${temp[*]}"
    rm -f .game.kdbg.kelodbg-*
    # (A background job starts with SIGINT ignored, and kelodbg keeps
    # ignored signals ignored; env gives it the default back.)
    env --default-signal="$sig" "$kelodbg" add game.kdbg 0x500=big.o &
    local pid=$!
    temp=()
    while ((${#temp[@]} == 0)) && kill -0 "$pid" 2>/dev/null; do
      temp=(.game.kdbg.kelodbg-*)
    done
    kill -"$sig" "$pid" 2>/dev/null
    wait "$pid"
    status=$?
    if ((${#temp[@]} == 0)); then
      echo "SIG$sig: the change finished before the signal; not judged" >&2
      cp before.kdbg game.kdbg
      continue
    fi
    [[ $status == $((128 + $(kill -l "$sig"))) ]] || fail "SIG$sig: status $status"
    local -a left=(.game.kdbg.kelodbg-*)
    ((${#left[@]} == 0)) || fail "SIG$sig: the temporary file ${left[*]} was left behind"
    same_file game.kdbg before.kdbg "SIG$sig during a change"
  done
  no_temporaries "signals"
}

test_resources() {
  make_game || fail "building game.kdbg"
  cp game.kdbg before.kdbg
  # A write stopped by the file size limit: a message, the file unchanged.
  (ulimit -f 4 && "$kelodbg" add game.kdbg 0x300=extra.o 2>err.txt; echo $? >rc.txt)
  [[ $(cat rc.txt) == 3 ]] || fail "file size limit: exit $(cat rc.txt), expected 3"
  grep -q 'game\.kdbg: cannot write: file too large' err.txt || fail "file size limit: $(cat err.txt)"
  same_file game.kdbg before.kdbg "file size limit"
  # Exhausted memory is reported as such, never as a damaged file.
  echo 'char big[64 << 20] = {1};' >big.c && "${CC:-cc}" -c big.c -o big.o || fail "compiling big.o"
  "$kelodbg" create big.kdbg 1=big.o || fail "create big.kdbg"
  local limit=$((40 * 1024)) # KiB: enough to start, not enough for the image
  # (Listing reads no image, so it needs little memory.)
  (ulimit -v $limit && "$kelodbg" list big.kdbg >/dev/null 2>err.txt; echo $? >rc.txt)
  [[ $(cat rc.txt) == 0 ]] || fail "listing with little memory: exit $(cat rc.txt): $(cat err.txt)"
  (ulimit -v $limit && "$kelodbg" show big.kdbg 1 2>err.txt; echo $? >rc.txt)
  [[ $(cat rc.txt) == 12 ]] || fail "out of memory reading: exit $(cat rc.txt): $(cat err.txt)"
  grep -q 'big\.kdbg: out of memory' err.txt || fail "out of memory reading: $(cat err.txt)"
  (ulimit -v $limit && "$kelodbg" create other.kdbg 1=big.o 2>err.txt; echo $? >rc.txt)
  [[ $(cat rc.txt) == 12 ]] || fail "out of memory loading an ELF file: exit $(cat rc.txt): $(cat err.txt)"
  # A small file that claims a 1.75 GiB image is damaged, however little memory there is.
  { header '\x01\x01\x02\x00'; le 1 8; le 1 1; le 5 2; le 0 2; le $((0x70000000)) 8; printf 'JUNK'; } >claims.kdbg
  expect 6 'ends inside the image \(1879048192 bytes\)' -- bash -c "ulimit -v $limit && exec '$kelodbg' list claims.kdbg"
  # 20 bytes that claim 2^28 entries: damaged, however little memory there is.
  { header '\x01\x01\x02\x00'; le $((1 << 28)) 8; } >claims-entries.kdbg
  expect 6 'ends inside the kind' -- bash -c "ulimit -v $limit && exec '$kelodbg' list claims-entries.kdbg"
  expect 6 'ends inside the kind' -- bash -c "ulimit -v $limit && exec '$kelodbg' check claims-entries.kdbg"
  # A stream whose header claims a huge image, then endless zeros: an error
  # in bounded time and memory, whatever the claim.
  local claim
  for claim in $((1 << 40)) $((0xFFFFFFFF)); do
    { header '\x01\x01\x02\x00'; le 1 8; le 1 1; le 5 2; le 0 2; le "$claim" 8; cat /dev/zero 2>/dev/null; } |
      (ulimit -v $limit && timeout 60 "$kelodbg" list - 2>err.txt)
    local rc=$?
    [[ $rc == 6 || $rc == 12 ]] || fail "an image of $claim bytes of zeros: exit $rc, $(cat err.txt)"
  done
  # Closed standard error or output: no abort, the exit code stays right.
  "$kelodbg" list missing.kdbg 2>&-
  [[ $? == 3 ]] || fail "closed stderr: exit code"
  "$kelodbg" list game.kdbg >&- 2>err.txt
  [[ $? == 3 ]] || fail "closed stdout: exit code"
  if [[ -w /dev/full ]]; then
    expect 3 '<stdout>: cannot write' -- bash -c "'$kelodbg' list game.kdbg >/dev/full"
  fi
  # A closed pipe ends the listing quietly.
  for i in $(seq 1 2000); do echo "$((i + 100))=main.o"; done >many.txt
  "$kelodbg" create many.kdbg @many.txt || fail "create many.kdbg"
  "$kelodbg" list many.kdbg 2>err.txt | head -1 >/dev/null
  [[ ! -s err.txt ]] || fail "closed pipe: $(cat err.txt)"
  no_temporaries "resources"
}

# 32-bit builds: a sparse file above 2 GiB, whose one image is 3 GiB, is
# opened and its version read; its body fails clearly.
test_large() {
  { header '\x01\x01\x02\x00'; le 1 8; le 1 1; le 5 2; le 0 2; le $((3 << 30)) 8; } >large.kdbg
  truncate -s $(((3 << 30) + 64)) large.kdbg || fail "making a sparse file"
  [[ $("$kelodbg" version large.kdbg) == 1.1.2 ]] || fail "version of a file above 2 GiB"
  expect 12 'the image of 3221225472 bytes at entry 0 \(1:0x00000005\), offset 33 is more than this program can hold' -- \
    "$kelodbg" check large.kdbg
  # Listing reads no image; showing the entry needs it.
  expect 0 '' -- "$kelodbg" list large.kdbg
  grep -q '^   1  0x00000005  3221225472  -$' out.txt || fail "list of a file above 2 GiB: $(cat out.txt)"
  expect 12 'the image of 3221225472 bytes at entry 0 \(1:0x00000005\), offset 33 is more than this program can hold' -- \
    "$kelodbg" show large.kdbg 5
}

# Every name of a stream is written as the descriptor it names, where it
# stands; streams are read as they arrive and never grow the tool without
# bound; a stream is read once.
test_streams() {
  make_game || fail "building game.kdbg"
  local name
  for name in - /dev/stdout /dev/fd/1 /proc/self/fd/1; do
    echo "earlier line" >log.txt
    "$kelodbg" extract game.kdbg 7 -o "$name" >>log.txt || fail "extract -o $name >>log.txt"
    [[ $(head -1 log.txt) == "earlier line" ]] || fail "-o $name: the earlier line of the log is gone"
    tail -c +14 log.txt >tail.o && same_file tail.o util.o "-o $name appended"
    # Bytes already written to standard output stay in front.
    { printf 'first'; "$kelodbg" extract game.kdbg 7 -o "$name"; } >both.bin
    [[ $(head -c 5 both.bin) == first ]] || fail "-o $name: bytes in front of the object lost"
    "$kelodbg" extract game.kdbg 7 -o "$name" | cat >piped.o
    same_file piped.o util.o "-o $name into a pipe"
  done
  "$kelodbg" list game.kdbg >game.list
  "$kelodbg" list /dev/stdin <game.kdbg >stdin.list && cmp -s game.list stdin.list || fail "list /dev/stdin"
  expect 14 'a change needs a regular file' -- "$kelodbg" add /dev/stdin 9=main.o
  # Only the header of an endless stream is read; a wrong magic fails at once.
  [[ $({ header '\x01\x01\x02\x00'; cat /dev/zero; } | timeout 20 "$kelodbg" version -) == 1.1.2 ]] ||
    fail "version - of an endless stream"
  expect 4 'wrong magic' -- timeout 20 "$kelodbg" version /dev/zero
  expect 4 'wrong magic' -- timeout 20 "$kelodbg" list /dev/zero
  # (A claim that 32-bit builds can hold too.)
  { header '\x01\x01\x02\x00'; le 1 8; le 1 1; le 5 2; le 0 2; le $((0x70000000)) 8; cat /dev/zero 2>/dev/null; } |
    timeout 60 "$kelodbg" list --max-input 1M - 2>err.txt
  [[ $? == 3 ]] && grep -q 'more than 1 MiB arrived' err.txt || fail "--max-input: $(cat err.txt)"
  expect 2 'line 1 holds a NUL byte' -- timeout 20 "$kelodbg" remove game.kdbg @/dev/zero
  # A stream is read once.
  expect 2 '<stdin> is read twice' -- bash -c "'$kelodbg' diff - - <game.kdbg"
  expect 2 '<stdin> is read twice' -- bash -c "cat game.kdbg | '$kelodbg' merge out.kdbg - -"
  [[ ! -e out.kdbg ]] || fail "a refused merge wrote its output"
  # addr2line reads addresses from standard input, where the tool has it
  # (builds without the symbolization library do not).
  if "$kelodbg" help addr2line >/dev/null 2>&1; then
    expect 2 'is read twice' -- bash -c "echo 0x80001000 | '$kelodbg' addr2line - "
    # A read of standard input that fails is an error.
    expect 3 '<stdin>: cannot read: Is a directory' -- bash -c "'$kelodbg' addr2line game.kdbg <."
    expect 3 '<stdin>: cannot read' -- bash -c "'$kelodbg' addr2line game.kdbg <&-"
  fi
  no_temporaries "streams"
}

# A change never drops in silence what the reader drops.
test_drops() {
  # Entry 1 twice (with its whole image), a section recorded twice, and
  # bytes after the last entry.
  { header '\x01\x01\x02\x00'; le 2 8
    le 1 1; le 1 2; le 0 2; le "$(size_of main.o)" 8; cat main.o
    le 2 8; le 5 8; printf '.text'; le 16 4; le 5 8; printf '.text'; le 32 4
    le 1 1; le 1 2; le 0 2; le "$(size_of util.o)" 8; cat util.o; le 0 8
    printf 'trailing'; } >drops.kdbg
  cp drops.kdbg before.kdbg
  local command
  for command in "set-addr drops.kdbg 1 .text=0x10" "remove drops.kdbg 1" "add drops.kdbg 2=extra.o" \
    "renumber drops.kdbg 1=3" "unset-addr drops.kdbg 1 .text"; do
    expect 14 'drops\.kdbg: holds what reading drops.*repeats an earlier.*trailing|drops\.kdbg: holds what reading drops' \
      -- "$kelodbg" $command
    same_file drops.kdbg before.kdbg "$command"
  done
  grep -q 'identifier 1:0x00000001 repeats' err.txt && grep -q 'section' err.txt || fail "the refusal names what is lost: $(cat err.txt)"
  expect 14 'holds what reading drops' -- "$kelodbg" merge out.kdbg drops.kdbg
  expect 14 'holds what reading drops' -- bash -c "'$kelodbg' merge out.kdbg - <drops.kdbg"
  "$kelodbg" create other.kdbg 9=extra.o
  expect 14 'holds what reading drops' -- "$kelodbg" merge --into other.kdbg drops.kdbg
  [[ ! -e out.kdbg ]] || fail "a refused merge wrote its output"
  # Told to drop them, the change goes through.
  expect 0 '' -- "$kelodbg" set-addr --drop-unread drops.kdbg 1 .text=0x10
  expect 0 '' -- "$kelodbg" place drops.kdbg 1 --base 0x10000
  expect 0 '' -- "$kelodbg" check --strict drops.kdbg
  # Two entries that each record .text are no repeat.
  "$kelodbg" create two.kdbg 1=main.o 2=util.o && "$kelodbg" place two.kdbg 1 --base 0x1000 >/dev/null &&
    "$kelodbg" place two.kdbg 2 --base 0x20000 >/dev/null || fail "building two.kdbg"
  expect 0 '' -- "$kelodbg" check --strict two.kdbg
}

# A symbolic link in a shared sticky folder, made by another user, is not
# followed, whatever the kernel enforces.
test_links() {
  if [[ $(id -u) != 0 ]] || ! command -v setpriv >/dev/null || ! id nobody >/dev/null 2>&1; then
    echo "links: needs root, setpriv and the user nobody; not run" >&2
    return
  fi
  chmod 755 . && mkdir pub && chmod 1777 pub && echo "victim" >victim.txt
  make_game || fail "building game.kdbg"
  cp game.kdbg before.kdbg
  setpriv --reuid=nobody --regid="$(id -g nobody)" --clear-groups ln -s "$PWD/victim.txt" pub/out.kdbg
  setpriv --reuid=nobody --regid="$(id -g nobody)" --clear-groups ln -s "$PWD/game.kdbg" pub/game.kdbg
  expect 14 'pub/out\.kdbg: a symbolic link owned by user [0-9]+ in the shared folder' -- \
    "$kelodbg" create pub/out.kdbg 1=main.o
  [[ $(cat victim.txt) == victim ]] || fail "the link's target was written"
  expect 14 'not followed' -- "$kelodbg" set-addr pub/game.kdbg 7 .text=0x10
  expect 14 'not followed' -- "$kelodbg" extract game.kdbg 7 -o pub/out.kdbg
  same_file game.kdbg before.kdbg "a change through another user's link"
  # The user's own links there are followed.
  ln -s "$PWD/game.kdbg" pub/mine.kdbg
  expect 0 '' -- "$kelodbg" set-addr pub/mine.kdbg 7 .text=0x10
}

# A killed writer's temporary file is reported by check and removed by the
# next change; a live writer's is left alone.
test_leftovers() {
  echo 'char big[64 << 20] = {1};' >big.c && "${CC:-cc}" -c big.c -o big.o || fail "compiling big.o"
  make_game || fail "building game.kdbg"
  shopt -s nullglob
  local -a temp=()
  "$kelodbg" add game.kdbg 0x500=big.o &
  local pid=$!
  while ((${#temp[@]} == 0)) && kill -0 "$pid" 2>/dev/null; do temp=(.game.kdbg.kelodbg-*); done
  kill -9 "$pid"
  wait "$pid" 2>/dev/null
  temp=(.game.kdbg.kelodbg-*)
  ((${#temp[@]} == 1)) || fail "kill -9 left ${#temp[@]} temporary files, expected 1"
  expect 15 "warning: '\\.game\\.kdbg\\.kelodbg-[a-z0-9]{6}' \([0-9]+ bytes\) is a temporary file" -- \
    "$kelodbg" check --strict game.kdbg
  # A live writer's temporary file (locked) stays.
  touch .game.kdbg.kelodbg-zzzzzz
  exec 8<.game.kdbg.kelodbg-zzzzzz
  flock -x 8
  expect 0 '' -- "$kelodbg" set-addr game.kdbg 7 .text=0x10
  temp=(.game.kdbg.kelodbg-*)
  [[ ${temp[*]} == .game.kdbg.kelodbg-zzzzzz ]] || fail "after a change: ${temp[*]} (expected only the live one)"
  exec 8<&-
  rm -f .game.kdbg.kelodbg-zzzzzz
}

# Temporary files are made exclusively and synced before the rename; the
# shim makes their names predictable and logs the calls.
test_temporaries() {
  [[ -n ${IO_SHIM:-} ]] || { fail "IO_SHIM is not set"; return; }
  make_game || fail "building game.kdbg"
  local mode
  for mode in unnamed named; do
    echo "someone else's" >other.txt
    ln -f other.txt .game.kdbg.kelodbg-aaaaaa
    local -a env=(env LD_PRELOAD="$IO_SHIM" ASAN_OPTIONS=verify_asan_link_order=0 KELO_SHIM_LOG="$PWD/calls.log")
    [[ $mode == named ]] && env+=(KELO_SHIM_NO_TMPFILE=1)
    rm -f calls.log
    expect 0 '' -- "${env[@]}" "$kelodbg" set-addr game.kdbg 7 .text=0x10
    [[ $(cat other.txt) == "someone else's" ]] || fail "$mode: the file planted at the first temporary name was written"
    local renamed
    renamed=$(grep -m1 '^renameat [0-9]* .game.kdbg.kelodbg-bbbbbb game.kdbg$' calls.log) ||
      fail "$mode: renamed: $(cat calls.log)"
    # The temporary file is synced before it is renamed.
    local inode=${renamed#renameat } && inode=${inode%% *}
    [[ $(grep -m1 -E "^(fsync $inode|renameat)( |$)" calls.log) == "fsync $inode" ]] ||
      fail "$mode: no fsync of the temporary file before the rename: $(cat calls.log)"
    rm -f .game.kdbg.kelodbg-aaaaaa
  done
  no_temporaries "temporaries"
}

# Options and arguments are checked, and messages name the user's files in
# one line each.
test_messages() {
  make_game || fail "building game.kdbg"
  cp game.kdbg before.kdbg
  local value
  for value in nan inf -1 1e400 10x ''; do
    expect 2 "--wait: '.*' is not a number of seconds from 0 to 1000000" -- "$kelodbg" add --wait "$value" game.kdbg 9=main.o
    (($(wc -c <err.txt) < 300)) || fail "--wait $value: a long message"
  done
  for value in nan -1 0 18446744073709551616 99999999999999999999G 1x; do
    expect 2 "--max-input: '.*' is not a size from 1 to 1024T" -- "$kelodbg" list --max-input "$value" game.kdbg
  done
  expect 2 'larger than' -- "$kelodbg" set-addr game.kdbg 7 .text 0x10000000000000010
  expect 2 'larger than' -- "$kelodbg" set-addr game.kdbg 7 .text=18446744073709551632
  expect 2 'larger than' -- "$kelodbg" remove game.kdbg 0x100000007
  printf '7\0junk\n' >args.txt
  expect 2 'args\.txt: line 1 holds a NUL byte' -- "$kelodbg" remove game.kdbg @args.txt
  same_file game.kdbg before.kdbg "refused arguments"
  # Control bytes of names are escaped: one line, no forged ones.
  expect 3 'kelodbg: a\\x0akelodbg: forged\\x1b\[1m: No such file' -- "$kelodbg" list $'a\nkelodbg: forged\e[1m'
  [[ $(wc -l <err.txt) == 1 ]] || fail "a name with a newline: $(cat err.txt)"
  # Out of descriptors, wherever that happens, the message names the file.
  local limit out_of_descriptors=0
  for limit in 4 5 6 7 8 9 10 12 16; do
    cp before.kdbg game.kdbg
    bash -c "for fd in \$(ls /proc/\$\$/fd); do ((fd > 2)) && eval \"exec \$fd>&-\"; done
             ulimit -n $limit && exec '$kelodbg' set-addr game.kdbg 7 .text=0x10" 2>err.txt ||
      same_file game.kdbg before.kdbg "-n $limit: a failed change"
    # (Only the tool's own messages count: a sanitizer's runtime may say
    # the same of itself.)
    if grep -q '^kelodbg: .*Too many open files' err.txt; then
      out_of_descriptors=1
      grep -q '^kelodbg: game\.kdbg: ' err.txt || fail "-n $limit: the message does not name the file: $(cat err.txt)"
    fi
  done
  ((out_of_descriptors)) || fail "no limit ran out of descriptors"
}

run_group "$3"
