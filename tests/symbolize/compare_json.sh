#!/usr/bin/env bash
# Compares `kelodbg addr2line --output-style=JSON -C` on the stored objects
# of the crash example (examples/crash, C++) with LLVM's symbolizer
# (--output-style=JSON) on the program linked from them, at every
# instruction address of every stored code section. The objects are placed
# with `kelodbg place --map` from the link's map.
#
# Every frame must carry the same values under the same keys, except four
# classes, counted and printed, where LLVM 14 is the odd one out or the
# choice is arbitrary:
#   - a name LLVM leaves mangled that demangles (its demangler gives up on
#     some template return types that binutils' and ours read);
#   - no function name (nor start) where the symbol table names a split or
#     cloned part (f.cold, f.constprop.0) that both binutils and we name;
#   - aliases: the C1 or the C2 constructor (D0, D1, D2 destructors) of one
#     body, which each tool picks by the order of the symbol table;
#   - an empty StartFileName where the function's declaration is reached
#     through DW_AT_specification (LLVM gives its StartLine all the same).
#
# Usage: compare_json.sh KELODBG LLVM_SYMBOLIZER SOURCE_DIR [PROGRAM_DIR]
#   PROGRAM_DIR: another program instead, linked as DIR/prog with its map
#   DIR/prog.map from the objects listed in DIR/objects.txt (as
#   bench/googletest_program.sh leaves them); SAMPLE addresses of it
#   (default 3000) are compared.
set -euo pipefail
export LC_ALL=C
kelodbg=$1 llvm=$2 source=$3 program=${4:-}
cxx=${CXX:-c++}
work=$(mktemp -d "${TMPDIR:-/tmp}/compare-json.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"

if [[ -n $program ]]; then
  program=$(cd "$program" && pwd)
  args=() n=0
  while read -r object; do
    n=$((n + 1))
    args+=("$n=$program/$object")
  done <"$program/objects.txt"
  "$kelodbg" create crash.kdbg "${args[@]}"
  (cd "$program" && "$kelodbg" place "$work/crash.kdbg" --map prog.map >/dev/null)
  ln -s "$program/prog" crash
else
  cp "$source"/examples/crash/*.h "$source"/examples/crash/*.cpp .
  # A part with two clone suffixes, named as GCC names such parts.
  cat >clones.cpp <<'CPP'
int part(int x) __asm__("_Z4parti.constprop.0.cold");
int part(int x) { return x * 3 + 1; }
CPP
  "$cxx" -std=c++17 -g -O2 -c stats.cpp report.cpp main.cpp clones.cpp
  "$cxx" -o crash stats.o report.o main.o clones.o -Wl,-Map=crash.map
  "$kelodbg" create crash.kdbg 1=main.o 2=stats.o 3=report.o 4=clones.o
  "$kelodbg" place crash.kdbg --map crash.map >/dev/null
fi

# Instruction addresses inside the stored code sections.
"$kelodbg" map crash.kdbg 2>/dev/null | awk 'NR > 1 && $4 ~ /^\.text/ { print $1, $2 }' >ranges.txt
objdump -d --no-show-raw-insn crash | awk -F: '/^ +[0-9a-f]+:/ { gsub(/ /, "", $1); print $1 }' >insns.txt
hex='function hex(s,   i, n) { n = 0; s = tolower(s); sub(/^0x/, "", s)
  for (i = 1; i <= length(s); i++) n = n * 16 + index("0123456789abcdef", substr(s, i, 1)) - 1; return n }'
awk "$hex"'
  FILENAME == ARGV[1] { lo[++n] = hex($1); hi[n] = hex($2); next }
  { a = hex($1); for (i = 1; i <= n; i++) if (a >= lo[i] && a < hi[i]) { print "0x" $1; break } }
' ranges.txt insns.txt >all.txt
if [[ -n $program ]]; then
  awk -v n="${SAMPLE:-3000}" -v total="$(wc -l <all.txt)" 'BEGIN { srand(22) } rand() * total < n' all.txt >addresses.txt
else
  cp all.txt addresses.txt
fi
count=$(wc -l <addresses.txt)
((count > 200)) || { echo "only $count addresses to compare"; exit 1; }

# The crash example is compared demangled (the same demangler's output for
# its names); another program with mangled names, as the two demanglers
# write many C++ names differently ('lambda'() and {lambda()#1}).
if [[ -n $program ]]; then
  "$llvm" --output-style=JSON --no-demangle -e crash <addresses.txt >llvm.json
  "$kelodbg" addr2line --output-style=JSON crash.kdbg <addresses.txt >ours.json 2>/dev/null
else
  "$llvm" --output-style=JSON -e crash <addresses.txt >llvm.json
  "$kelodbg" addr2line --output-style=JSON -C crash.kdbg <addresses.txt >ours.json 2>/dev/null
fi

# One frame a line: "ADDRESS<TAB>FRAME" with the frame's members as printed.
frames() {
  sed -e 's/,"Entry":.*}$/}/' -e 's/^{"Address":"\([^"]*\)","ModuleName":"[^"]*","Symbol":\[{\(.*\)}\]}$/\1\t\2/' \
    -e 's/},{/\n\t/g' "$1" |
    awk -F'\t' '{ if ($1 != "") a = $1; else $0 = a $0; print }'
}
frames llvm.json >llvm.txt
frames ours.json >ours.txt
[[ $(wc -l <llvm.txt) == $(wc -l <ours.txt) ]] || { echo "different numbers of frames"; exit 1; }

paste -d '\n' llvm.txt ours.txt | awk -F'\t' -v count="$count" '
  function field(s, key,   m) {
    if (match(s, "\"" key "\":(\"[^\"]*\"|[0-9]+)")) return substr(s, RSTART + length(key) + 3, RLENGTH - length(key) - 3)
    return ""
  }
  # C1/C2 constructors and D0/D1/D2 destructors of one body are aliases:
  # which one a tool names depends on the order of the symbol table.
  function alias(name) { gsub(/C[12](E|I|B)/, "Cx&", name); gsub(/D[012](E|I|B)/, "Dx&", name); gsub(/[CD]x[CD][0-9]/, "", name); return name }
  function drop(s, key) { sub("\"" key "\":(\"[^\"]*\"|[0-9]+)", "", s); return s }
  NR % 2 == 1 { theirs = $2; address = $1; next }
  {
    ours = $2
    frames++
    if (field(theirs, "FunctionName") ~ /^"_Z/ && field(ours, "FunctionName") !~ /^"_Z/) {
      mangled++
      theirs = drop(theirs, "FunctionName"); ours = drop(ours, "FunctionName")
    }
    if (field(theirs, "FunctionName") == "\"\"" && field(ours, "FunctionName") != "\"\"") {
      unnamed++
      theirs = drop(drop(theirs, "FunctionName"), "StartAddress"); ours = drop(drop(ours, "FunctionName"), "StartAddress")
    }
    ta = field(theirs, "FunctionName"); oa = field(ours, "FunctionName")
    if (ta != oa && alias(ta) == alias(oa)) {
      aliases++
      theirs = drop(theirs, "FunctionName"); ours = drop(ours, "FunctionName")
    }
    if (field(theirs, "StartFileName") == "\"\"" && field(ours, "StartFileName") != "\"\"") {
      nofile++
      theirs = drop(theirs, "StartFileName"); ours = drop(ours, "StartFileName")
    }
    if (theirs == ours) { same++; next }
    if (bad++ < 10) printf "%s: LLVM %s\n%s: ours %s\n", address, $0 == "" ? "" : theirs, address, ours
  }
  END {
    printf "%d addresses, %d frames: %d identical, %d with a name LLVM leaves mangled, %d where LLVM names no function, %d aliases, %d where LLVM has no StartFileName, %d different\n",
      count, frames, same, mangled, unnamed, aliases, nofile, bad
    exit bad > 0
  }'
echo "JSON answers agree with LLVM"
