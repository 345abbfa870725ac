#!/usr/bin/env bash
# The debug-info workflow with kelodbg, step by step:
# store three ELF objects under identifiers, record section addresses,
# renumber one entry, read the file back, list it, and extract one entry,
# proving it byte-identical to the object that went in.
#
# Usage: examples/demo.sh [DIR]
#   DIR is a build directory (tools/kelodbg/kelodbg, examples/*.o) or an
#   installation prefix (bin/kelodbg). Without DIR, kelodbg is taken from
#   PATH. Example objects missing from DIR are compiled from the sources next
#   to this script with ${CC:-cc}.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
dir=${1:-}
# The demo works in a folder of its own: DIR is made absolute first.
if [[ -n $dir ]]; then
  dir=$(cd "$dir" && pwd) || {
    echo "demo: no folder '$1'" >&2
    exit 1
  }
fi

kelodbg=
for candidate in "$dir/tools/kelodbg/kelodbg" "$dir/bin/kelodbg"; do
  if [[ -n $dir && -x $candidate ]]; then
    kelodbg=$candidate
    break
  fi
done
if [[ -z $kelodbg ]]; then
  kelodbg=$(command -v kelodbg) || {
    echo "demo: no kelodbg in '${dir:-PATH}'" >&2
    exit 1
  }
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/kelodbg-demo.XXXXXX")
trap 'rm -rf "$work"' EXIT

objects=$work/objects
if [[ -n $dir && -f $dir/examples/main.o && -f $dir/examples/util.o && -f $dir/examples/extra.o ]]; then
  objects=$dir/examples
else
  mkdir "$objects"
  for name in main util extra; do
    "${CC:-cc}" -std=c11 -O1 -g -c "$here/$name.c" -o "$objects/$name.o"
  done
fi

# Prints a command, then runs it.
run() {
  printf '\n$ %s\n' "$*"
  "$@"
}

cd "$work"
cp "$objects/main.o" "$objects/util.o" "$objects/extra.o" .
echo "kelodbg: $kelodbg"
echo "working in $work"

echo
echo "== Store main.o under 0x00011234 and util.o under 7 (kind 1), then add extra.o"
run "$kelodbg" create game.kdbg 0x00011234=main.o 7=util.o
run "$kelodbg" add game.kdbg 0x20=extra.o

echo
echo "== Record load addresses: a real section, and .constant, which every entry accepts"
run "$kelodbg" set-addr game.kdbg 0x00011234 .text 0x80001000
run "$kelodbg" set-addr game.kdbg 0x00011234 .constant 0x80100000
run "$kelodbg" set-addr game.kdbg 7 .kelo.overlay 0x80200000

echo
echo "== Renumber main.o's entry to 0x40, kind 0 (all renumberings apply, or none)"
run "$kelodbg" renumber game.kdbg 0x00011234=0:0x40

echo
echo "== Read the file back"
run "$kelodbg" check game.kdbg
run "$kelodbg" version game.kdbg
run "$kelodbg" list game.kdbg
run "$kelodbg" show game.kdbg 0:0x40

echo
echo "== Extract the entry and compare it with the object it came from"
run "$kelodbg" extract game.kdbg 0:0x40 -o main-copy.o
run cmp main.o main-copy.o
echo "main-copy.o is byte-identical to main.o"

echo
echo "== A renumbering onto a taken identifier is refused, and the file stays as it was"
cp game.kdbg before.kdbg
if run "$kelodbg" renumber game.kdbg 0:0x40=7; then
  echo "demo: the renumbering should have been refused" >&2
  exit 1
fi
run cmp game.kdbg before.kdbg
echo "game.kdbg is unchanged"

echo
echo "demo finished"
