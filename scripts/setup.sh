#!/usr/bin/env bash
# Installs the Debian (bookworm) packages needed to build, test and run
# everything in this repository. Run as root (or with sudo available).
set -euo pipefail

# The one list of packages.
packages=(
  build-essential cmake pkg-config
  libelf-dev libdw-dev libabsl-dev libiberty-dev zlib1g-dev
  libgtest-dev libbenchmark-dev
  libcli11-dev libfmt-dev libcereal-dev
  # kelodbg serve, and what its tests talk to it with.
  libmicrohttpd-dev nlohmann-json3-dev curl haproxy debuginfod
  valgrind clang clang-format
  time
  # llvm-addr2line, and the GoogleTest sources built as the C++ program
  # that the symbolization comparison and benchmark ask about.
  llvm googletest
  libclang-rt-14-dev g++-multilib qemu-user
  libabsl-dev:i386 libgtest-dev:i386 libelf1:i386 libfmt-dev:i386
)

sudo=
if [[ $(id -u) -ne 0 ]]; then
  sudo=sudo
fi

# The 32-bit build links against i386 libraries installed beside the
# 64-bit ones.
if ! dpkg --print-foreign-architectures | grep -qx i386; then
  $sudo dpkg --add-architecture i386
fi

# A mirror hiccup must not stop a machine that already has what it needs.
$sudo apt-get update || true
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y "${packages[@]}"
