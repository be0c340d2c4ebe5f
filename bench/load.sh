#!/usr/bin/env bash
# Load through lighttpd: CLIENTS concurrent clients for SECONDS on USERS users
# (thread lists, searches, reads, read/star/move/label changes, drafts
# written, changed and sent to a loopback relay, uploads and downloads) while
# RATE messages a second are delivered, imports, POP3 fetches (from a loopback
# server) and filter tasks run. Requests per second, median, 95th and 99th
# percentile per call and errors; then every acknowledged message must be
# stored exactly once and `larkpostctl check --all` must find nothing.
#
# --faults: every few seconds a request's process, the background service or
# (once) the preloaded host is killed with SIGKILL, or the disk is made full
# for a moment (a file size limit, as the fault tests do) during a delivery,
# an import, an upload, a send, a task and a fetch.
#
#   bench/load.sh [--faults] [CLIENTS] [SECONDS] [RATE] [USERS]   (16, 60, 50, 20)
#
# With LARKPOST_BIN set (the tests do), the programs there are used as they
# are; otherwise a release build under build/bench.
set -euo pipefail
cd "$(dirname "$0")/.."
faults=""
if [ "${1:-}" = --faults ]; then faults=--faults; shift; fi
clients="${1:-16}"
seconds="${2:-60}"
rate="${3:-50}"
users="${4:-20}"

if [ -n "${LARKPOST_BIN:-}" ]; then
  bin="$LARKPOST_BIN"
  pop3_count=20
else
  scripts/setup.sh
  cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DLARKPOST_TESTS=OFF >/dev/null
  cmake --build build/bench -j"$(nproc)" >/dev/null
  bin="$PWD/build/bench/bin"
  pop3_count=200
fi

work="$(mktemp -d /tmp/larkpost-load-XXXXXX)"
root="$work/root"
server=""
cleanup() {
  if [ -n "$server" ]; then kill -INT "$server" 2>/dev/null || true; fi
  if [ -n "${sink_fd:-}" ]; then exec {sink_fd}>&-; fi
  if [ -n "${pop3_fd:-}" ]; then exec {pop3_fd}>&-; fi
  # Should a process of the server outlive it with their pipes, they end here.
  for pid in ${sink_pid:-} ${pop3_pid:-}; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')

mkdir -p "$root/etc"
"$bin/larkpostctl" --root "$root" user add admin --password pw --admin >/dev/null
for i in $(seq "$users"); do
  "$bin/larkpostctl" --root "$root" user add "user$i" --password pw >/dev/null
done
if [ -x "$bin/mailgen" ]; then  # a mailbox to browse from the start
  "$bin/mailgen" 500 >"$work/seed.mbox"
  for i in $(seq "$users"); do
    "$bin/larkpostctl" --root "$root" import "user$i" "$work/seed.mbox" >/dev/null
  done
fi

# The relay and the POP3 server serve while their standard input (a pipe
# this script holds) is open; each prints its port first.
exec {sink_fd}> >(exec "$bin/relay_sink" >"$work/sink.port" 2>/dev/null)
sink_pid=$!
exec {pop3_fd}> >(exec "$bin/pop3_bench_server" "$pop3_count" 4096 >"$work/pop3.port" 2>/dev/null)
pop3_pid=$!
until [ -s "$work/sink.port" ] && [ -s "$work/pop3.port" ]; do sleep 0.05; done
read -r sink_port <"$work/sink.port"
read -r pop3_port <"$work/pop3.port"
printf '{"mail_server": {"smtp_enabled": "yes"}, "relay": {"host": "127.0.0.1", "port": %s}}\n' \
  "$sink_port" >"$root/etc/larkpost.json"

# A write past the file size limit fails instead of killing the writer (the
# disposition passes to every process the server starts).
(trap '' XFSZ; exec "$bin/larkpostctl" --root "$root" serve --listen "127.0.0.1:$port" \
  {sink_fd}>&- {pop3_fd}>&-) >"$work/serve.log" 2>&1 &
server=$!
for _ in $(seq 300); do
  if curl -s -o /dev/null "http://127.0.0.1:$port/" && [ -S "$root/run/core.sock" ]; then break; fi
  sleep 0.1
done

status=0
"$bin/load_driver" "$root" "$bin" "http://127.0.0.1:$port/webapi" "$server" "$pop3_port" \
  "$pop3_count" "$users" "$clients" "$seconds" "$rate" $faults {sink_fd}>&- {pop3_fd}>&- || status=1

kill -INT "$server"
wait "$server" 2>/dev/null || true
server=""
if ! "$bin/larkpostctl" --root "$root" check --all >"$work/check.txt"; then
  echo "check: findings"
  grep -v ': ok$' "$work/check.txt"
  status=1
else
  echo "check: $(grep -c ': ok$' "$work/check.txt") stores sound"
fi
exit "$status"
