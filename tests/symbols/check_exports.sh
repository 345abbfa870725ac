#!/bin/sh
# Checks what a shared library exports:
#   check_exports.sh <nm> <readelf> <library> <soname> <version node> <expected names>
# The SONAME must be <soname>; every defined dynamic symbol must be bound to
# <version node> as its default version, or to the node its line in the
# file names ("name@@NODE", for calls added in a later node); and the set of
# exported names (demangled, Abseil's inline namespace dropped) must equal
# the file of expected names, one per line, so that nothing else leaks out.
set -eu
nm=$1 readelf=$2 lib=$3 soname=$4 node=$5 expected=$6
status=0

got=$("$readelf" -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
if [ "$got" != "$soname" ]; then
  echo "SONAME of $lib: expected $soname, got '$got'"
  status=1
fi

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# "<address> <type> <name>@@<version>"; a node's own absolute symbol is the
# version definition, not an export.
"$nm" -D --defined-only --with-symbol-versions -C "$lib" |
  sed -n 's/^[0-9a-fA-F]* [A-Za-z] //p' | grep -vx -e "$node" -e '[A-Z][A-Z0-9_]*_[0-9][0-9.]*' -e '\([A-Z0-9_.]*\)@@\1' >"$tmp/all" || true

if grep -v "@@$node\$" "$tmp/all" | grep -v -F -x -f "$expected" >"$tmp/unversioned"; then
  echo "symbols of $lib not bound to $node:"
  cat "$tmp/unversioned"
  status=1
fi

sed -e "s/@@$node\$//" -e 's/absl::\(lts_[0-9_]*\|debian[0-9]*\)::/absl::/g' "$tmp/all" | sort -u >"$tmp/names"
sort -u "$expected" >"$tmp/expected"
if ! diff -u "$tmp/expected" "$tmp/names"; then
  echo "exported names of $lib differ from $expected (- missing, + unexpected)"
  status=1
fi

[ "$status" -eq 0 ] && echo "$lib: SONAME $soname, $(wc -l <"$tmp/names") names, all at $node"
exit "$status"
