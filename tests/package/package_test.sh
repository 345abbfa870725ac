#!/usr/bin/env bash
# Installs the build tree into a temporary prefix and builds small consumers
# against the installation: with find_package and with pkg-config, in C and
# in C++; then against the build tree's own export, and as a parent project
# that adds the sources with add_subdirectory. Runs them, the installed
# kelodbg, and the demo on the installation.
#
# Usage: package_test.sh BUILD_DIR SOURCE_DIR EXAMPLES_DIR [no-tool]
set -euo pipefail

build=$1
source=$2
examples=$3
with_tool=1
[[ ${4:-} == no-tool ]] && with_tool=0

work=$(mktemp -d "${TMPDIR:-/tmp}/kelo-package.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

step() { printf '\n== %s\n' "$*"; }

step "install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log"
installed=(include/kelo/debuginfo.h include/kelo/DebugInfoList.h include/kelo/elf.h include/kelo/elf.hpp
  include/kelo/export.h)
((with_tool)) && installed+=(bin/kelodbg share/man/man1/kelodbg.1 share/bash-completion/completions/kelodbg)
for f in "${installed[@]}"; do
  [[ -e $prefix/$f ]] || { echo "not installed: $f" >&2; exit 1; }
done
# Nothing internal is installed.
if find "$prefix" -name '*.h' -path '*serialize*' -o -name 'handles.h' -o -name 'format.h' | grep -q .; then
  echo "internal headers installed" >&2
  exit 1
fi
pcdir=$(dirname "$(find "$prefix" -name kelo-debuginfo.pc | head -1)")
libdir=$(dirname "$(find "$prefix" -name 'libkelo_debuginfo.so' | head -1)")

step "find_package(KeloDebugInfo)"
cmake -S "$source/tests/package/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DKELO_SOURCE_DIR="$source" -DCMAKE_BUILD_TYPE=Release >"$work/configure.log" ||
  { cat "$work/configure.log" >&2; exit 1; }
cmake --build "$work/cmake-build" -j2
"$work/cmake-build/c_consumer" "$examples/main.o" "$work/c.kdbg"
"$work/cmake-build/cxx_consumer" "$examples/main.o"
"$work/cmake-build/store_consumer" "$examples/main.o" "$work/store.kdbg"

step "pkg-config kelo-debuginfo (C), kelo-debuginfo-cxx (C++) and kelo-store"
export PKG_CONFIG_PATH=$pcdir
pkg-config --exists --print-errors kelo-debuginfo kelo-debuginfo-cxx
[[ $(pkg-config --modversion kelo-debuginfo) == $(pkg-config --modversion kelo-elf) ]]
flags=$(pkg-config --cflags --libs kelo-debuginfo)
# A C program needs our two libraries and nothing of the C++ side.
if [[ $flags == *absl* || $flags == *NOMINMAX* ]]; then
  echo "C flags carry C++ dependencies: $flags" >&2
  exit 1
fi
# shellcheck disable=SC2086
"${CC:-cc}" -std=c11 -Wall -Wextra -Werror "$source/examples/c_example.c" -o "$work/c_pc" $flags -Wl,-rpath,"$libdir"
# shellcheck disable=SC2086
"${CXX:-c++}" -std=c++17 -Wall -Wextra -Werror "$source/tests/package/consumer.cpp" -o "$work/cxx_pc" \
  $(pkg-config --cflags --libs kelo-debuginfo-cxx) -Wl,-rpath,"$libdir"
# shellcheck disable=SC2086
"${CXX:-c++}" -std=c++17 -Wall -Wextra -Werror "$source/tests/package/store_consumer.cpp" -o "$work/store_pc" \
  $(pkg-config --cflags --libs kelo-store) -Wl,-rpath,"$libdir"
"$work/c_pc" "$examples/main.o" "$work/c_pc.kdbg"
"$work/cxx_pc" "$examples/main.o"
"$work/store_pc" "$examples/main.o" "$work/store_pc.kdbg"
cmp "$work/store.kdbg" "$work/store_pc.kdbg"
cmp "$work/c.kdbg" "$work/c_pc.kdbg"

step "the build tree's own export"
cmake -S "$source/tests/package/consumer" -B "$work/export-build" -DKeloDebugInfo_DIR="$build" \
  -DKELO_SOURCE_DIR="$source" >"$work/configure.log" || { cat "$work/configure.log" >&2; exit 1; }
cmake --build "$work/export-build" -j2 >"$work/build.log" || { cat "$work/build.log" >&2; exit 1; }
"$work/export-build/c_consumer" "$examples/main.o" "$work/export.kdbg"

step "add_subdirectory from a parent project"
cmake -S "$source/tests/package/parent" -B "$work/parent-build" -DKELO_SOURCE_DIR="$source" \
  >"$work/configure.log" || { cat "$work/configure.log" >&2; exit 1; }
cmake --build "$work/parent-build" -j2 >"$work/build.log" || { cat "$work/build.log" >&2; exit 1; }
"$work/parent-build/parent_c_example" "$examples/main.o" "$work/parent.kdbg"
cmp "$work/c.kdbg" "$work/parent.kdbg"

if ((with_tool)); then
  step "the installed kelodbg reads what the consumers wrote"
  "$prefix/bin/kelodbg" list "$work/c.kdbg"

  step "the demo on the installation"
  bash "$source/examples/demo.sh" "$prefix" >"$work/demo.log" || { cat "$work/demo.log" >&2; exit 1; }
  tail -1 "$work/demo.log"
fi

echo "package test passed"
