#!/usr/bin/env bash
# kelodbg serve, over HTTP on loopback, one group of checks at a time.
#
# Usage: serve_test.sh KELODBG DATA_DIR SHARED_OBJECT GROUP
#   DATA_DIR holds main.o, util.o and extra.o; SHARED_OBJECT is a linked
#   file with a GNU build id.
kelodbg=$1 data=$2 shared=$3 group=$4
source "$(dirname "$0")/../tool/lib.sh"

# Starts the server on DIR (port 0: any) with the options given; sets
# $port and $server. The server logs to server.log.
start() {
  local dir=$1
  shift
  "$kelodbg" serve --listen 127.0.0.1:0 "$@" "$dir" 2>server.log &
  server=$!
  local i
  for ((i = 0; i < 100; i++)); do
    port=$(sed -n 's/.*listening on 127\.0\.0\.1:\([0-9]*\),.*/\1/p' server.log)
    [[ -n $port ]] && return 0
    sleep 0.05
  done
  fail "the server did not start: $(cat server.log)"
  return 1
}

stop() {
  kill -TERM "$server" 2>/dev/null
  wait "$server"
  local status=$?
  [[ $status == 0 ]] || fail "the server exited with $status after SIGTERM: $(tail -3 server.log)"
}

# get PATH [CURL-ARGS...]: the body in body.txt, the status in $status.
get() {
  local path=$1
  shift
  status=$(curl -s -o body.txt -w '%{http_code}' "$@" "http://127.0.0.1:$port$path")
}

symbolize() { get /v1/symbolize -X POST -H 'Content-Type: application/json' --data-binary "$1"; }

make_stores() {
  mkdir -p stores
  "$kelodbg" create stores/game.kdbg 1=main.o 2=util.o 3=extra.o || fail "create game"
  "$kelodbg" set-addr stores/game.kdbg 1 .text=0x1000 || fail "set-addr"
  "$kelodbg" set-addr stores/game.kdbg 2 .text=0x2000 .rodata=0x3000 || fail "set-addr"
  "$kelodbg" create stores/lib.kdbg 7="$shared" || fail "create lib"
}

test_endpoints() {
  make_stores
  start stores || return
  get /health
  [[ $status == 200 && $(cat body.txt) == *'"stores":2'* ]] || fail "health: $status $(cat body.txt)"
  get /v1/stores
  grep -q '"name":"game","version":"1.1.2","entries":3' body.txt && grep -q '"name":"lib"' body.txt ||
    fail "stores: $(cat body.txt)"

  # The same frames as addr2line's JSON, in order; an address in no section
  # has none.
  symbolize '{"store": "game", "addresses": ["0x1004", "0x2003", "0x9999", 4100], "inline": true, "demangle": true}'
  [[ $status == 200 ]] || fail "symbolize: $status $(cat body.txt)"
  "$kelodbg" addr2line --output-style=JSON -C stores/game.kdbg 0x1004 0x2003 >a2l.txt
  local expected
  expected=$(sed 's/"ModuleName":"stores\/game.kdbg"/"ModuleName":"game"/g; s/^\[//; s/\]$//' a2l.txt)
  [[ $(cat body.txt) == '{"store":"game","version":"1.1.2","results":['"$expected"',{"Address":"0x9999","ModuleName":"game","Symbol":[]},{"Address":"0x1004",'* ]] ||
    fail "symbolize answers differ from addr2line's:"$'\n'"$(cat body.txt)"$'\n'"$expected"

  # An entry's bytes are the stored ELF file's.
  get /v1/stores/game/entries/2
  [[ $status == 200 ]] && cmp -s body.txt util.o || fail "entries/2: $status"
  get /v1/stores/game/entries/1:0x00000003
  cmp -s body.txt extra.o || fail "entries/1:0x00000003"
  get /v1/stores/game/entries/9
  [[ $status == 404 ]] || fail "a missing entry: $status"

  # debuginfod's protocol, as its own client speaks it.
  local id
  id=$(readelf -n "$shared" | sed -n 's/.*Build ID: \([0-9a-f]*\).*/\1/p')
  get "/buildid/$id/debuginfo"
  [[ $status == 200 ]] && cmp -s body.txt "$shared" || fail "buildid: $status"
  if command -v debuginfod-find >/dev/null; then
    local found
    found=$(DEBUGINFOD_URLS="http://127.0.0.1:$port" DEBUGINFOD_CACHE_PATH=$PWD/cache debuginfod-find debuginfo "$id")
    cmp -s "$found" "$shared" || fail "debuginfod-find fetched '$found'"
  fi
  get /buildid/00112233/debuginfo
  [[ $status == 404 ]] || fail "an unknown build id: $status"

  get /metrics
  grep -q '^kelodbg_requests_total{endpoint="symbolize",status="200"} 1$' body.txt &&
    grep -q '^kelodbg_addresses_total 4$' body.txt && grep -q '^kelodbg_stores_open 2$' body.txt &&
    grep -q '^kelodbg_request_seconds_bucket{le="+Inf"}' body.txt || fail "metrics: $(cat body.txt)"
  stop
}

test_clients() {
  make_stores
  start stores --max-body 2K --max-addresses 3 --timeout 1 || return
  local body
  for body in '{bad' '[1]' '{"store": 1, "addresses": []}' '{"store": "game"}' \
    '{"store": "game", "addresses": ["12"]}' '{"store": "game", "addresses": [-1]}' \
    '{"store": "game", "addresses": [], "inline": "yes"}' '{"store": "game", "addresses": [], "extra": 1}' \
    "$(printf '[%.0s' {1..100})"; do
    symbolize "$body"
    [[ $status == 400 && $(cat body.txt) == *'"status":400'* ]] || fail "'$body': $status $(cat body.txt)"
  done
  symbolize '{"store": "game", "addresses": ["0x1", "0x2", "0x3", "0x4"]}'
  [[ $status == 413 ]] || fail "too many addresses: $status"
  symbolize "{\"store\": \"game\", \"addresses\": [], \"x\": \"$(head -c 3000 /dev/zero | tr '\0' a)\"}"
  [[ $status == 413 ]] || fail "too large a body: $status"
  local name
  for name in nothing ../stores/game .game game.kdbg '' 'game/x'; do
    symbolize "{\"store\": \"$name\", \"addresses\": []}"
    [[ $status == 404 ]] || fail "store '$name': $status"
  done
  for path in /v1/stores/..%2Fstores%2Fgame/entries/1 /v1/stores/%67ame/entries/1 /v1/stores/game/entries/x /nothing; do
    get "$path"
    [[ $status == 404 ]] || fail "$path: $status"
  done
  get /v1/symbolize
  [[ $status == 405 ]] || fail "GET /v1/symbolize: $status"
  get /v1/stores -X DELETE
  [[ $status == 405 ]] || fail "DELETE /v1/stores: $status"

  # A client that sends half a request and waits is cut off.
  exec 3<>"/dev/tcp/127.0.0.1/$port"
  printf 'POST /v1/symbolize HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\n{"st' >&3
  local start=$SECONDS
  timeout 10 cat <&3 >/dev/null
  ((SECONDS - start < 5)) || fail "a slow client was not cut off"
  exec 3>&-
  get /health
  [[ $status == 200 ]] || fail "the server answers after a slow client: $status"
  stop
}

test_changes() {
  make_stores
  start stores || return
  symbolize '{"store": "game", "addresses": ["0x1004"]}'
  grep -q '"Entry":"1:0x00000001"' body.txt || fail "before: $(cat body.txt)"
  # Replaced as kelodbg replaces files: the new addresses are answered
  # within a second or so.
  "$kelodbg" set-addr stores/game.kdbg 1 .text=0x5000 || fail "set-addr"
  sleep 1.5
  symbolize '{"store": "game", "addresses": ["0x5004", "0x1004"]}'
  grep -q '"Address":"0x5004","ModuleName":"game","Symbol":\[{' body.txt &&
    grep -q '"Address":"0x1004","ModuleName":"game","Symbol":\[\]' body.txt || fail "after a change: $(cat body.txt)"
  # A new file appears, a removed one goes, a damaged one is refused with
  # one line while the others keep serving; SIGHUP looks at once.
  cp stores/game.kdbg stores/copy.kdbg
  rm stores/lib.kdbg
  printf 'not a store' >stores/bad.kdbg
  kill -HUP "$server"
  sleep 0.5
  get /v1/stores
  grep -q '"name":"copy"' body.txt && ! grep -q '"name":"lib"' body.txt && ! grep -q '"name":"bad"' body.txt ||
    fail "stores after changes: $(cat body.txt)"
  [[ $(grep -c 'store bad: refused' server.log) == 1 ]] || fail "the damaged file: $(cat server.log)"
  symbolize '{"store": "lib", "addresses": []}'
  [[ $status == 404 ]] || fail "a removed store: $status"
  symbolize '{"store": "copy", "addresses": ["0x5004"]}'
  [[ $status == 200 ]] || fail "a new store: $status"
  sleep 1.2
  [[ $(grep -c 'store bad: refused' server.log) == 1 ]] || fail "a damaged file is told of once"

  # Requests in flight while the store is replaced again and again.
  local i failed=0
  for ((i = 0; i < 20; i++)); do
    "$kelodbg" set-addr stores/game.kdbg 1 .text=$((0x5000 + (i % 2) * 0x1000)) &
    symbolize '{"store": "game", "addresses": ["0x5004", "0x6004"]}'
    [[ $status == 200 ]] || failed=$((failed + 1))
    wait $!
  done
  ((failed == 0)) || fail "$failed requests failed while the store was replaced"
  stop
}

test_stop() {
  make_stores
  start stores || return
  # A request in flight when SIGTERM comes is answered.
  symbolize '{"store": "game", "addresses": ["0x1004"]}' &
  local client=$!
  kill -TERM "$server"
  wait "$client"
  wait "$server"
  [[ $? == 0 ]] || fail "SIGTERM: exit $?"
  grep -q 'stopped' server.log || fail "no 'stopped' in the log"
  expect 2 'ADDRESS:PORT expected' -- "$kelodbg" serve --listen nowhere stores
  expect 3 'not a folder' -- "$kelodbg" serve --listen 127.0.0.1:0 missing
}

run_group "$group"
