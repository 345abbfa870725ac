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
  (ulimit -v $limit && "$kelodbg" list big.kdbg 2>err.txt; echo $? >rc.txt)
  [[ $(cat rc.txt) == 12 ]] || fail "out of memory reading: exit $(cat rc.txt): $(cat err.txt)"
  grep -q 'big\.kdbg: out of memory' err.txt || fail "out of memory reading: $(cat err.txt)"
  (ulimit -v $limit && "$kelodbg" create other.kdbg 1=big.o 2>err.txt; echo $? >rc.txt)
  [[ $(cat rc.txt) == 12 ]] || fail "out of memory loading an ELF file: exit $(cat rc.txt): $(cat err.txt)"
  # A small file that claims a 1.75 GiB image is damaged, however little memory there is.
  { header '\x01\x01\x02\x00'; le 1 8; le 1 1; le 5 2; le 0 2; le $((0x70000000)) 8; printf 'JUNK'; } >claims.kdbg
  expect 6 'ends inside the image \(1879048192 bytes\)' -- bash -c "ulimit -v $limit && exec '$kelodbg' list claims.kdbg"
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
  expect 12 'more than this program can hold' -- "$kelodbg" list large.kdbg
}

run_group "$3"
