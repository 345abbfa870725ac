#!/usr/bin/env bash
# Compares `kelodbg addr2line` on stored objects with binutils addr2line on
# the program linked from them.
#
# Usage: compare_addr2line.sh KELODBG SYMBOLIZE_STORE C_EXAMPLE DATA_DIR
#
# Builds the test program in DATA_DIR with -g -O2 and links it non-PIE
# with a linker map, files its objects with the section addresses from the
# map, and asks both tools about every address of every stored section and
# random addresses outside every section of the program. Every line must be identical, for
# several sets of options. Addresses that the linked program has but no
# stored object does (linker fill between input sections, sections the
# linker makes) are left out: binutils names the nearest symbol there, the
# store knows nothing about them.
#
# The program is linked without the C start files, so that it is made of
# the stored objects alone; it is never run.
set -euo pipefail
export LC_ALL=C

kelodbg=$1 store=$2 c_example=$3 data=$4
cc=${CC:-cc} cxx=${CXX:-c++}
work=$(mktemp -d "${TMPDIR:-/tmp}/symbolize-compare.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"

# text.c gets a section per function and per variable, as kernels and
# firmware often build.
for f in main calc; do
  "$cc" -std=gnu11 -g -O2 -c "$data/$f.c" -o "$f.o"
done
"$cc" -std=gnu11 -g -O2 -ffunction-sections -fdata-sections -c "$data/text.c" -o text.o
"$cxx" -g -O2 -fno-exceptions -fno-rtti -c "$data/shapes.cpp" -o shapes.o
objects=(main.o calc.o text.o shapes.o)
"$cc" -no-pie -nostartfiles -Wl,-e,main -Wl,-Map,prog.map -o prog "${objects[@]}"
"$store" prog.map prog.kdbg "${objects[@]}" >/dev/null
"$kelodbg" map prog.kdbg >map.txt

# Stored ranges from the map ("start end"), the program's allocated
# sections from its header table ("start size").
awk 'NR > 1 { print $1, $2 }' map.txt >stored.txt
readelf -SW prog | sed -n 's/^ *\[ *[0-9]*\] *//p' | awk '$7 ~ /A/ { print "0x" $3, "0x" $5 }' >linked.txt

# Candidates: every byte of every stored range, the symbols of the stored
# objects, and random addresses around the program.
nm --defined-only "${objects[@]}" | awk 'NF == 3 && $2 ~ /[tTdDbBrRwW]/ { print $3 }' | sort -u >names.txt
nm prog | awk 'NR == FNR { want[$1] = 1; next } ($3 in want) { print "0x" $1 }' names.txt - >symbols.txt
cp symbols.txt candidates.txt

hex='function hex(s,   i, n) { n = 0; s = tolower(s); sub(/^0x/, "", s)
  for (i = 1; i <= length(s); i++) n = n * 16 + index("0123456789abcdef", substr(s, i, 1)) - 1; return n }'
awk -v seed=14 "$hex"'
  BEGIN { srand(seed) }
  FILENAME == ARGV[1] {
    for (a = hex($1); a < hex($2); a++) printf "0x%x\n", a
    next
  }
  { s = hex($1); e = s + hex($2); if (lo == "" || s < lo) lo = s; if (e > hi) hi = e }
  END {
    for (k = 0; k < 600; k++) printf "0x%x\n", lo - 0x2000 + int(rand() * (hi - lo + 0x4000))
    print "0x0"; print "0x10"; print "0x7fffffff"; print "0xdeadbeef"
  }' stored.txt linked.txt >>candidates.txt

# Keep what a stored range holds, or what no section of the program holds.
awk "$hex"'
  FILENAME == ARGV[1] { ss[++ns] = hex($1); se[ns] = hex($2); next }
  FILENAME == ARGV[2] { ls[++nl] = hex($1); le[nl] = ls[nl] + hex($2); next }
  {
    a = hex($1)
    for (i = 1; i <= ns; i++) if (a >= ss[i] && a < se[i]) { print; next }
    for (i = 1; i <= nl; i++) if (a >= ls[i] && a < le[i]) next
    print
  }' stored.txt linked.txt candidates.txt | sort -u >addresses.txt
echo 0xffffffffffffffff >>addresses.txt

# Every symbol of the stored objects must lie in a stored range.
missing=$(grep -cvxFf addresses.txt symbols.txt || true)
if [[ $missing -ne 0 ]]; then
  echo "FAIL: $missing symbols of the stored objects lie in no stored range"
  exit 1
fi

# Where binutils names a symbol that no stored object has (the linker's
# __bss_start before .bss data), the store can only say "??". Those
# addresses are compared apart, with binutils' foreign name read as "??"
# and its "??:?" (symbol without line) as "??:0".
nm prog | awk 'NF == 3 { print $3 }' | sort -u | comm -23 - names.txt >foreign.txt
addr2line -a -f -e prog <addresses.txt | paste - - - |
  awk -F'\t' 'NR == FNR { foreign[$1] = 1; next } { print $1 > (($2 in foreign) ? "apart.txt" : "kept.txt") }' \
    foreign.txt - 
touch apart.txt kept.txt
# In an order of its own, every tenth address asked twice: answers read
# from a file are found in address order and written in the input's.
awk '{ print $1 } NR % 10 == 0 { print $1 }' kept.txt | shuf --random-source=<(yes) >addresses.txt

status=0

# Names: the outermost frame is named by the stored object's symbol that
# covers the address, where binutils may give the DWARF's name (a split
# part's "main" for "main.cold") or an earlier answer's, and a data object
# holds addresses that binutils gives to the nearest code symbol: where our
# answer is not binutils', its names must be LLVM's, and its lines
# binutils' or LLVM's. Those addresses are checked here and left out of the
# byte-for-byte comparisons below.
# answers FILE: "address TAB names TAB lines" per answer of -a -f -i.
answers() {
  awk '/^0x[0-9a-f]+$/ { if (a != "") print a "\t" n "\t" l; a = $0; n = l = ""; k = 0; next }
       { if (k++ % 2 == 0) n = n "|" $0; else { sub(/ \(discriminator [0-9]+\)$/, ""); sub(/:\?$/, ":0"); l = l "|" $0 } }
       END { if (a != "") print a "\t" n "\t" l }' "$1"
}
: >sided.txt
sed -i 's/^0x0*/0x/' addresses.txt symbols.txt
for flags in "-f -i" "-f -i -C"; do
  # shellcheck disable=SC2086
  addr2line -a $flags -e prog <addresses.txt >gnu.out
  # LLVM's names, demangled (with -C) by binutils' demangler.
  if [[ $flags == *-C* ]]; then
    llvm-addr2line -a -f -i -e prog <addresses.txt | sed 's/^0x0*/0x/' | c++filt --no-verbose >llvm.out
  else
    llvm-addr2line -a -f -i -e prog <addresses.txt | sed 's/^0x0*/0x/' >llvm.out
  fi
  # shellcheck disable=SC2086
  "$kelodbg" addr2line -a $flags prog.kdbg <addresses.txt >ours.out
  sed -i 's/^0x0*/0x/' gnu.out ours.out
  paste <(answers gnu.out) <(answers llvm.out) <(answers ours.out) |
    awk -F'\t' -v flags="$flags" '
      $1 != $4 || $1 != $7 { print "FAIL: answers out of step at " $1; bad = 1; exit }
      $2 == $8 && $3 == $9 { next }
      $8 != $5 || ($9 != $3 && $9 != $6) {
        print "FAIL: addr2line " flags " at " $1 ": " $8 " " $9 "; binutils " $2 " " $3 "; LLVM " $5 " " $6; bad = 1; next
      }
      { print $1 >> "sided.txt"; sided++ }
      END { printf "addr2line -a %s: %d addresses named as LLVM names them, lines as binutils\n", flags, sided; exit bad }' ||
    status=1
done
sort -u sided.txt -o sided.txt
grep -vxFf sided.txt addresses.txt >same.txt || true
mv same.txt addresses.txt

compare() {
  addr2line "$@" -e prog <addresses.txt >expected.txt
  "$kelodbg" addr2line "$@" prog.kdbg <addresses.txt >actual.txt
  if ! diff expected.txt actual.txt >diff.txt; then
    echo "FAIL: addr2line $* differs (< binutils, > kelodbg):"
    head -40 diff.txt
    status=1
  fi
  echo "addr2line $*: $(wc -l <addresses.txt) addresses, $(wc -l <expected.txt) lines compared"
}
compare -a -f -i
compare -f -p -i -C -s
compare
compare -a -p -f -C

if [[ -s apart.txt ]]; then
  addr2line -a -f -i -e prog <apart.txt |
    awk 'NR == FNR { foreign[$1] = 1; next }
         named { named = 0; if ($0 == "??:?") $0 = "??:0" }
         ($0 in foreign) { $0 = "??"; named = 1 }
         { print }' foreign.txt - >expected.txt
  "$kelodbg" addr2line -a -f -i prog.kdbg <apart.txt >actual.txt
  # Inside a data object of a stored object, the object's symbol names the
  # address, as LLVM names it.
  llvm-addr2line -a -f -i -e prog <apart.txt >llvm.out
  sed -i 's/^0x0*/0x/' expected.txt actual.txt llvm.out
  paste <(answers expected.txt) <(answers llvm.out) <(answers actual.txt) |
    awk -F'\t' '$7 != $1 || !($8 == $2 && $9 == $3 || $8 == $5 && $9 == $6) { print "  at " $7 ": " $8 " " $9; bad = 1 }
                 END { exit bad }' || { echo "FAIL: addresses named by foreign symbols"; status=1; }
  echo "addr2line -a -f -i: $(wc -l <apart.txt) addresses named by symbols of no stored object, compared apart"
fi

# Addresses as arguments, with combined flags.
mapfile -t some < <(grep -xFf symbols.txt addresses.txt | head -24)
diff <(addr2line -afiC -e prog "${some[@]}") <("$kelodbg" addr2line -afiC prog.kdbg "${some[@]}") ||
  { echo "FAIL: addresses as arguments"; status=1; }

# The C example resolves as addr2line -f does.
diff <(addr2line -f -e prog "${some[@]}" | paste -d' ' - -) <("$c_example" prog.kdbg "${some[@]}") ||
  { echo "FAIL: C example"; status=1; }

# Through a pipe, each answer comes before the next address is written.
coproc server { "$kelodbg" addr2line -f prog.kdbg; }
# bash unsets server_PID once the coprocess has exited, which may be before
# the wait below; keep the number.
server_pid=$server_PID
echo "${some[0]}" >&"${server[1]}"
answer=
read -r -t 10 function <&"${server[0]}" && read -r -t 10 place <&"${server[0]}" && answer="$function $place"
exec {server[1]}>&-
wait "$server_pid" || true
[[ $answer == "$(addr2line -f -e prog "${some[0]}" | paste -d' ' - -)" ]] ||
  { echo "FAIL: no answer through a pipe before the input ends ('$answer')"; status=1; }

[[ $status -eq 0 ]] && echo "all lines identical"
exit "$status"
