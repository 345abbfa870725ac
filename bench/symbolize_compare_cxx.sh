#!/usr/bin/env bash
# Agreement of `kelodbg addr2line` with the two reference symbolizers,
# binutils addr2line and llvm-addr2line, on a C++ program we did not write:
# GoogleTest and GoogleMock with their tests (bench/googletest_program.sh),
# built with each compiler at -g -O2, linked non-PIE; its objects are filed
# in a store with every allocated input section at its address in the link.
#
# Usage: symbolize_compare_cxx.sh [--subset] [--check] [BUILD_DIR]
#   BUILD_DIR (default build/): a build with the tool and the tests
#   (kelodbg, tests/symbolize/symbolize_store); KELODBG and SYMBOLIZE_STORE
#   name the two programs instead.
#   --subset: 13 objects, g++ only, fewer addresses (the test suite's
#   symbolize.cxx_agreement).
#   --check: exit 1 unless we agree on every address where the references
#   agree and side with one of them on every address where they do not,
#   for lines and for names, with and without -C.
#   Env: COMPILERS (default "g++ clang++"; --subset: g++), SAMPLES
#   (instruction addresses, default 5000; --subset 1500), RANDOM_ADDRESSES
#   (default 3000; --subset 1000), SHOW (mismatches listed per class,
#   default 15), OBJECTS_DIR (where the compiled objects are kept and reused
#   from run to run, one directory per compiler; default a temporary one).
#
# Addresses: a sample of the program's instructions (objdump -d), the start
# of every symbol of the stored objects, and random addresses in stored
# ranges (weighted by their size), all of them inside stored ranges; each
# asked once of each tool, as `-a -f -i` and `-a -f -i -C` (-a only to mark
# where each answer starts).
#
# Each answer is read as a chain of frames, innermost first, and split in
# two: NAMES, the chain of function names, and LINES, the chain of
# file:line. For each, where GNU and LLVM give the same chain we must give
# it too; where they differ we must give one of the two.
#
# What is normalised, being formatting only (the same in all three answers):
#   - the address line: GNU pads it to 16 hex digits, LLVM does not;
#   - " (discriminator N)": GNU prints it on every frame that has one, LLVM
#     on the innermost frame only; dropped everywhere;
#   - an unknown line: GNU prints "??:?" or "FILE:?", LLVM "??:0" / "FILE:0";
#     "?" is read as 0;
#   - demangled clones: GNU prints "f() [clone .isra.0] [clone .cold]", LLVM
#     "f() (.isra.0.cold)"; read as LLVM prints them;
#   - with -C, LLVM's names are demangled by c++filt (binutils' demangler)
#     rather than by LLVM's own, which writes some names its own way.
# Nothing else: function names (mangled or demangled), file names and line
# numbers are compared as printed.
set -euo pipefail
export LC_ALL=C

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
subset=0 check=0
while [[ ${1:-} == --* ]]; do
  case $1 in
    --subset) subset=1 ;;
    --check) check=1 ;;
    *) echo "usage: symbolize_compare_cxx.sh [--subset] [--check] [BUILD_DIR]" >&2; exit 2 ;;
  esac
  shift
done
build=${1:-$root/build}
kelodbg=${KELODBG:-$build/tools/kelodbg/kelodbg}
store=${SYMBOLIZE_STORE:-$build/tests/symbolize/symbolize_store}
# Absolute: the objects are stored from their own directory.
kelodbg=$(realpath -m "$kelodbg") store=$(realpath -m "$store")
for tool in "$kelodbg" "$store"; do
  [[ -x $tool ]] || { echo "missing $tool: build with tools and tests first" >&2; exit 1; }
done
for tool in addr2line llvm-addr2line objdump nm; do
  command -v "$tool" >/dev/null || { echo "missing $tool (Debian: binutils, llvm)" >&2; exit 1; }
done
if ((subset)); then
  compilers=${COMPILERS:-g++} samples=${SAMPLES:-1500} random=${RANDOM_ADDRESSES:-1000}
  program_args=(--subset)
else
  compilers=${COMPILERS:-g++ clang++} samples=${SAMPLES:-5000} random=${RANDOM_ADDRESSES:-3000}
  program_args=()
fi
show=${SHOW:-15}

work=$(mktemp -d "${TMPDIR:-/tmp}/symbolize-compare-cxx.XXXXXX")
trap 'rm -rf "$work"' EXIT
objects_dir=${OBJECTS_DIR:-$work/objects}

hex='function hex(s,   i, n) { n = 0; s = tolower(s); sub(/^0x/, "", s)
  for (i = 1; i <= length(s); i++) n = n * 16 + index("0123456789abcdef", substr(s, i, 1)) - 1; return n }'
# Ranges are read from FILE 1 ("start end", sorted, not overlapping) into
# lo[1..nr], hi[1..nr]; inside(a) is the range holding a, or 0.
ranges='function inside(a,   l, h, m) { l = 1; h = nr
  while (l <= h) { m = int((l + h) / 2); if (a < lo[m]) h = m - 1; else if (a >= hi[m]) l = m + 1; else return m }
  return 0 }'

# answers FILE: one record per answer, "address TAB names TAB lines", the
# frames of a chain separated by \037, normalised as the header says.
answers() {
  awk '
    function flush() { if (have) print address "\t" names "\t" lines }
    /^0x[0-9a-fA-F]+$/ {
      flush(); a = tolower($0); sub(/^0x0*/, "", a); address = "0x" (a == "" ? "0" : a)
      names = lines = ""; n = 0; have = 1; next
    }
    {
      if (n % 2 == 0) {
        # " [clone .isra.0] [clone .cold]" -> " (.isra.0.cold)"
        clones = ""
        while (match($0, / \[clone \.[^]]*\]/)) {
          clones = clones substr($0, RSTART + 8, RLENGTH - 9)
          $0 = substr($0, 1, RSTART - 1) substr($0, RSTART + RLENGTH)
        }
        if (clones != "") $0 = $0 " (" clones ")"
        names = names (n ? "\037" : "") $0
      }
      else {
        sub(/ \(discriminator [0-9]+\)$/, ""); sub(/:\?$/, ":0")
        lines = lines (n > 1 ? "\037" : "") $0
      }
      n++
    }
    END { flush() }' "$1"
}

summary=$work/summary.txt examples=$work/examples.txt failed=$work/failed.txt
: >"$summary"
: >"$examples"
: >"$failed"

for cxx in $compilers; do
  dir=$objects_dir/$(basename "$cxx")
  echo "building the googletest program with $cxx ..." >&2
  bash "$root/bench/googletest_program.sh" "${program_args[@]}" "$cxx" "$dir" >&2
  mapfile -t objects <"$dir/objects.txt"
  (cd "$dir" && "$store" prog.map "$work/prog.kdbg" "${objects[@]}" >/dev/null)
  prog=$dir/prog
  "$kelodbg" map "$work/prog.kdbg" 2>/dev/null | awk 'NR > 1 { print $1, $2 }' |
    awk "$hex"' { print hex($1), hex($2) }' | sort -n -k1,1 >"$work/stored.txt"

  # Instructions: twice the sample drawn, those in stored ranges kept.
  objdump -d --no-show-raw-insn "$prog" | awk '/^ +[0-9a-f]+:/ { sub(":", "", $1); print $1 }' |
    shuf -n "$((2 * samples))" --random-source=<(yes) |
    awk "$hex$ranges"' NR == FNR { lo[++nr] = $1; hi[nr] = $2; next }
      inside(hex($1)) && kept++ < '"$samples"' { print "0x" $1 }' "$work/stored.txt" - >"$work/addresses.txt"
  # Symbols the stored objects define, where the program has them.
  (cd "$dir" && nm --defined-only "${objects[@]}") 2>/dev/null | awk 'NF == 3 { print $3 }' | sort -u >"$work/names.txt"
  nm "$prog" | awk 'NR == FNR { want[$1] = 1; next } NF == 3 && ($3 in want) { print $1 }' "$work/names.txt" - |
    awk "$hex$ranges"' NR == FNR { lo[++nr] = $1; hi[nr] = $2; next }
      inside(hex($1)) { print "0x" $1 }' "$work/stored.txt" - >>"$work/addresses.txt"
  # Random addresses, each range as likely as its size.
  awk 'BEGIN { srand(14) }
    { lo[++nr] = $1; size[nr] = $2 - $1; total += size[nr]; end[nr] = total }
    END {
      for (k = 0; k < '"$random"'; k++) {
        x = int(rand() * total); l = 1; h = nr
        while (l < h) { m = int((l + h) / 2); if (end[m] <= x) l = m + 1; else h = m }
        printf "0x%x\n", lo[l] + (x - (end[l] - size[l]))
      }
    }' "$work/stored.txt" >>"$work/addresses.txt"
  sort -u "$work/addresses.txt" -o "$work/addresses.txt"
  count=$(wc -l <"$work/addresses.txt")

  for flags in "-f -i" "-f -i -C"; do
    # shellcheck disable=SC2086
    addr2line -a $flags -e "$prog" <"$work/addresses.txt" >"$work/gnu.out"
    # LLVM's own demangler writes some names its own way ("operator<<<",
    # "'lambda'()"): with -C, the names LLVM chose are demangled by binutils'
    # c++filt instead, so that the names are compared, not the demanglers.
    if [[ $flags == *-C* ]]; then
      llvm-addr2line -a -f -i -e "$prog" <"$work/addresses.txt" | c++filt --no-verbose >"$work/llvm.out"
    else
      # shellcheck disable=SC2086
      llvm-addr2line -a $flags -e "$prog" <"$work/addresses.txt" >"$work/llvm.out"
    fi
    # shellcheck disable=SC2086
    "$kelodbg" addr2line -a $flags "$work/prog.kdbg" <"$work/addresses.txt" >"$work/ours.out"
    for t in gnu llvm ours; do
      answers "$work/$t.out" >"$work/$t.txt"
      n=$(wc -l <"$work/$t.txt")
      [[ $n -eq $count ]] || { echo "$t: $n answers for $count addresses" >&2; exit 1; }
    done
    # binutils' answer may depend on the addresses asked before it (at the
    # ends of sections without line entries it repeats a line of an earlier
    # answer): where our file:line chain is neither reference's, binutils is
    # asked again about that address alone, in a process of its own.
    paste "$work/gnu.txt" "$work/llvm.txt" "$work/ours.txt" |
      awk -F'\t' '$9 != $3 && $9 != $6 { print $1 }' >"$work/again.txt"
    if [[ -s $work/again.txt ]]; then
      while read -r a; do
        # shellcheck disable=SC2086
        addr2line -a $flags -e "$prog" "$a" >"$work/one.out"
        answers "$work/one.out"
      done <"$work/again.txt" >"$work/fresh.txt"
      awk -F'\t' 'NR == FNR { fresh[$1] = $0; next } { print ($1 in fresh) ? fresh[$1] : $0 }' \
        "$work/fresh.txt" "$work/gnu.txt" >"$work/gnu2.txt"
      mv "$work/gnu2.txt" "$work/gnu.txt"
    fi
    # Symbols at one address (constructor and destructor variants, functions
    # GCC folded together): which of them a reference names depends on the
    # order of the linked program's symbol table, which the stored objects
    # do not have. An outermost name that is an alias of a reference's, the
    # rest of the chain being that reference's, sides with it.
    if [[ $flags == *-C* ]]; then nmflags=-C; else nmflags=; fi
    # shellcheck disable=SC2086
    nm $nmflags "$prog" | awk '$2 ~ /^[tTwW]$/ { a = $1; $1 = ""; $2 = ""; sub(/^  /, "")
        clones = ""
        while (match($0, / \[clone \.[^]]*\]/)) {
          clones = clones substr($0, RSTART + 8, RLENGTH - 9)
          $0 = substr($0, 1, RSTART - 1) substr($0, RSTART + RLENGTH)
        }
        if (clones != "") $0 = $0 " (" clones ")"
        print $0 "\t" a }' >"$work/aliases.txt"
    paste "$work/gnu.txt" "$work/llvm.txt" "$work/ours.txt" |
      awk -F'\t' -v label="$(basename "$cxx") $flags" -v show="$show" -v aliasfile="$work/aliases.txt" \
        -v summary="$summary" -v examples="$examples" -v failed="$failed" '
        BEGIN {
          while ((getline line < aliasfile) > 0) {
            split(line, f, "\t"); named[f[1], f[2]] = 1; at[f[1]] = at[f[1]] " " f[2]
          }
        }
        function chain(s) { gsub(/\037/, " | ", s); return s }
        # Whether chain o is chain r with its outermost name an alias.
        function aliased(o, r,   no, nr, x, y, i, n, places, same) {
          no = split(o, x, "\037"); nr = split(r, y, "\037")
          if (no != nr || !(x[no] in at)) return 0
          for (i = 1; i < no; i++) if (x[i] != y[i]) return 0
          # (Local names repeat: any address where both are defined.)
          n = split(at[x[no]], places, " ")
          for (i = 1; i <= n; i++) if ((y[nr], places[i]) in named) return 1
          return 0
        }
        # classify KIND GNU LLVM OURS ADDRESS
        function classify(kind, g, l, o, a) {
          if (g == l) {
            both[kind]++
            if (o == g) { agree[kind]++; return }
            k = kind ", where GNU and LLVM agree, ours differs"
            if (++listed[k] <= show)
              text[k] = text[k] "  " a "\n    GNU, LLVM: " chain(g) "\n    ours:      " chain(o) "\n"
          } else {
            split_[kind]++
            if (o == g || o == l) { side[kind]++; return }
            if (kind == "names" && (aliased(o, g) || aliased(o, l))) { side[kind]++; byAlias[kind]++; return }
            k = kind ", where GNU and LLVM disagree, ours is neither"
            if (++listed[k] <= show)
              text[k] = text[k] "  " a "\n    GNU:  " chain(g) "\n    LLVM: " chain(l) "\n    ours: " chain(o) "\n"
          }
          if (!(k in order)) { order[k] = ++nk; keys[nk] = k }
        }
        function pct(a, b) { return b ? sprintf("%.2f%%", int(10000 * a / b) / 100) : "-" }
        $1 != $4 || $1 != $7 { print "answers out of step at " $1 ", " $4 ", " $7 > "/dev/stderr"; exit 1 }
        { total++; classify("lines", $3, $6, $9, $1); classify("names", $2, $5, $8, $1) }
        END {
          for (i = 1; i <= 2; i++) {
            kind = i == 1 ? "lines" : "names"
            printf "%-18s %-6s %9d %9d %8s %9d %9s\n", label, kind, total, both[kind], pct(agree[kind], both[kind]),
                   split_[kind], pct(side[kind], split_[kind]) >> summary
            if (agree[kind] != both[kind] || side[kind] != split_[kind]) print label " " kind >> failed
            if (byAlias[kind]) printf "%-18s %-6s (of those sided with: %d by an alias at the same address)\n", label, kind, byAlias[kind] >> summary
          }
          for (i = 1; i <= nk; i++)
          {
            printf "%s %s (%d, the first %d):\n", label, keys[i], listed[keys[i]],
                   listed[keys[i]] < show ? listed[keys[i]] : show >> examples
            printf "%s", text[keys[i]] >> examples
          }
        }'
  done
done

printf '%-18s %-6s %9s %9s %8s %9s %9s\n' program what addresses "both agree" "we agree" "they differ" "we side" 
cat "$summary"
if [[ -s $examples ]]; then
  echo
  cat "$examples"
fi
if ((check)); then
  if [[ -s $failed ]]; then
    echo "FAIL: not in agreement: $(paste -sd, "$failed")"
    exit 1
  fi
  echo "agreement complete: every line and name"
fi
