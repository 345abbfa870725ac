#!/usr/bin/env bash
# The README's kelodbg sessions, run as they stand: each "$ " line is run in
# order and its output compared with the lines shown under it (numbers of
# three or more decimal digits, such as sizes, and run-time addresses are
# left out of the comparison). A command may fail only where the README shows its message
# (diff tells different files by exiting with 1).
# Then the README's exit-code table is compared with `kelodbg help`.
#
# Usage: readme_test.sh KELODBG SOURCE_DIR
kelodbg=$1 source=$2
data=$source/examples
source "$(dirname "$0")/lib.sh"
cp "$source"/examples/{main,util,extra}.c .
rm -f ./*.o
export PATH=$(dirname "$kelodbg"):$PATH

# The session under the heading $1 (the first console block after it).
session_of() {
  awk -v heading="$1" '$0 == heading { on = 1 } on && /^```console$/ { inside = 1; next } inside && /^```$/ { exit } inside' \
    "$source/README.md"
}

# Numbers of three or more decimal digits, and run-time addresses (nine or
# more hex digits, which change from run to run), are not compared; the
# folder the session runs in is shown as $home.
home=/home/me/crash
normalize() { sed -E -e "s|$PWD|$home|g" -e 's/0x[0-9a-f]{9,}/0xADDRESS/g' -e 's/(^|[^0-9a-fA-Fx])[0-9]{3,}/\1N/g'; }

check_command() {
  local command=$1 expected=$2 actual status
  actual=$(bash -c "$command" 2>&1)
  status=$?
  if [[ $status != 0 && $expected != *"kelodbg: "* && ! ($command == "kelodbg diff "* && $status == 1) ]]; then
    fail "'$command' exited with $status: $actual"
  fi
  # $(...) drops trailing newlines on both sides.
  if [[ $(normalize <<<"$actual") != "$(normalize <<<"$expected")" ]]; then
    fail "'$command' printed:"$'\n'"$actual"$'\n'"the README shows:"$'\n'"$expected"
  fi
}

# Runs each "$ " line of a session in order.
run_session() {
  local session=$1 command= expected= line
  count=0
  while IFS= read -r line; do
    if [[ $line == '$ '* ]]; then
      [[ -n $command ]] && check_command "$command" "$(printf '%s\n' "$expected")"
      command=${line#\$ } expected= count=$((count + 1))
    else
      expected+=${expected:+$'\n'}$line
    fi
  done <<<"$session"
  [[ -n $command ]] && check_command "$command" "$(printf '%s\n' "$expected")"
}

session=$(session_of "### A session")
[[ -n $session ]] || fail "no session in the README"
run_session "$session"
((count > 10)) || fail "only $count commands found in the README's session"
total=$count

# From a crash to readable frames: a C++ program of examples/crash, built
# with the sanitizer that reports the crash, run in a folder of its own.
if kelodbg help stack >/dev/null 2>&1; then
  session=$(session_of "### From a crash to a readable stack")
  [[ -n $session ]] || fail "no crash session in the README"
  mkdir crash && cd crash || exit 1
  cp "$source"/examples/crash/*.h "$source"/examples/crash/*.cpp .
  run_session "$session"
  ((count > 5)) || fail "only $count commands found in the README's crash session"
  total=$((total + count))
  cd .. || exit 1
fi

# The exit-code table.
readme_codes=$(awk '/^### Exit codes/ { on = 1; next } on && /^#/ { exit } on' "$source/README.md" |
  grep -E '^\| [0-9]+ \| ' | sed -E 's/^\| ([0-9]+) \| (.*) \|$/\1 \2/')
help_codes=$("$kelodbg" help | awk '/^Exit codes:/ { on = 1; next } on && NF' | sed -E 's/^ +//; s/  +/ /')
[[ $readme_codes == "$help_codes" ]] || fail "README exit codes differ from kelodbg help:"$'\n'"$(diff <(echo "$readme_codes") <(echo "$help_codes"))"

if ((failures > 0)); then
  echo "$failures check(s) failed" >&2
  exit 1
fi
echo "README examples passed ($total commands)"
