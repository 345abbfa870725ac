#!/usr/bin/env bash
# Builds a C++ program we did not write, for the symbolization comparison
# and benchmark: GoogleTest and GoogleMock with a choice of their own tests,
# from the sources Debian ships in the package googletest
# (/usr/src/googletest). Compiled with -g -O2 (DWARF 5, the compilers'
# default), linked non-PIE with a GNU ld map; it is never run.
#
# Usage: googletest_program.sh [--subset] CXX DIR
#   CXX: the compiler (g++, clang++, ...), also the link driver.
#   DIR: where the objects, DIR/prog, DIR/prog.map and DIR/objects.txt (the
#   objects in link order, one a line, as named on the link's command line
#   and so in the map) go. Objects already in DIR are reused, so a second
#   run only links.
#   --subset: 13 objects (the gtest library, its main and three small test
#   files) instead of 46, for the test suite.
#   Env: GOOGLETEST_SRC (default /usr/src/googletest), JOBS (parallel
#   compilations, default the number of processors).
#
# The sources that include other .cc files (gtest-all.cc, gmock-all.cc,
# *_all_test.cc), the test files with their own main, and the heaviest
# matcher and action tests (each minutes of compilation) are left out; one
# of the two gmock_link tests, which define the same test names, is left out.
set -euo pipefail
export LC_ALL=C

subset=0
if [[ ${1:-} == --subset ]]; then
  subset=1
  shift
fi
if [[ $# -ne 2 ]]; then
  echo "usage: googletest_program.sh [--subset] CXX DIR" >&2
  exit 2
fi
cxx=$1 dir=$2
src=${GOOGLETEST_SRC:-/usr/src/googletest}
[[ -f $src/googletest/src/gtest.cc ]] || { echo "no GoogleTest sources in $src (Debian: googletest)" >&2; exit 1; }
command -v "$cxx" >/dev/null || { echo "no compiler $cxx" >&2; exit 1; }

gtest_lib=(googletest/src/{gtest,gtest-assertion-result,gtest-death-test,gtest-filepath,gtest-matchers,gtest-port,gtest-printers,gtest-test-part,gtest-typed-test}.cc)
# GoogleMock's library: every source but the one that includes the others.
mapfile -t gmock_lib < <(cd "$src" && ls googlemock/src/gmock*.cc | grep -v '/gmock-all\.cc$')
if ((subset)); then
  sources=("${gtest_lib[@]}" googletest/src/gtest_main.cc
    googletest/test/{googletest-message-test,googletest-test-part-test,gtest-typed-test2_test}.cc)
else
  sources=("${gtest_lib[@]}"
    "${gmock_lib[@]}"
    googlemock/test/{gmock-cardinalities_test,gmock-internal-utils_test,gmock-nice-strict_test,gmock-port_test}.cc
    googlemock/test/{gmock-pp-string_test,gmock-pp_test,gmock_ex_test,gmock_leak_test_,gmock_link_test,gmock_test}.cc
    googletest/test/{googletest-death-test-test,googletest-filepath-test,googletest-message-test}.cc
    googletest/test/{googletest-options-test,googletest-param-test2-test,googletest-port-test}.cc
    googletest/test/{googletest-printers-test,googletest-setuptestsuite-test_,googletest-test-part-test}.cc
    googletest/test/{gtest-typed-test2_test,gtest-typed-test_test,gtest_help_test_,gtest_main_unittest}.cc
    googletest/test/{gtest_pred_impl_unittest,gtest_prod_test,gtest_skip_test,gtest_sole_header_test}.cc
    googletest/test/{gtest_testbridge_test_,gtest_xml_outfile1_test_,gtest_xml_outfile2_test_,production}.cc)
fi

mkdir -p "$dir"
cd "$dir"
objects=()
for s in "${sources[@]}"; do objects+=("$(basename "$s" .cc).o"); done
# Compile what is missing, in parallel; a failed compilation leaves no object.
for i in "${!sources[@]}"; do
  [[ -s ${objects[i]} ]] || printf '%s %s\n' "$src/${sources[i]}" "${objects[i]}"
done | xargs -r -n 2 -P "${JOBS:-$(nproc)}" sh -c '
  "$0" -std=c++17 -g -O2 -I"$1/googletest" -I"$1/googletest/include" -I"$1/googlemock" \
    -I"$1/googlemock/include" -c "$2" -o "$3.tmp" && mv "$3.tmp" "$3"' "$cxx" "$src"
for o in "${objects[@]}"; do
  [[ -s $o ]] || { echo "googletest_program.sh: $o was not built" >&2; exit 1; }
done
printf '%s\n' "${objects[@]}" >objects.txt
"$cxx" -no-pie -pthread -o prog "${objects[@]}" -Wl,-Map,prog.map
