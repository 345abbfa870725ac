#!/usr/bin/env bash
# Match rate of `kelodbg addr2line` against binutils addr2line on any
# program linked (non-PIE) with a linker map, from its objects stored with
# the section addresses of the map. For programs we did not write; not run
# in CI.
#
# Usage: symbolize_compare.sh BUILD_DIR PROGRAM MAP OBJECT...
#   BUILD_DIR: a build with tools and tests (kelodbg, symbolize_store).
#   Env: SAMPLES (instruction addresses, default 5000), RANDOM_PER_RANGE
#   (default 50), FLAGS (option sets, ';'-separated, default
#   "-a -f -i;-a -f -p -i -C -s;-a").
#
# Every address is asked of both tools; each answer is one record. Records
# that differ are put in classes: the address lies in no stored section
# (linker fill, start files, sections the linker makes), or binutils names
# a symbol that no stored object defines; the rest are listed.
set -euo pipefail
export LC_ALL=C

build=$1 prog=$2 map=$3
shift 3
objects=("$@")
kelodbg=$build/tools/kelodbg/kelodbg
store=$build/tests/symbolize/symbolize_store
samples=${SAMPLES:-5000} per_range=${RANDOM_PER_RANGE:-50}
IFS=';' read -r -a flag_sets <<<"${FLAGS:--a -f -i;-a -f -p -i -C -s;-a}"
work=$(mktemp -d "${TMPDIR:-/tmp}/symbolize-compare.XXXXXX")
trap 'rm -rf "$work"' EXIT

"$store" "$map" "$work/store.kdbg" "${objects[@]}"
"$kelodbg" map "$work/store.kdbg" 2>/dev/null | awk 'NR > 1 { print $1, $2 }' >"$work/stored.txt"
nm --defined-only "${objects[@]}" 2>/dev/null | awk 'NF == 3 { print $3 }' | sort -u >"$work/stored-names.txt"
nm "$prog" | awk 'NF == 3 { print $3 }' | sort -u | comm -23 - "$work/stored-names.txt" >"$work/foreign.txt"

hex='function hex(s,   i, n) { n = 0; s = tolower(s); sub(/^0x/, "", s)
  for (i = 1; i <= length(s); i++) n = n * 16 + index("0123456789abcdef", substr(s, i, 1)) - 1; return n }'
{
  objdump -d --no-show-raw-insn "$prog" | awk '/^ +[0-9a-f]+:/ { sub(":", "", $1); print "0x" $1 }' |
    shuf -n "$samples" --random-source=<(yes)
  nm "$prog" | awk 'NF == 3 { print "0x" $1 }'
  awk "$hex"' BEGIN { srand(14) } { s = hex($1); e = hex($2)
      for (k = 0; k < '"$per_range"'; k++) printf "0x%x\n", s + int(rand() * (e - s)) }' "$work/stored.txt"
} | sort -u >"$work/addresses.txt"

records() { awk '/^0x[0-9a-f]+(: |$)/ && !/^0x[0-9a-f]+: .*/ { if (r != "") print r; r = $0; next }
                 /^0x[0-9a-f]+: / { if (r != "") print r; r = $0; next }
                 { r = r " | " $0 } END { if (r != "") print r }'; }

# Addresses where binutils names a symbol that no stored object defines.
addr2line -f -e "$prog" <"$work/addresses.txt" | paste - - | paste "$work/addresses.txt" - |
  awk -F'\t' 'NR == FNR { foreign[$1] = 1; next } ($2 in foreign) { print $1 }' "$work/foreign.txt" - \
    >"$work/foreign-named.txt"

for flags in "${flag_sets[@]}"; do
  # shellcheck disable=SC2086
  addr2line $flags -e "$prog" <"$work/addresses.txt" | records >"$work/expected.txt"
  # shellcheck disable=SC2086
  "$kelodbg" addr2line $flags "$work/store.kdbg" <"$work/addresses.txt" | records >"$work/actual.txt"
  paste -d '\t' "$work/addresses.txt" "$work/expected.txt" "$work/actual.txt" |
    awk -F'\t' -v flags="$flags" "$hex"'
      FILENAME == ARGV[1] { split($0, p, " "); s[++n] = hex(p[1]); e[n] = hex(p[2]); next }
      FILENAME == ARGV[2] { named[$1] = 1; next }
      {
        total++
        if ($2 == $3) { same++; next }
        a = hex($1); stored = 0
        for (i = 1; i <= n; i++) if (a >= s[i] && a < e[i]) { stored = 1; break }
        if (!stored) { unstored++; next }
        if ($1 in named) { foreign_named++; next }
        other++
        if (other <= 20) { print "  < " $2; print "  > " $3 }
      }
      END {
        printf "%s: %d addresses, %d identical (%.2f%%); differing: %d in no stored section, %d named by foreign symbols, %d other\n",
               flags, total, same, 100 * same / total, unstored, foreign_named, other
        printf "  identical among addresses in stored sections without foreign names: %.3f%%\n",
               100 * same / (total - unstored - foreign_named)
      }' "$work/stored.txt" "$work/foreign-named.txt" -
done
