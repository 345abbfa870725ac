#!/usr/bin/env bash
# Makes the seed corpus of fuzz_symbolize (fuzz/corpus/symbolize): debug-info
# files of small objects compiled here with gcc and clang, C and C++, DWARF 4
# and 5, compressed debug sections, 32-bit, a linked shared object, and a
# list of several entries whose sections overlap; each allocated section of
# each entry is recorded at an address. Then the scaled-down hostile stores
# of bench/hostile_stores.sh (hostile_*). Inputs kept from fuzzing runs
# (crash_*) are left alone.
#
# Usage: fuzz/make_symbolize_corpus.sh [BUILD_DIR]   (default build/, with the tool)
set -euo pipefail
export LC_ALL=C

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
kelodbg=$build/tools/kelodbg/kelodbg
[[ -x $kelodbg ]] || { echo "missing $kelodbg: build the tool first" >&2; exit 1; }
out=$root/fuzz/corpus/symbolize
mkdir -p "$out"

work=$(mktemp -d "${TMPDIR:-/tmp}/symbolize-corpus.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"

cat >mod.c <<'EOF'
/* A module with code, constants, data and zero-filled data. */
static const int weights[4] = {1, 2, 3, 4};
int counter = 7;
static int scratch[16];

static inline int ratio(int total, int count) { return total / count; }

int weighted_mean(const int* values, int count) {
  int total = 0;
  for (int i = 0; i < count; ++i) total += values[i] * weights[i & 3];
  scratch[count & 15] = total;
  ++counter;
  return ratio(total, count);
}
EOF

cat >mod.cpp <<'EOF'
// A class, a template, an inline function and a lambda.
#include <cstddef>

namespace shapes {
class Box {
 public:
  explicit Box(int w) : w_(w) {}
  int area() const;
 private:
  int w_;
};
int Box::area() const { return w_ * w_; }
}  // namespace shapes

template <typename T, std::size_t N>
T sum(const T (&xs)[N]) {
  T s{};
  for (std::size_t i = 0; i < N; ++i) s += xs[i];
  return s;
}

static inline int twice(int x) { return 2 * x; }

extern const int table[3] = {3, 5, 7};
int state = 1;

int run(int k) {
  auto add = [k](int v) { return twice(v) + k; };
  shapes::Box b(k);
  int xs[3] = {add(1), add(2), b.area()};
  state += sum(xs) + sum(table);
  return state;
}
EOF

# record STORE OBJECT BASE: every nonempty allocated section of OBJECT (the
# store's entry 0x10) at BASE plus its own address when it has one, else
# one after another from BASE, 0x100 apart at least.
record() {
  local store=$1 obj=$2 base=$3 next=$3 args=()
  while read -r name size vma; do
    size=$((16#$size)) vma=$((16#$vma))
    ((size > 0)) || continue
    if ((vma != 0)); then
      args+=("$name=$(printf '0x%x' $((base + vma)))")
    else
      args+=("$name=$(printf '0x%x' "$next")")
      next=$(((next + size + 0x1ff) & ~0xff))
    fi
  done < <(objdump -h -w "$obj" | awk '$1 ~ /^[0-9]+$/ && /ALLOC/ { print $2, $3, $4 }')
  "$kelodbg" set-addr "$store" 0x10 "${args[@]}" >/dev/null
}

# seed NAME BASE COMPILER FLAGS... SOURCE: one entry compiled from SOURCE.
seed() {
  local name=$1 base=$2
  shift 2
  "$@" -O2 -c "-fdebug-prefix-map=$work=/src" -o "$name.o"
  "$kelodbg" create "$out/$name.kdbg" "0x10=$name.o" >/dev/null
  record "$out/$name.kdbg" "$name.o" "$base"
}

seed c_gcc_dwarf4 0x80001000 gcc -g -gdwarf-4 mod.c
seed c_gcc_dwarf5_gz 0x80001000 gcc -g -gdwarf-5 -gz mod.c
seed c_clang_dwarf5 0x80001000 clang -g -gdwarf-5 mod.c
seed c_gcc_m32_dwarf5 0x80001000 gcc -m32 -g -gdwarf-5 mod.c
seed cpp_gcc_dwarf4 0x80001000 g++ -g -gdwarf-4 mod.cpp
seed cpp_gcc_dwarf5 0x80001000 g++ -g -gdwarf-5 mod.cpp
seed cpp_gcc_dwarf5_gz 0x80001000 g++ -g -gdwarf-5 -gz mod.cpp
seed cpp_clang_dwarf4_gz 0x80001000 clang++ -g -gdwarf-4 -gz mod.cpp
seed cpp_clang_dwarf5 0x80001000 clang++ -g -gdwarf-5 mod.cpp
seed cpp_gcc_m32_dwarf4 0x80001000 g++ -m32 -g -gdwarf-4 mod.cpp

# A linked shared object, stored whole, its sections shifted together.
g++ -g -O2 -shared -fPIC -nostdlib "-fdebug-prefix-map=$work=/src" mod.cpp -o mod.so
"$kelodbg" create "$out/shared_gcc.kdbg" 0x10=mod.so >/dev/null
record "$out/shared_gcc.kdbg" mod.so 0x40000000

# Two entries whose sections overlap: the C++ object's .text starts inside
# the C object's.
gcc -g -O2 -c "-fdebug-prefix-map=$work=/src" mod.c -o a.o
g++ -g -O2 -c "-fdebug-prefix-map=$work=/src" mod.cpp -o b.o
"$kelodbg" create "$out/overlap_two.kdbg" 0x10=a.o 0x20=b.o >/dev/null
"$kelodbg" set-addr "$out/overlap_two.kdbg" 0x10 .text=0x80001000 .rodata=0x80002000 .data=0x80003000 .bss=0x80003100 >/dev/null
"$kelodbg" set-addr "$out/overlap_two.kdbg" 0x20 .text=0x80001010 .rodata=0x80002000 .data=0x80003004 .bss=0x80003104 >/dev/null

bash "$root/bench/hostile_stores.sh" --small --keep "$out" "$build" >/dev/null
ls -l "$out"
