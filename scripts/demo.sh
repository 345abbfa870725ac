#!/usr/bin/env bash
# Sets up the machine, builds and installs the library and kelodbg, then
# runs the demo (examples/demo.sh) on the installation.
#
# Environment: BUILD_DIR (default build-demo/), PREFIX (default /usr/local),
# JOBS (default 2), SKIP_SETUP=1 to leave the installed packages alone.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${BUILD_DIR:-$root/build-demo}
prefix=${PREFIX:-/usr/local}
jobs=${JOBS:-2}

# shellcheck source=common.sh
source "$root/scripts/common.sh"

stage_install() {
  stage "build and install into $prefix"
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" -DKELO_BUILD_TESTS=OFF
  cmake --build "$build" -j "$jobs"
  cmake --install "$build"
  if [[ $(id -u) -eq 0 ]] && command -v ldconfig >/dev/null; then
    ldconfig
  fi
}

stage_demo() {
  stage "demo"
  bash "$root/examples/demo.sh" "$prefix"
}

main() {
  stage_setup
  stage_install
  stage_demo
}

main "$@"
