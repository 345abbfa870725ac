#!/usr/bin/env bash
# Symbolization benchmark: `kelodbg addr2line` on stored objects against
# binutils addr2line and elfutils eu-addr2line on the linked program.
#
# Usage: bench/symbolize_bench.sh [--quick] [BUILD_DIR]
#   BUILD_DIR (default build/): a build with the tool and the tests
#   (kelodbg, tests/symbolize/symbolize_store), e.g. scripts/test.sh's.
#   Needs gcc and binutils; eu-addr2line (Debian: elfutils) is optional.
#
# Workloads, each one process per tool reading addresses from a file:
#   large  one compilation unit of 3,000 generated functions (600 with
#          --quick) with inlined helpers and cold paths; 100,000 addresses
#          (20,000) drawn from its instructions
#   small  the test program of tests/symbolize (four small units), as many
#          addresses drawn the same way
#   first  the first answer from a list of 1,000 stored objects, against a
#          list of one: the whole run of `kelodbg addr2line FILE ADDRESS`,
#          and `kelodbg check` on the same file (reading it alone)
# Times are the best of 3 runs (1 with --quick). eu-addr2line spends most
# of its time per address, so it answers 2,000 addresses (200) and its time
# is scaled to the full count (marked "scaled"). Both tools' outputs must
# be identical; the ratios are informational, the exit status is 0 unless
# a step fails or the outputs differ.
set -euo pipefail
export LC_ALL=C

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
quick=0
if [[ ${1:-} == --quick ]]; then
  quick=1
  shift
fi
build=$(cd "${1:-$root/build}" && pwd)
kelodbg=$build/tools/kelodbg/kelodbg
store=$build/tests/symbolize/symbolize_store
for tool in "$kelodbg" "$store"; do
  [[ -x $tool ]] || { echo "missing $tool: build with tools and tests first" >&2; exit 1; }
done
if ((quick)); then functions=600 count=20000 eu_count=200 runs=1; else functions=3000 count=100000 eu_count=2000 runs=3; fi
eu=$(command -v eu-addr2line || true)

work=$(mktemp -d "${TMPDIR:-/tmp}/symbolize-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"

now() { date +%s%N; }
# best_of INPUT CMD...: the best wall time in seconds of $runs runs of CMD
# reading INPUT; output to out.txt.
best_of() {
  local input=$1 best= start t i
  shift
  for ((i = 0; i < runs; i++)); do
    start=$(now)
    "$@" <"$input" >out.txt
    t=$(($(now) - start))
    [[ -z $best || $t -lt $best ]] && best=$t
  done
  awk -v ns="$best" 'BEGIN { printf "%.3f", ns / 1e9 }'
}

# addresses PROGRAM KDBG N: N addresses drawn (with repeats) from the
# program's instructions that lie in stored sections (not in the C start
# files, which are not stored).
addresses() {
  "$kelodbg" map "$2" | awk 'NR > 1 { print $1, $2 }' >ranges.txt
  objdump -d --no-show-raw-insn "$1" | awk '/^ +[0-9a-f]+:/ { sub(":", "", $1); print "0x" $1 }' |
    awk -v n="$3" '
      function hex(s,   i, v) { v = 0; s = tolower(s); sub(/^0x/, "", s)
        for (i = 1; i <= length(s); i++) v = v * 16 + index("0123456789abcdef", substr(s, i, 1)) - 1; return v }
      BEGIN { srand(14) }
      NR == FNR { lo[NR] = hex($1); hi[NR] = hex($2); ranges = NR; next }
      { v = hex($1); for (r = 1; r <= ranges; r++) if (v >= lo[r] && v < hi[r]) { a[++count] = $1; break } }
      END { for (i = 0; i < n; i++) print a[1 + int(rand() * count)] }' ranges.txt -
}

# compare NAME PROGRAM KDBG ADDRESSES
compare() {
  local name=$1 prog=$2 kdbg=$3 addrs=$4 ours theirs eu_time=- n
  n=$(wc -l <"$addrs")
  theirs=$(best_of "$addrs" addr2line -a -f -i -e "$prog")
  mv out.txt expected.txt
  ours=$(best_of "$addrs" "$kelodbg" addr2line -a -f -i "$kdbg")
  cmp -s expected.txt out.txt || { echo "$name: outputs differ" >&2; exit 1; }
  if [[ -n $eu ]]; then
    head -n "$eu_count" "$addrs" >eu-addrs.txt
    eu_time=$(runs=1 best_of eu-addrs.txt "$eu" -a -f -i -e "$prog")
    eu_time=$(awk -v t="$eu_time" -v k="$((n / eu_count))" 'BEGIN { printf "%.1f", t * k }')
  fi
  awk -v name="$name" -v n="$n" -v o="$ours" -v b="$theirs" -v e="$eu_time" 'BEGIN {
    printf "%-6s %7d addresses  kelodbg %7.3f s  addr2line %7.3f s (x%.1f)", name, n, o, b, b / o
    if (e == "-") print "  eu-addr2line not installed"
    else printf "  eu-addr2line %8.1f s scaled (x%.0f)\n", e, e / o
  }'
}

echo "symbolize benchmark$( ((quick)) && echo ' (quick: smaller workloads, one run; figures are a smoke test)')"

# ---- large: one big compilation unit ----
awk -v n="$functions" '
  BEGIN {
    print "#include <stdio.h>\n#include <stdlib.h>\nvolatile int sink;\nstatic int table[256];"
    print "__attribute__((cold, noinline)) static void fail(int code) { fprintf(stderr, \"failure %d\\n\", code); abort(); }"
    for (h = 0; h < 64; h++)
      printf "static inline int mix%d(int x) {\n  int y = x * %d + %d;\n  if (y & %d) y ^= table[(y >> 3) & 255];\n  return y;\n}\n",
             h, 2 * h + 3, h * 7, 1 + h % 5
    for (h = 0; h < 64; h++)
      printf "static inline int blend%d(int x, int y) {\n  int z = mix%d(x) + mix%d(y);\n  return z > %d ? z - y : z + x;\n}\n",
             h, h, (h + 1) % 64, h * 11
    for (i = 0; i < n; i++) {
      printf "__attribute__((noinline)) int fn%d(int a, int b) {\n  int acc = a;\n  for (int k = 0; k < b; ++k) {\n", i
      printf "    acc += blend%d(acc, k);\n    if (__builtin_expect(acc == %d, 0)) fail(%d);\n  }\n", i % 64, 7919 * i + 1, i
      printf "  if (a > %d) puts(\"fn%d: large\");\n  return acc ^ mix%d(b);\n}\n", i * 3, i, (i * 7) % 64
    }
    printf "typedef int (*fnp)(int, int);\nstatic fnp const all[%d] = {", n
    for (i = 0; i < n; i++) printf "%sfn%d", (i ? ", " : ""), i
    printf "};\nint main(int argc, char** argv) {\n  int s = 0;\n  for (int i = 0; i < %d; ++i) s += all[i](argc, i & 7);\n", n
    print "  sink = s;\n  return argc > 5 ? atoi(argv[1]) : 0;\n}"
  }' >large.c
gcc -g -O2 -c large.c -o large.o
gcc -no-pie -o large large.o -Wl,-Map,large.map
"$store" large.map large.kdbg large.o >/dev/null
addresses large large.kdbg "$count" >large-addrs.txt
compare large large large.kdbg large-addrs.txt

# ---- small: the test program's four units ----
data=$root/tests/symbolize/data
for f in main calc text; do gcc -std=gnu11 -g -O2 -c "$data/$f.c" -o "$f.o"; done
g++ -g -O2 -fno-exceptions -fno-rtti -c "$data/shapes.cpp" -o shapes.o
gcc -no-pie -nostartfiles -Wl,-e,main -Wl,-Map,small.map -o small main.o calc.o text.o shapes.o
"$store" small.map small.kdbg main.o calc.o text.o shapes.o >/dev/null
addresses small small.kdbg "$count" >small-addrs.txt
compare small small small.kdbg small-addrs.txt

# ---- first: one address from a list of 1,000 objects ----
# calc.o filed 1,000 times, each copy's sections 64 KiB apart, through a
# linker map written for the copies.
readelf -SW calc.o | sed -n 's/^ *\[ *[0-9]*\] *//p' | awk '$7 ~ /A/ && $5 !~ /^0+$/ { print $1, $5 }' >sections.txt
for i in $(seq 0 999); do ln -s calc.o "copy$i.o"; done
awk 'BEGIN { print "Linker script and memory map" }
     { name[NR] = $1 }
     END { for (i = 0; i < 1000; i++) for (k = 1; k <= NR; k++)
             printf " %s 0x%x 0x10 copy%d.o\n", name[k], 268435456 + i * 65536 + (k - 1) * 4096, i }' \
  sections.txt >copies.map
"$store" copies.map first1000.kdbg copy{0..999}.o >/dev/null
"$store" copies.map first1.kdbg copy500.o >/dev/null
crunch=$(nm calc.o | awk '$3 == "crunch" { print $1 }')
text_index=$(awk '$1 == ".text" { print NR - 1 }' sections.txt)
address=$(printf '0x%x' $((0x10000000 + 500 * 65536 + text_index * 4096 + 0x$crunch + 4)))
# The one-entry list files copy500.o as number 1; the answer must match.
t1000=$(best_of /dev/null "$kelodbg" addr2line -f first1000.kdbg "$address")
mv out.txt first1000.txt
t1=$(best_of /dev/null "$kelodbg" addr2line -f first1.kdbg "$address")
cmp -s first1000.txt out.txt && grep -qx crunch out.txt || { echo "first: answers differ" >&2; exit 1; }
# Reading the file alone (every image loaded by the debug-info library).
tread=$(best_of /dev/null "$kelodbg" check -q first1000.kdbg)
awk -v a="$t1000" -v b="$t1" -v r="$tread" -v s="$(stat -c %s first1000.kdbg)" 'BEGIN {
  printf "first  1 address    1,000 entries (%.1f MB file) %.1f ms, of which reading the file %.1f ms; 1 entry %.1f ms (whole kelodbg runs)\n",
         s / 1048576, a * 1000, r * 1000, b * 1000 }'
