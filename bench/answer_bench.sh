#!/usr/bin/env bash
# Delivery with forwarding and the vacation reply on, against plain
# delivery: one message through larkpostctl deliver into a store of 10,000
# messages, the relay an SMTP sink on loopback. Each vacation delivery comes
# from a new sender, so that every one is answered. Median and 95th
# percentile per delivery, and each ratio of medians to plain delivery.
#
#   bench/answer_bench.sh [DELIVERIES] [STORE_SIZE]   (defaults 100 10000)
set -euo pipefail
cd "$(dirname "$0")/.."
deliveries="${1:-100}"
size="${2:-10000}"

scripts/setup.sh
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DLARKPOST_TESTS=OFF >/dev/null
cmake --build build/bench -j"$(nproc)" >/dev/null
bin="$PWD/build/bench/bin"

root="$(mktemp -d /tmp/larkpost-answer-XXXXXX)"
coproc SINK { "$bin/relay_sink" 2>"$root/relayed"; }
trap 'exec {SINK[1]}>&-; wait; rm -rf "$root"' EXIT
read -r port <&"${SINK[0]}"
mkdir -p "$root/etc"
printf '{"relay": {"host": "127.0.0.1", "port": %s}}\n' "$port" >"$root/etc/larkpost.json"
"$bin/larkpostctl" --root "$root" user add bench --password bench >/dev/null
"$bin/mailgen" "$size" >"$root/mail.mbox"
"$bin/larkpostctl" --root "$root" import bench "$root/mail.mbox" >/dev/null
rm -f "$root/mail.mbox"
db="$(ls "$root"/mail/*/larkpost.db)"

# Milliseconds of each of $deliveries deliveries, one a line; the median
# and the 95th percentile.
run() {
  for i in $(seq "$deliveries"); do
    printf 'From: Carol %s <carol%s@example.org>\nTo: bench@localdomain\nSubject: Quarterly numbers\nMessage-ID: <%s.%s@bench>\n\nThe budget for next quarter is attached in the usual place.\n' \
      "$i" "$i-$RANDOM" "$i" "$RANDOM" >"$root/message.eml"
    start=$(date +%s%N)
    "$bin/larkpostctl" --root "$root" deliver bench <"$root/message.eml" >/dev/null
    end=$(date +%s%N)
    echo $(((end - start) / 1000))
  done | sort -n | awk '{ v[NR] = $1 } END {
    printf "%.2f %.2f\n", v[int((NR + 1) / 2)] / 1000, v[int(NR * 0.95 + 0.5)] / 1000 }'
}
rules() {
  sqlite3 "$db" "UPDATE forward_reply SET forward_enable = $1, forward_addr = 'away@example.net',
    keep_copy = $2, reply_enable = $3, message = 'Back on Monday.'"
}

report() {
  read -r median p95 < <(run)
  printf '== %-28s median %s ms, p95 %s ms' "$1" "$median" "$p95"
  if [ -n "${plain:-}" ]; then
    awk -v a="$plain" -v b="$median" 'BEGIN { printf ", %.2f x plain", b / a }'
  else
    plain="$median"
  fi
  echo
}

rules 0 0 0; report "plain"
rules 1 1 0; report "forward, copy kept"
rules 1 0 0; report "forward, no copy"
rules 0 0 1; report "vacation reply"
rules 1 1 1; report "forward (copy) and vacation"
