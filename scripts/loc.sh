#!/usr/bin/env bash
# Non-blank lines of what git tracks, by kind: product code (libraries, tool,
# examples, build files, scripts), tests, fuzzers and benchmarks; and the
# share of tests and fuzzers in all of it, which we keep at roughly a quarter
# to a third.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

files() {
  git ls-files -- '*.c' '*.cc' '*.cpp' '*.h' '*.hpp' '*.cmake' '*.in' 'CMakeLists.txt' '*.sh' | grep -E "$1" || true
}
count() { files "$1" | tr '\n' '\0' | xargs -0 -r cat | grep -cv '^[[:space:]]*$' || true; }

tests=$(count '^tests/')
fuzz=$(count '^fuzz/')
bench=$(count '^bench/')
product=$(count '^(src|include|elf|symbolize|tools|examples|scripts|cmake|CMakeLists)')
all=$((product + tests + fuzz + bench))

printf '%-8s %6s\n' product "$product" tests "$tests" fuzz "$fuzz" bench "$bench" total "$all"
printf 'tests and fuzzers: %d%% of all code\n' $((100 * (tests + fuzz) / all))
