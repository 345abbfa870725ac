#!/usr/bin/env bash
# Load benchmark of `kelodbg serve` over loopback HTTP: throughput and
# latency of symbolize requests under concurrent keep-alive clients, the
# server's peak memory, the same work done by one `kelodbg addr2line`
# process per batch, and failed requests while the store is replaced under
# load.
#
# Usage: bench/serve_load.sh [--quick] [BUILD_DIR]
#   BUILD_DIR (default build/): a build with the tool
#   (BUILD_DIR/tools/kelodbg/kelodbg) and its serve command.
#
# The store: the GoogleTest program of BUILD_DIR/googletest-objects/g++
# (bench/googletest_program.sh; objects.txt, prog.map and the objects) when
# it is there, else examples/crash compiled with ${CXX:-c++} -g -O2. Its
# sections are placed from the link map; 5,000 addresses are drawn (seeded)
# from its stored code sections, each section weighted by its size.
#
# Rows (the load client is bench/serve_load.cpp, compiled here; every batch
# holds 100 addresses, with inline frames and demangled names):
#   (a) 8 clients for 10 s (3 s with --quick) after two warming requests
#       (all 5,000 addresses):
#       addresses per second, p50 and p99 latency, failed requests
#   (b) 16 clients as long: p99 latency
#   (c) the server's peak resident memory (VmHWM) after (a) and (b)
#   (d) one `kelodbg addr2line --output-style=JSON -C` process per batch,
#       50 batches (10) one after the other: addresses per second, and (a)'s
#       figure over it
#   (e) 8 clients for 14 s (12 s) while `kelodbg set-addr` moves the .text of
#       the store's largest code section away and back, ten times: failed
#       requests, and how long the server took to answer from each new file
#       (a probe address in that section is asked for until its answer
#       changes)
# The goals are printed beside the figures; the exit status is 0 unless a
# step fails (the server does not start, dies, or does not stop cleanly on
# SIGTERM; a tool or the load client fails), whatever the figures.
set -euo pipefail
export LC_ALL=C

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
quick=0
if [[ ${1:-} == --quick ]]; then
  quick=1
  shift
fi
build=$(cd "${1:-$root/build}" && pwd)
kelodbg=$build/tools/kelodbg/kelodbg
[[ -x $kelodbg ]] || { echo "missing $kelodbg: build the tool first" >&2; exit 1; }
cxx=${CXX:-c++}
if ((quick)); then
  load_seconds=3 batches=10 replace_seconds=12
else
  load_seconds=10 batches=50 replace_seconds=14
fi
replacements=10

work=$(mktemp -d "${TMPDIR:-/tmp}/serve-load.XXXXXX")
server=
load=
cleanup() {
  local pid
  for pid in $server $load; do
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT
cd "$work"

die() {
  echo "serve_load.sh: $*" >&2
  exit 1
}
now_ms() { echo $(($(date +%s%N) / 1000000)); }

"$cxx" -std=c++17 -O2 -pthread -o serve_load "$root/bench/serve_load.cpp" || die "cannot compile the load client"

# The store, in a folder of its own that the server serves.
mkdir stores
objects=$build/googletest-objects/g++
if [[ -f $objects/objects.txt && -f $objects/prog.map ]]; then
  program="GoogleTest ($(grep -c . "$objects/objects.txt") objects)"
  entries=()
  n=0
  while read -r object; do
    if [[ -n $object ]]; then entries+=("$((++n))=$object"); fi
  done <"$objects/objects.txt"
  (cd "$objects" && "$kelodbg" create "$work/stores/prog.kdbg" "${entries[@]}" &&
    "$kelodbg" place "$work/stores/prog.kdbg" --map prog.map) >store.log 2>&1 ||
    die "cannot make the store: $(tail -3 store.log)"
else
  program="examples/crash"
  mkdir crash
  (cd crash && cp "$root"/examples/crash/*.cpp "$root"/examples/crash/*.h . &&
    "$cxx" -std=c++17 -g -O2 -c stats.cpp report.cpp main.cpp &&
    "$cxx" -o crash stats.o report.o main.o -Wl,-Map=crash.map &&
    "$kelodbg" create "$work/stores/prog.kdbg" 1=main.o 2=stats.o 3=report.o &&
    "$kelodbg" place "$work/stores/prog.kdbg" --map crash.map) >store.log 2>&1 ||
    die "cannot make the store: $(tail -3 store.log)"
fi
store=$work/stores/prog.kdbg
store_bytes=$(stat -c %s "$store")

# Code sections as decimal START END ENTRY SECTION; addresses drawn from
# them, each section weighted by its size.
"$kelodbg" map "$store" 2>/dev/null |
  awk 'NR > 1 && ($4 == ".text" || $4 ~ /^\.text\./) { print $1, $2, $3, $4 }' |
  while read -r start end entry section; do echo "$((start)) $((end)) $entry $section"; done >code.txt
[[ -s code.txt ]] || die "the store has no placed code sections"
awk -v n=5000 'BEGIN { srand(20261124) }
  { lo[NR] = $1; size[NR] = $2 - $1; total += size[NR]; count = NR }
  END {
    for (i = 0; i < n; i++) {
      r = int(rand() * total)
      for (s = 1; r >= size[s]; s++) r -= size[s]
      printf "0x%x\n", lo[s] + r
    }
  }' code.txt >addresses.txt

# start_server: the server on any free port; sets $server and $port.
start_server() {
  # The log exists before the server writes to it, so that reading it
  # never races the redirection.
  : >server.log
  "$kelodbg" serve --listen 127.0.0.1:0 stores 2>>server.log &
  server=$!
  local i
  for ((i = 0; i < 200; i++)); do
    port=$(sed -n 's/.*listening on 127\.0\.0\.1:\([0-9]*\),.*/\1/p' server.log)
    [[ -n $port ]] && return 0
    kill -0 "$server" 2>/dev/null || break
    sleep 0.05
  done
  die "the server did not start: $(tail -3 server.log)"
}

server_alive() { kill -0 "$server" 2>/dev/null || die "the server died: $(tail -5 server.log)"; }

# symbolize JSON: the answer's body on standard output; fails unless 200.
symbolize() {
  local status
  status=$(curl -s --max-time 10 -o answer.json -w '%{http_code}' -X POST -H 'Content-Type: application/json' \
    --data-binary "$1" "http://127.0.0.1:$port/v1/symbolize") || return 1
  [[ $status == 200 ]] || return 1
  cat answer.json
}

batch_json() {
  awk 'BEGIN { printf "{\"store\":\"prog\",\"addresses\":[" }
    { printf "%s\"%s\"", (NR > 1 ? "," : ""), $1 }
    END { printf "],\"inline\":true,\"demangle\":true}" }'
}

# run_load CLIENTS SECONDS: the load client's figures into load-CLIENTS.txt.
run_load() {
  # In the background, so that the cleanup can end it.
  ./serve_load 127.0.0.1 "$port" prog addresses.txt --clients "$1" --batch 100 --seconds "$2" >"load-$1.txt" &
  load=$!
  wait "$load" || die "the load client failed"
  load=
  grep -q '^requests=' "load-$1.txt" || die "the load client printed no figures"
}

# figure FILE KEY: one value of the load client's line.
figure() { tr ' ' '\n' <"$1" | sed -n "s/^$2=//p"; }

start_server
# Warming: requests for every address the clients draw from, two at once
# (a store looks up two requests' addresses in parallel, each with its own
# decoded debug information), so that the timed runs find what they need
# decoded.
batch_json <addresses.txt >warm.json
warm() {
  [[ $(curl -s --max-time 60 -o /dev/null -w '%{http_code}' -X POST -H 'Content-Type: application/json'     --data-binary @warm.json "http://127.0.0.1:$port/v1/symbolize") == 200 ]]
}
warm &
warming=$!
warm || die "the warming request failed: $(tail -3 server.log)"
wait "$warming" || die "the warming request failed: $(tail -3 server.log)"

run_load 8 "$load_seconds"
server_alive
run_load 16 "$load_seconds"
server_alive
hwm_kb=$(awk '/^VmHWM:/ { print $2 }' "/proc/$server/status")

# (d) One process per batch of 100, each reading its addresses from
# standard input, one after the other.
split -l 100 -d -a 4 addresses.txt batch.
start=$(now_ms)
for ((i = 0; i < batches; i++)); do
  file=$(printf 'batch.%04d' "$i")
  timeout 60 "$kelodbg" addr2line --output-style=JSON -C "$store" <"$file" >a2l.json 2>a2l.log ||
    die "kelodbg addr2line failed: $(tail -3 a2l.log)"
  [[ $(grep -c '^{"Address"' a2l.json) == 100 ]] || die "kelodbg addr2line answered $(wc -l <a2l.json) lines of 100"
done
process_ms=$(($(now_ms) - start))

# (e) Replacing the store under load. The largest code section moves past
# every placed section and back; a probe address in it is answered from
# that section only while it is in place.
read -r text_start text_end text_entry text_section < <(sort -k1,1n code.txt | awk '
  $4 == ".text" && $2 - $1 > best { best = $2 - $1; line = $0 } END { print line }')
[[ -n ${text_entry:-} ]] || read -r text_start text_end text_entry text_section < <(head -1 code.txt)
highest=$("$kelodbg" map "$store" 2>/dev/null | awk 'NR > 1 { print $2 }' | while read -r end; do echo $((end)); done |
  sort -n | tail -1)
moved=$(printf '0x%x' $(((highest + 0x1000000) & ~0xfff)))
home=$(printf '0x%x' "$text_start")
probe=$(printf '0x%x' $((text_start + (text_end - text_start) / 2)))
# probe: "home" while the probe address is answered from the section,
# "moved" while not, "error" when the request fails.
probe() {
  local answer
  answer=$(symbolize "{\"store\":\"prog\",\"addresses\":[\"$probe\"]}") || { echo error; return; }
  if [[ $answer == *"\"Entry\":\"$text_entry\",\"Section\":\"$text_section\""* ]]; then echo home; else echo moved; fi
}
[[ $(probe) == home ]] || die "the probe address $probe is not answered from $text_entry $text_section"

./serve_load 127.0.0.1 "$port" prog addresses.txt --clients 8 --batch 100 --seconds "$replace_seconds" >load-replace.txt &
load=$!
start=$(now_ms)
pickup_max=0 pickup_sum=0 picked=0 under_load=0
for ((i = 1; i <= replacements; i++)); do
  # Spread the replacements over the run.
  target=$((start + i * replace_seconds * 1000 / (replacements + 2)))
  while (($(now_ms) < target)); do sleep 0.05; done
  if ((i % 2)); then to=$moved want=moved; else to=$home want=home; fi
  "$kelodbg" set-addr "$store" "$text_entry" "$text_section=$to" >>set-addr.log 2>&1 ||
    die "kelodbg set-addr failed: $(tail -3 set-addr.log)"
  changed=$(now_ms)
  if kill -0 "$load" 2>/dev/null; then under_load=$((under_load + 1)); fi
  # Waits up to 5 s for the answer to follow the file.
  while (($(now_ms) - changed < 5000)); do
    if [[ $(probe) == "$want" ]]; then
      took=$(($(now_ms) - changed))
      picked=$((picked + 1)) pickup_sum=$((pickup_sum + took))
      if ((took > pickup_max)); then pickup_max=$took; fi
      break
    fi
    sleep 0.02
  done
done
wait "$load" || die "the load client failed"
load=
grep -q '^requests=' load-replace.txt || die "the load client printed no figures"
server_alive
hwm_after_kb=$(awk '/^VmHWM:/ { print $2 }' "/proc/$server/status")
rss_after_kb=$(awk '/^VmRSS:/ { print $2 }' "/proc/$server/status")

# A graceful stop: SIGTERM, then exit 0 within 10 s.
kill -TERM "$server"
for ((i = 0; i < 200; i++)); do
  kill -0 "$server" 2>/dev/null || break
  sleep 0.05
done
kill -0 "$server" 2>/dev/null && die "the server did not exit within 10 s of SIGTERM"
stopped=0
wait "$server" || stopped=$?
server=
((stopped == 0)) || die "the server exited with $stopped after SIGTERM: $(tail -3 server.log)"

# The table.
a_rate=$(figure load-8.txt addresses_per_second)
process_rate=$(awk -v n=$((batches * 100)) -v ms="$process_ms" 'BEGIN { printf "%.0f", n / (ms / 1000) }')
ratio=$(awk -v a="$a_rate" -v p="$process_rate" 'BEGIN { printf "%.1f", (p > 0 ? a / p : 0) }')
b_p99=$(figure load-16.txt p99_ms)
e_failed=$(figure load-replace.txt failed)
verdict() { awk -v v="$1" -v g="$3" -v op="$2" 'BEGIN {
  ok = op == ">=" ? v + 0 >= g + 0 : op == "<=" ? v + 0 <= g + 0 : v + 0 == g + 0
  print ok ? "met" : "MISSED" }'; }
row() { printf '%-46s %-24s %-14s %s\n' "$@"; }

echo "kelodbg serve under load: $program, store of $((store_bytes / 1024)) KiB," \
  "$(wc -l <code.txt) code sections, 5000 addresses; $(nproc) processors"
row "figure" "measured" "goal" ""
row "(a) 8 clients, batches of 100: addresses/s" "$a_rate" ">= 200000" "$(verdict "$a_rate" ">=" 200000)"
row "    latency p50 / p99" "$(figure load-8.txt p50_ms) / $(figure load-8.txt p99_ms) ms" "" ""
row "    requests / failed" "$(figure load-8.txt requests) / $(figure load-8.txt failed)" "" ""
row "(b) 16 clients, batches of 100: p99" "$b_p99 ms" "<= 20 ms" "$(verdict "$b_p99" "<=" 20)"
row "    addresses/s, p50, failed" "$(figure load-16.txt addresses_per_second), $(figure load-16.txt p50_ms) ms, $(figure load-16.txt failed)" "" ""
row "(c) server peak RSS (VmHWM)" "$((hwm_kb / 1024)) MiB" "" ""
row "(d) one addr2line process per batch" "$process_rate addresses/s" "" ""
row "    server (a) / process per batch" "${ratio}x" ">= 20x" "$(verdict "$ratio" ">=" 20)"
row "(e) failed while replaced $replacements times" "$e_failed of $(figure load-replace.txt requests)" "0" "$(verdict "$e_failed" "==" 0)"
row "    replacements under load / picked up" "$under_load / $picked of $replacements" "" ""
row "    time to answer from a new file: mean/max" "$((picked ? pickup_sum / picked : 0)) / $pickup_max ms" "" ""
row "    addresses/s while replaced" "$(figure load-replace.txt addresses_per_second)" "" ""
row "    server RSS after replacements: peak/now" "$((hwm_after_kb / 1024)) / $((rss_after_kb / 1024)) MiB" "" ""
row "server exit status after SIGTERM" "$stopped" "" ""
