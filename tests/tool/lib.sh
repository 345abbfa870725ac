# Shared by the kelodbg test scripts; sourced, not run. Expects $kelodbg and
# $data (the folder of the test ELF objects). Each script works in a fresh
# temporary folder holding copies of main.o, util.o and extra.o.
set -uo pipefail
export LC_ALL=C # byte lengths, and byte-wise patterns

work=$(mktemp -d "${TMPDIR:-/tmp}/kelodbg-test.XXXXXX")
trap 'chmod -R u+w "$work"; rm -rf "$work"' EXIT
cd "$work" || exit 1
[[ -f $data/main.o ]] && cp "$data/main.o" "$data/util.o" "$data/extra.o" .

failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

# expect CODE PATTERN -- COMMAND...: runs COMMAND, checks its exit code and
# that stderr matches the extended regular expression PATTERN ('' for none).
expect() {
  local code=$1 pattern=$2
  shift 3
  "$@" >out.txt 2>err.txt
  local got=$?
  [[ $got == "$code" ]] || fail "'$*' exited with $got, expected $code; stderr: $(cat err.txt)"
  if [[ -n $pattern ]]; then
    grep -Eq -- "$pattern" err.txt || fail "'$*': stderr '$(cat err.txt)' does not match '$pattern'"
  fi
}

same_file() { cmp -s "$1" "$2" || fail "$3: $1 changed"; }

# Little-endian unsigned integer of $2 bytes, as raw bytes on stdout.
le() {
  local value=$1 n=$2 i escaped=
  for ((i = 0; i < n; i++)); do
    escaped+=$(printf '\\x%02x' $(((value >> (8 * i)) & 255)))
  done
  printf "$escaped"
}

header() { printf '\x80KELODBG'; printf "$1"; }

size_of() { stat -c %s "$1"; }

# game.kdbg: three entries with a few addresses.
make_game() {
  "$kelodbg" create game.kdbg 0x00011234=main.o 7=util.o &&
    "$kelodbg" add game.kdbg 0x20=extra.o &&
    "$kelodbg" set-addr game.kdbg 0x00011234 .text=0x80001000 .constant=0x2000 &&
    "$kelodbg" set-addr game.kdbg 7 .kelo.overlay 9
}

# Runs the function test_$1 and reports.
run_group() {
  if ! declare -F "test_$1" >/dev/null; then
    echo "unknown group '$1'" >&2
    exit 2
  fi
  "test_$1"
  if ((failures > 0)); then
    echo "$failures check(s) failed in group $1" >&2
    exit 1
  fi
  echo "group $1 passed"
}
