#!/usr/bin/env bash
# The README's C example is examples/c_example.c, which the tests build and
# run; this keeps the two from drifting apart.
set -euo pipefail
source=$1
awk '/^```c$/ { inside = 1; next } /^```$/ { if (inside) exit } inside' "$source/README.md" |
  diff -u "$source/examples/c_example.c" -
echo "README C example matches examples/c_example.c"
