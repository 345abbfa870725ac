#!/usr/bin/env bash
# Hostile stores: debug-info files made to cost the symbolization library
# memory or time out of all proportion to their size, or to make it read
# past an image. For each, `kelodbg addr2line -f -i`, the same with -C, and
# `kelodbg map` are run once, and one row per command gives the wall time,
# the peak resident memory, the exit code and how many bytes it printed.
#
# Usage: bench/hostile_stores.sh [--small] [--keep DIR] [BUILD_DIR]
#   BUILD_DIR (default build/): a build with the tool (tools/kelodbg/kelodbg).
#   --small   the scaled-down stores of the fuzz corpus (fuzz/corpus/symbolize)
#   --keep    copies the stores into DIR as hostile_<case>.kdbg
#   HOSTILE_TIMEOUT (default 300): seconds before a command is stopped (exit
#   124 in the table).
# Needs g++, gcc, zlib (Debian: zlib1g-dev) and GNU time (Debian: time).
#
# The cases (full size; --small in brackets):
#   str_tail       .debug_str is the last thing in the image and its last
#                  string, a function's name, has no terminating NUL (DWARF 4)
#   line_str_tail  the same for .debug_line_str and the unit's file name
#                  (DWARF 5)
#   same_addr      16,000 [1,000] allocated sections, all recorded at one
#                  address: every pair overlaps
#   many_sections  70,000 [1,000] allocated sections, each recorded at its
#                  own address (extended section numbering)
#   zlib_bomb      a compressed .debug_str (SHF_COMPRESSED, zlib) that
#                  inflates to 1 GiB [8 MiB] of mostly zeros
#   deep_mangled   one function whose mangled name nests 24 templates, each
#                  level naming the one before twice by substitution: the
#                  demangled name doubles with every level (~1.2 KB object)
#   shared_abbrev  20,000 [1,000] units whose abbreviation tables start one
#                  entry apart in one table of as many entries, and code
#                  that no unit covers (so that every unit is read)
# The figures are informational: the exit status is 0 unless making a store
# fails.
set -euo pipefail
export LC_ALL=C

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
small=0
keep=
while (($#)); do
  case $1 in
    --small) small=1; shift ;;
    --keep) keep=$(mkdir -p "$2" && cd "$2" && pwd); shift 2 ;;
    *) break ;;
  esac
done
build=$(cd "${1:-$root/build}" && pwd)
kelodbg=$build/tools/kelodbg/kelodbg
[[ -x $kelodbg ]] || { echo "missing $kelodbg: build the tool first" >&2; exit 1; }
[[ -x /usr/bin/time ]] || { echo "missing /usr/bin/time (Debian: time)" >&2; exit 1; }
limit=${HOSTILE_TIMEOUT:-300}
if ((small)); then
  same=1000 many=1000 bomb=$((8 << 20)) units=1000
else
  same=16000 many=70000 bomb=$((1 << 30)) units=20000
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/hostile-stores.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"

g++ -std=c++17 -O2 -o gen "$root/bench/hostile_gen.cpp" -lz
# Paths in the debug information do not depend on where this runs.
cflags=(-g -O2 -c "-fdebug-prefix-map=$work=/src")
text=0x80001000

cat >tail_str.c <<'EOF'
/* One function whose name the debug information keeps in .debug_str. */
int hostile_function_named_last(int x) { return x * 3 + 1; }
EOF
gcc "${cflags[@]}" -gdwarf-4 tail_str.c -o tail_str.o
./gen strtail tail_str.o str_tail.o .debug_str hostile_function_named_last
./gen store str_tail.kdbg 0x10 str_tail.o $text 0x1000

cat >tail_line.c <<'EOF'
/* A unit whose file name DWARF 5 keeps in .debug_line_str. */
int hostile_line_str(int x) { return x * 5 + 2; }
EOF
gcc "${cflags[@]}" -gdwarf-5 tail_line.c -o tail_line.o
./gen strtail tail_line.o line_str_tail.o .debug_line_str tail_line.c
./gen store line_str_tail.kdbg 0x10 line_str_tail.o $text 0x1000

./gen sections same.o "$same"
./gen store same_addr.kdbg 0x10 same.o $text 0
./gen sections many.o "$many"
./gen store many_sections.kdbg 0x10 many.o $text 4

./gen zbomb tail_str.o bomb.o .debug_str "$bomb"
./gen store zlib_bomb.kdbg 0x10 bomb.o $text 0x1000

{
  echo 'template <class A, class B> struct x {};'
  echo 'using L0 = x<int, int>;'
  for ((i = 1; i < 24; i++)); do echo "using L$i = x<L$((i - 1)), L$((i - 1))>;"; done
  echo 'void f(L23) {}'
} >deep.cpp
g++ -O2 -c deep.cpp -o deep_full.o
objcopy --strip-unneeded deep_full.o deep.o
./gen store deep_mangled.kdbg 0x10 deep.o $text 0x1000

# Unit k's table starts at entry k, whose code k is the unit's own: read
# to the table's end for each unit, the tables would cost the square of
# their size.
awk -v n="$units" 'BEGIN {
  print "\t.text\n\t.globl f\nf:\n\tret"
  print "\t.section .debug_abbrev,\"\",@progbits"
  for (i = 1; i <= n; i++) printf "a%d:\n\t.uleb128 %d, 0x11\n\t.byte 0\n\t.uleb128 0x3, 0x8\n\t.byte 0, 0\n", i, i
  print "\t.byte 0"
  print "\t.section .debug_info,\"\",@progbits"
  for (i = 1; i <= n; i++) {
    printf "\t.long u%d - . - 4\n\t.value 4\n\t.long a%d\n\t.byte 8\n\t.uleb128 %d\n\t.asciz \"u\"\nu%d:\n", i, i, i, i
  }
}' >shared.s
gcc -c shared.s -o shared.o
./gen store shared_abbrev.kdbg 0x10 shared.o $text 0x1000

# The addresses asked of each store: code at the start, in the middle and at
# the end of what is recorded, and one address outside every range.
declare -A addrs=(
  [str_tail]="0x80001000 0x80001002 0x7fff0000"
  [line_str_tail]="0x80001000 0x80001002 0x7fff0000"
  [same_addr]="0x80001000 0x80001002 0x7fff0000"
  [many_sections]="0x80001000 $(printf '0x%x 0x%x' $((text + 2 * many)) $((text + 4 * many - 1))) 0x7fff0000"
  [zlib_bomb]="0x80001000 0x80001002 0x7fff0000"
  [deep_mangled]="0x80001000 0x7fff0000"
  [shared_abbrev]="0x80001000 0x7fff0000"
)
cases=(str_tail line_str_tail same_addr many_sections zlib_bomb deep_mangled shared_abbrev)

# run CASE LABEL ARGS...: one table row for `kelodbg ARGS...`. The exit
# code is the tool's (GNU time passes it on), or sigN when a signal ended it.
run() {
  local name=$1 label=$2 rc=0 stats sig
  shift 2
  /usr/bin/time -o stats.txt -f '%e %M' timeout -k 10 "$limit" "$kelodbg" "$@" 2>/dev/null | wc -c >bytes.txt || rc=$?
  sig=$(awk '/^Command terminated by signal/ { print $NF }' stats.txt)
  [[ -n $sig ]] && rc=sig$sig
  stats=$(tail -n 1 stats.txt)
  printf '%-14s %-18s %9.2f %9d %5s %14d\n' "$name" "$label" "${stats% *}" $((${stats#* } / 1024)) "$rc" "$(cat bytes.txt)"
}

printf '%-14s %-18s %9s %9s %5s %14s\n' CASE COMMAND SECONDS 'PEAK MB' EXIT 'OUTPUT BYTES'
for name in "${cases[@]}"; do
  store=$name.kdbg
  # shellcheck disable=SC2086 # the addresses are words
  run "$name" "addr2line -f -i" addr2line -f -i "$store" ${addrs[$name]}
  # shellcheck disable=SC2086
  run "$name" "addr2line -f -i -C" addr2line -f -i -C "$store" ${addrs[$name]}
  run "$name" "map" map "$store"
  if [[ -n $keep ]]; then
    cp "$store" "$keep/hostile_$store"
  fi
done
echo
printf 'store sizes (bytes):'
for name in "${cases[@]}"; do printf ' %s=%d' "$name" "$(stat -c %s "$name.kdbg")"; done
echo
