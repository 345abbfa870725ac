#!/usr/bin/env bash
# Sets up the machine, builds everything with warnings as errors into build/
# and runs every test. Exits non-zero when any stage fails.
#
# Environment: BUILD_DIR (default build/), JOBS (default 2),
# SKIP_SETUP=1 to leave the installed packages alone; SKIP_FORMAT=1, SKIP_ASAN=1,
# SKIP_VALGRIND=1, SKIP_I386=1, SKIP_FUZZ=1, SKIP_BENCH=1 to leave out those
# stages. The extra stages build into $BUILD_DIR-asan, -i386, -fuzz and -bench.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${BUILD_DIR:-$root/build}
jobs=${JOBS:-2}

# shellcheck source=common.sh
source "$root/scripts/common.sh"

# Every tracked C and C++ file is formatted as .clang-format says.
stage_format() {
  [[ ${SKIP_FORMAT:-0} == 1 ]] && return
  stage "format: clang-format --dry-run"
  if ! command -v clang-format >/dev/null; then
    echo "clang-format not installed" >&2
    return 1
  fi
  (cd "$root" && git ls-files -z '*.c' '*.cpp' '*.h' '*.hpp' | xargs -0 clang-format --dry-run --Werror)
}

stage_build() {
  stage "build: $build"
  cmake -S "$root" -B "$build" -DKELO_WERROR=ON
  cmake --build "$build" -j "$jobs"
}

stage_test() {
  stage "test"
  ctest --test-dir "$build" --output-on-failure -j "$jobs"
}

# ---- Reliability: sanitizers, valgrind, the 32-bit build, fuzz smoke runs ----

# The whole test suite built with AddressSanitizer and UBSan; any report
# fails the test that caused it. Left out: package.install, which builds
# consumer programs without the sanitizer runtime against the sanitized
# libraries (ASan must come first in a program's libraries).
stage_asan() {
  [[ ${SKIP_ASAN:-0} == 1 ]] && return
  stage "asan+ubsan: $build-asan"
  cmake -S "$root" -B "$build-asan" -DCMAKE_BUILD_TYPE=Debug -DKELO_WERROR=ON -DKELO_SANITIZE=address,undefined
  cmake --build "$build-asan" -j "$jobs"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir "$build-asan" --output-on-failure -j "$jobs" -E '^package\.install$'
}

# Every test program of the main build, whole, under valgrind's memcheck:
# any invalid access or definite, indirect or possible leak fails the stage.
# Tests that replace operator new and delete keep their own (nothing is
# intercepted in the programs themselves); those call malloc and free, which
# valgrind watches.
stage_valgrind() {
  [[ ${SKIP_VALGRIND:-0} == 1 ]] && return
  stage "valgrind memcheck: test programs of $build"
  local bin log failed=0 count=0
  log=$(mktemp)
  while IFS= read -r bin; do
    [[ $(head -c 4 "$bin") == $'\x7fELF' ]] || continue
    count=$((count + 1))
    printf -- '-- %s\n' "${bin#"$build"/}"
    if ! (cd "$(dirname "$bin")" &&
          valgrind -q --error-exitcode=1 --soname-synonyms=somalloc=nouserintercepts \
            --leak-check=full --errors-for-leak-kinds=definite,indirect,possible \
            "$bin" >"$log" 2>&1); then
      cat "$log"
      failed=1
    fi
  done < <(find "$build/tests" -name CMakeFiles -prune -o -type f -name '*_test' -perm -u+x -print | sort)
  rm -f "$log"
  echo "$count programs under valgrind"
  return $failed
}

# Libraries and tests built as 32-bit programs and run under qemu-i386.
stage_i386() {
  [[ ${SKIP_I386:-0} == 1 ]] && return
  stage "32-bit: $build-i386 (run under qemu-i386)"
  cmake -S "$root" -B "$build-i386" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/i386.cmake" -DKELO_WERROR=ON
  cmake --build "$build-i386" -j "$jobs"
  ctest --test-dir "$build-i386" --output-on-failure -j "$jobs"
}

# Each fuzz target replays its seed corpus (damaged files and earlier finds
# included), then fuzzes for a bounded time. New inputs go to a temporary
# directory, never into the repository. (The other builds replay the corpora
# as the tests fuzz.*.)
stage_fuzz() {
  [[ ${SKIP_FUZZ:-0} == 1 ]] && return
  stage "fuzz smoke runs: $build-fuzz"
  cmake -S "$root" -B "$build-fuzz" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELO_WERROR=ON -DKELO_BUILD_FUZZ=ON \
    -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_TOOLS=OFF -DKELO_BUILD_EXAMPLES=OFF
  cmake --build "$build-fuzz" -j "$jobs" --target kelo_fuzz
  local t work log failed=0
  rm -f "$build-fuzz"/crash-*
  log=$(mktemp)
  for t in elf_differential read_file list_model symbolize text serve; do
    work=$(mktemp -d)
    if ! "$build-fuzz/fuzz/fuzz_$t" -max_total_time="${FUZZ_SECONDS:-20}" -timeout=20 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$build-fuzz/crash-$t-" "$work" "$root/fuzz/corpus/$t" >"$log" 2>&1; then
      tail -n 60 "$log"
      failed=1
    fi
    printf 'fuzz_%-16s %s\n' "$t" "$(grep -E '^stat::number_of_executed_units' "$log" || echo 'no statistics')"
    rm -rf "$work"
  done
  rm -f "$log"
  return $failed
}

# The benchmark in its quick mode, with the tool for its memory rows: it
# proves the benchmark still builds and runs, and ends with its summary
# table. The figures are not judged here (see bench/README.md).
stage_bench() {
  [[ ${SKIP_BENCH:-0} == 1 ]] && return
  stage "benchmark smoke run: $build-bench"
  cmake -S "$root" -B "$build-bench" -DCMAKE_BUILD_TYPE=Release -DKELO_BUILD_BENCH=ON \
    -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_EXAMPLES=OFF -DKELO_WERROR=ON
  cmake --build "$build-bench" -j "$jobs" --target kelo_bench
  "$build-bench/bench/kelo_bench" --quick
  bash "$root/bench/symbolize_bench.sh" --quick "$build"
  bash "$root/bench/serve_load.sh" --quick "$build"
}

# Runs a stage and notes how long it took.
timings=()
timed() {
  local start=$SECONDS
  "$@"
  timings+=("$(printf '%-16s %5ds' "${1#stage_}" $((SECONDS - start)))")
}

main() {
  timed stage_setup
  timed stage_format
  timed stage_build
  timed stage_test
  timed stage_asan
  timed stage_valgrind
  timed stage_i386
  timed stage_fuzz
  timed stage_bench
  stage "stage times"
  printf '%s\n' "${timings[@]}"
  stage "lines of code"
  bash "$root/scripts/loc.sh"
  stage "all tests passed"
}

main "$@"
