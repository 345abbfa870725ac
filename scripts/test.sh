#!/usr/bin/env bash
# Sets up the machine, builds everything with warnings as errors into build/
# and runs every test. Exits non-zero when any stage fails.
#
# Environment: BUILD_DIR (default build/), JOBS (default 2),
# SKIP_SETUP=1 to leave the installed packages alone.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${BUILD_DIR:-$root/build}
jobs=${JOBS:-2}

stage() { printf '\n==== %s\n' "$*"; }

stage_setup() {
  if [[ ${SKIP_SETUP:-0} == 1 ]]; then
    return
  fi
  stage "setup: Debian packages"
  bash "$root/scripts/setup.sh"
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

main() {
  stage_setup
  stage_build
  stage_test
  stage "all tests passed"
}

main "$@"
