#!/usr/bin/env bash
# The README's C and C++ examples are examples/c_example.c and
# examples/cpp_example.cpp, which the tests build and run; this keeps them
# from drifting apart.
set -euo pipefail
source=$1
awk '/^```c$/ { inside = 1; next } /^```$/ { if (inside) exit } inside' "$source/README.md" |
  diff -u "$source/examples/c_example.c" -
awk '/^```cpp$/ { inside = 1; next } /^```$/ { if (inside) exit } inside' "$source/README.md" |
  diff -u "$source/examples/cpp_example.cpp" -
echo "README examples match examples/c_example.c and examples/cpp_example.cpp"
