#!/usr/bin/env bash
# Delivery with the user's filters: one message through larkpostctl deliver
# into a store of 10,000 messages, with no rule and with 50 rules (text,
# keyword and size conditions; one in ten matching, each adding a label and
# moving the message). Median and 95th percentile per delivery, and the
# ratio of the two medians.
#
#   bench/delivery_bench.sh [DELIVERIES] [STORE_SIZE]   (defaults 100 10000)
set -euo pipefail
cd "$(dirname "$0")/.."
deliveries="${1:-100}"
size="${2:-10000}"

scripts/setup.sh
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DLARKPOST_TESTS=OFF >/dev/null
cmake --build build/bench -j"$(nproc)" >/dev/null
bin="$PWD/build/bench/bin"

root="$(mktemp -d /tmp/larkpost-delivery-XXXXXX)"
trap 'rm -rf "$root"' EXIT
"$bin/larkpostctl" --root "$root" user add bench --password bench >/dev/null
"$bin/mailgen" "$size" >"$root/mail.mbox"
"$bin/larkpostctl" --root "$root" import bench "$root/mail.mbox" >/dev/null
rm -f "$root/mail.mbox"
db="$(ls "$root"/mail/*/larkpost.db)"
printf 'From: Carol Bench <carol@example.org>\nTo: bench@example.org\nSubject: Quarterly numbers\nMessage-ID: <%s@bench>\n\nThe budget for next quarter is attached in the usual place.\n' x \
  >"$root/message.eml"

# Milliseconds of each of $deliveries deliveries, one a line.
run() {
  for _ in $(seq "$deliveries"); do
    start=$(date +%s%N)
    "$bin/larkpostctl" --root "$root" deliver bench <"$root/message.eml" >/dev/null
    end=$(date +%s%N)
    echo $(((end - start) / 1000))
  done | sort -n | awk '{ v[NR] = $1 } END {
    printf "%.2f %.2f\n", v[int((NR + 1) / 2)] / 1000, v[int(NR * 0.95 + 0.5)] / 1000 }'
}

read -r median0 p95_0 < <(run)
echo "== 0 rules:  median ${median0} ms, p95 ${p95_0} ms"

sqlite3 "$db" "INSERT INTO label(name, key, text_color, background_color) VALUES ('Bench', '\$labelbench', '#000', '#fff');"
for i in $(seq 1 50); do
  case $((i % 5)) in
    0) condition="[[2,\"sender$i@example.org\",false]]" ;;
    1) condition="[[4,\"project $i\",false],[3,\"team$i\",false]]" ;;
    2) condition="[[10,\"invoice$i\",false]]" ;;
    3) condition="[[7,\"$((1000000 + i))\",false],[2,\"carol\",false]]" ;;
    4) condition="[[2,\"carol\",true],[4,\"report $i\",false]]" ;;
  esac
  # One rule in ten matches the message.
  if [ $((i % 10)) -eq 0 ]; then condition='[[2,"carol",false],[10,"budget",false]]'; fi
  sqlite3 "$db" "INSERT INTO mail_filter(position, condition_set, action_set) VALUES ($i,
    '{\"condition\":$condition,\"match_any\":false}',
    '{\"action\":[[4,\"\$labelbench\"],[1,\"\"],[2,\"true\"]]}');"
done

read -r median50 p95_50 < <(run)
echo "== 50 rules: median ${median50} ms, p95 ${p95_50} ms"
awk -v a="$median0" -v b="$median50" 'BEGIN { printf "== ratio of medians: %.2f (target at most 1.5)\n", b / a }'
