#!/usr/bin/env bash
# POP3 fetching: larkpostctl fetch of COUNT messages of 20 KiB from the test
# POP3 server on loopback into a fresh store, with a quarter of COUNT first
# to show that the fetch's peak memory does not grow with the number of
# messages. Messages per second and peak resident set of the fetch.
#
#   bench/fetch_bench.sh [COUNT]   (default 1000)
set -euo pipefail
cd "$(dirname "$0")/.."
count="${1:-1000}"

scripts/setup.sh
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DLARKPOST_TESTS=OFF >/dev/null
cmake --build build/bench -j"$(nproc)" >/dev/null
bin="$PWD/build/bench/bin"
work="$(mktemp -d /tmp/larkpost-fetch-XXXXXX)"
trap 'rm -rf "$work"' EXIT
cc -O2 -Wall -o "$work/rss_wrap" bench/rss_wrap.c

# One fetch of $1 messages: "<messages/s> <peak KiB>".
run() {
  local n="$1" root="$work/root-$1"
  "$bin/larkpostctl" --root "$root" user add bench --password bench >/dev/null
  # The server serves while its standard input (a pipe we hold) is open.
  coproc SERVER { "$bin/pop3_bench_server" "$n" 20480; }
  local port
  read -r port <&"${SERVER[0]}"
  "$bin/larkpostctl" --root "$root" fetch bench >/dev/null  # makes the store: nothing to fetch yet
  sqlite3 "$root"/mail/*/larkpost.db "INSERT INTO pop3_account(mail, host_name, port, user_name,
    password) VALUES ('bench@example.net', '127.0.0.1', $port, 'user', 'secret');"
  local start end stored
  start=$(date +%s%N)
  stored=$("$work/rss_wrap" "$work/rss.log" "fetch-$n" "$bin/larkpostctl" larkpostctl \
    --root "$root" fetch bench)
  end=$(date +%s%N)
  exec {SERVER[1]}>&-
  wait "$SERVER_PID" 2>/dev/null || true
  [ "$stored" = "$n" ] || { echo "fetch stored $stored of $n" >&2; exit 1; }
  awk -v n="$n" -v ns=$((end - start)) -v kib="$(awk -v l="fetch-$n" '$1 == l { print $2 }' "$work/rss.log")" \
    'BEGIN { printf "%.0f %d\n", n / (ns / 1e9), kib }'
}

quarter=$((count / 4))
read -r rate_q peak_q < <(run "$quarter")
echo "== $quarter messages: ${rate_q} messages/s, peak ${peak_q} KiB"
read -r rate peak < <(run "$count")
echo "== $count messages: ${rate} messages/s, peak ${peak} KiB"
awk -v a="$peak_q" -v b="$peak" 'BEGIN { printf "== peak memory ratio (%s vs %s messages): %.2f\n", "'"$count"'", "'"$quarter"'", b / a }'
