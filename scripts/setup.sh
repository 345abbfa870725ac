#!/usr/bin/env bash
# Installs the Debian (bookworm) packages needed to build, test and run
# everything in this repository. Run as root (or with sudo available).
set -euo pipefail

# The one list of packages.
packages=(
  build-essential cmake pkg-config
  libelf-dev libabsl-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev libfmt-dev libcereal-dev
  valgrind clang clang-format
)

sudo=
if [[ $(id -u) -ne 0 ]]; then
  sudo=sudo
fi

# A mirror hiccup must not stop a machine that already has what it needs.
$sudo apt-get update || true
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y "${packages[@]}"
