#!/usr/bin/env bash
# A store far larger than memory should allow, and each command on it as a
# whole process under an address-space limit: seconds and peak RSS.
#
# Usage: bench/large_store.sh [--entries N] [--limit-kb KB] BUILD_DIR [WORK_DIR]
#   The store holds N (default 1000) copies of a 10 MB object (ELF, -g),
#   then one small module with .text recorded; ~10.5 GB for N = 1000. It is
#   made once in WORK_DIR (default /var/tmp/kelo-large) and kept.
set -euo pipefail
entries=1000 limit_kb=$((4 << 20))
while [[ ${1:-} == --* ]]; do
  case $1 in
    --entries) entries=$2; shift 2 ;;
    --limit-kb) limit_kb=$2; shift 2 ;;
    *) echo "unknown option $1" >&2; exit 2 ;;
  esac
done
build=$(realpath "$1")
work=${2:-/var/tmp/kelo-large}
kelodbg=$build/tools/kelodbg/kelodbg
mkdir -p "$work" && cd "$work"

le() {
  local value=$1 n=$2 i escaped=
  for ((i = 0; i < n; i++)); do escaped+=$(printf '\\x%02x' $(((value >> (8 * i)) & 255))); done
  printf "$escaped"
}

store=store-$entries.kdbg
if [[ ! -f $store ]]; then
  echo "making $store ..." >&2
  {
    echo 'static char table[10 << 20] = {1};'
    echo 'char *big(int i) { return table + i; }'
  } >big.c
  printf 'int small(int x) { return x * 3 + 1; }\n' >small.c
  cc -g -O2 -c big.c -o big.o && cc -g -O2 -c small.c -o small.o
  "$kelodbg" create one.kdbg 0x7fffffff=small.o
  "$kelodbg" set-addr one.kdbg 0x7fffffff .text=0x80001000
  {
    printf '\x80KELODBG\x01\x01\x02\x00'
    le $((entries + 1)) 8
    size=$(stat -c %s big.o)
    for ((i = 1; i <= entries; i++)); do
      le 1 1; le $((i & 0xFFFF)) 2; le $((i >> 16)) 2; le "$size" 8
      cat big.o
      le 0 8
    done
    tail -c +21 one.kdbg  # the small module's entry, with its address
  } >"$store.tmp"
  mv "$store.tmp" "$store"
  "$kelodbg" check -q "$store"
fi
ls -l "$store" >&2

run() {
  local label=$1
  shift
  (ulimit -v "$limit_kb" && exec /usr/bin/time -o "$work/time.txt" -f '%e %M %x' "$@" >/dev/null 2>"$work/err.txt") || true
  local seconds kb code
  read -r seconds kb code <<<"$(tail -1 "$work/time.txt" | sed 's/^Command exited with non-zero status [0-9]*//')"
  code=$(grep -o '[0-9]*$' "$work/time.txt" | tail -1)
  printf '| %-36s | %7s s | %8s MB | %s |\n' "$label" "$seconds" "$((kb / 1024))" "$code"
}

echo "| command (ulimit -v $((limit_kb >> 10)) MB) | time | peak RSS | exit |"
echo "|---|---|---|---|"
run "list" "$kelodbg" list "$store"
run "map" "$kelodbg" map "$store"
run "show 1" "$kelodbg" show "$store" 1
run "extract 500" "$kelodbg" extract "$store" $((entries / 2)) -o /dev/null
run "addr2line (first answer)" "$kelodbg" addr2line -f "$store" 0x80001000
run "check" "$kelodbg" check -q "$store"
run "version" "$kelodbg" version "$store"
# Changes copy the store: each is timed with no writes pending, beside cp.
cp "$store" copy.kdbg && sync
run "set-addr 2 .text=0x1000" "$kelodbg" set-addr copy.kdbg 2 .text=0x1000
rm -f copy.kdbg copy2.kdbg
sync
start=$(date +%s.%N)
cp "$store" copy2.kdbg && sync copy2.kdbg
printf '| %-36s | %7.2f s | %8s    | 0 |\n' "cp FILE COPY && sync COPY" "$(echo "$(date +%s.%N) - $start" | bc)" "-"
rm -f copy2.kdbg
