#!/usr/bin/env bash
# kelodbg serve behind HAProxy: three instances over one folder of stores,
# balanced round robin with health checks on /health; one instance is
# stopped with SIGTERM in the middle of a load, and no request may fail.
#
# Usage: haproxy_test.sh KELODBG BENCH_DIR
#   BENCH_DIR holds serve_load.cpp, the load client, compiled here with
#   ${CXX:-c++}; the store is made from the sources of examples/crash next
#   to it. Exits 77 (skipped) when haproxy or curl is not installed.
#
# The graceful stop is what makes this work: the instance stops accepting,
# so HAProxy's next check gets no answer (within "timeout check") and the
# instance leaves the rotation, while the connections it already has are
# answered until they close. A request HAProxy sends it in between on a new
# connection waits unanswered until the instance exits, or finds an idle
# connection closed, and is retried on another instance (retry-on,
# redispatch).
set -u
export LC_ALL=C

if [[ $# -ne 2 ]]; then
  echo "usage: haproxy_test.sh KELODBG BENCH_DIR" >&2
  exit 2
fi
kelodbg=$(realpath "$1")
bench=$(realpath "$2")
examples=$(dirname "$bench")/examples/crash
cxx=${CXX:-c++}
haproxy=$(PATH=$PATH:/usr/sbin:/sbin command -v haproxy || true)
if [[ -z $haproxy ]]; then
  echo "haproxy is not installed: skipped"
  exit 77
fi
if ! command -v curl >/dev/null; then
  echo "curl is not installed: skipped"
  exit 77
fi

clients=4 load_seconds=6 stop_after=2

work=$(mktemp -d "${TMPDIR:-/tmp}/haproxy-test.XXXXXX")
pids=()
cleanup() {
  local pid
  for pid in "${pids[@]}"; do
    kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
  done
  rm -rf "$work"
}
trap cleanup EXIT
cd "$work" || exit 1
# forget PID: a process waited for, which the cleanup must leave alone (its
# number may be another process's by then).
forget() {
  local pid kept=()
  for pid in "${pids[@]}"; do
    [[ $pid == "$1" ]] || kept+=("$pid")
  done
  pids=("${kept[@]}")
}

failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}
# Gives up at once: what follows needs this step.
die() {
  echo "FAIL: $*" >&2
  exit 1
}
now_ms() { echo $(($(date +%s%N) / 1000000)); }

"$cxx" -std=c++17 -O2 -pthread -o serve_load "$bench/serve_load.cpp" || die "cannot compile the load client"

# The store: the crash example, placed from its link map.
mkdir crash stores
(cd crash && cp "$examples"/*.cpp "$examples"/*.h . &&
  "$cxx" -std=c++17 -g -O2 -c stats.cpp report.cpp main.cpp &&
  "$cxx" -o crash stats.o report.o main.o -Wl,-Map=crash.map &&
  "$kelodbg" create ../stores/crash.kdbg 1=main.o 2=stats.o 3=report.o &&
  "$kelodbg" place ../stores/crash.kdbg --map crash.map) >store.log 2>&1 ||
  die "cannot make the store: $(tail -3 store.log)"
# Addresses in its placed code, every byte of it once.
"$kelodbg" map stores/crash.kdbg 2>/dev/null |
  awk 'NR > 1 && ($4 == ".text" || $4 ~ /^\.text\./) { print $1, $2 }' |
  while read -r start end; do
    for ((a = start; a < end; a++)); do printf '0x%x\n' "$a"; done
  done >addresses.txt
[[ -s addresses.txt ]] || die "the store has no placed code"

# Three instances on ports of their own choosing; server$i.log is each
# one's log, ports[i] and servers[i] its port and process. A stopping
# instance exits once its connections are closed, and HAProxy keeps idle
# ones open to it, which the instance cuts off after --timeout seconds: a
# short one keeps the test short.
ports=() servers=()
for i in 1 2 3; do
  : >"server$i.log"
  "$kelodbg" serve --listen 127.0.0.1:0 --threads 2 --timeout 3 stores 2>>"server$i.log" &
  servers[i]=$!
  pids+=($!)
done
for i in 1 2 3; do
  for ((t = 0; t < 200; t++)); do
    ports[i]=$(sed -n 's/.*listening on 127\.0\.0\.1:\([0-9]*\),.*/\1/p' "server$i.log")
    [[ -n ${ports[i]} ]] && break
    kill -0 "${servers[i]}" 2>/dev/null || break
    sleep 0.05
  done
  [[ -n ${ports[i]} ]] || die "instance $i did not start: $(tail -3 "server$i.log")"
done

# HAProxy on a free port: one chosen at random, another when it cannot
# bind. Failed and retried requests are logged to haproxy.log.
write_config() {
  cat >haproxy.cfg <<EOF
global
  log stderr format raw local0 info
  maxconn 256

defaults
  mode http
  log global
  option httplog
  option dontlog-normal
  timeout connect 1s
  timeout client 5s
  timeout server 5s
  timeout http-keep-alive 5s
  timeout check 1s
  retries 3
  retry-on all-retryable-errors
  option redispatch 1

frontend symbolize
  bind 127.0.0.1:$1
  default_backend kelodbg

backend kelodbg
  balance roundrobin
  option httpchk GET /health
  http-check expect status 200
  default-server check inter 200ms fall 1 rise 1
  server s1 127.0.0.1:${ports[1]}
  server s2 127.0.0.1:${ports[2]}
  server s3 127.0.0.1:${ports[3]}
EOF
}
proxy='' proxy_port=''
for ((try = 0; try < 10; try++)); do
  [[ -z $proxy ]] || break
  port=$((20000 + RANDOM % 20000))
  write_config "$port"
  "$haproxy" -f haproxy.cfg -db >haproxy.log 2>&1 &
  pid=$!
  pids+=("$pid")
  for ((t = 0; t < 100; t++)); do
    kill -0 "$pid" 2>/dev/null || break
    if [[ $(curl -s --max-time 2 -o /dev/null -w '%{http_code}' "http://127.0.0.1:$port/health") == 200 ]]; then
      proxy=$pid proxy_port=$port
      break
    fi
    sleep 0.05
  done
  if [[ -z $proxy ]]; then
    kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
    forget "$pid"
  fi
done
[[ -n $proxy ]] || die "haproxy did not start: $(tail -5 haproxy.log)"
# Every instance answers through HAProxy before the load starts.
for ((t = 0; t < 100; t++)); do
  seen=0
  for i in 1 2 3; do
    if curl -s --max-time 2 "http://127.0.0.1:${ports[i]}/metrics" | grep -q 'endpoint="health",status="200"'; then
      seen=$((seen + 1))
    fi
  done
  ((seen == 3)) && break
  sleep 0.05
done
((seen == 3)) || die "HAProxy does not check every instance: $(tail -5 haproxy.log)"

# The load, and the stop of instance 2 in its middle.
./serve_load 127.0.0.1 "$proxy_port" crash addresses.txt --clients "$clients" --batch 20 --seconds "$load_seconds" \
  >load.txt 2>load.log &
load=$!
pids+=("$load")
start=$(now_ms)
while (($(now_ms) - start < stop_after * 1000)); do sleep 0.05; done
served_before_stop=$(curl -s --max-time 2 "http://127.0.0.1:${ports[2]}/metrics" |
  sed -n 's/^kelodbg_requests_total{endpoint="symbolize",status="200"} //p')
kill -TERM "${servers[2]}"
stop_ms=$(now_ms)
for ((t = 0; t < 200; t++)); do
  kill -0 "${servers[2]}" 2>/dev/null || break
  sleep 0.05
done
if kill -0 "${servers[2]}" 2>/dev/null; then
  fail "instance 2 did not exit within 10 s of SIGTERM"
else
  wait "${servers[2]}"
  status=$?
  forget "${servers[2]}"
  ((status == 0)) || fail "instance 2 exited with $status after SIGTERM: $(tail -3 server2.log)"
fi
stopped_in_ms=$(($(now_ms) - stop_ms))
wait "$load" || fail "the load client failed: $(cat load.log)"
forget "$load"

figures=$(cat load.txt)
figure() { tr ' ' '\n' <<<"$figures" | sed -n "s/^$1=//p"; }
requests=$(figure requests) failed=$(figure failed)
[[ -n $requests && -n $failed ]] || die "the load client printed no figures: $(cat load.txt load.log)"
echo "through haproxy, $clients clients, batches of 20, instance 2 of 3 stopped after ${stop_after} s" \
  "(it exited ${stopped_in_ms} ms after SIGTERM, having answered ${served_before_stop:-0} symbolize requests):"
echo "  requests=$requests failed=$failed addresses_per_second=$(figure addresses_per_second)" \
  "p50_ms=$(figure p50_ms) p99_ms=$(figure p99_ms) max_ms=$(figure max_ms) reconnects=$(figure reconnects)"

((requests > 100)) || fail "only $requests requests in ${load_seconds} s"
((failed == 0)) || fail "$failed requests failed; haproxy's log: $(tail -10 haproxy.log)"
# The stopped instance was in the rotation: HAProxy sent it requests.
((${served_before_stop:-0} > 0)) || fail "instance 2 answered no requests before its stop"
# The other two still answer through HAProxy.
status=$(curl -s --max-time 5 -o /dev/null -w '%{http_code}' "http://127.0.0.1:$proxy_port/health")
[[ $status == 200 ]] || fail "/health through haproxy after the stop: $status"

if ((failures)); then
  echo "haproxy test failed ($failures checks)"
  exit 1
fi
echo "haproxy test passed"
