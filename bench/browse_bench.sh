#!/usr/bin/env bash
# Reading mail at 10,000 and 100,000 messages: import speed of a generated
# mbox (larkpostctl import), then the browsing calls in process
# (browse_bench): medians and 95th percentiles.
#
#   bench/browse_bench.sh [ITERATIONS] [SIZES...]   (sizes default to 10000 100000)
set -euo pipefail
cd "$(dirname "$0")/.."
iterations="${1:-50}"
shift || true
sizes=(10000 100000)
if [ $# -gt 0 ]; then sizes=("$@"); fi

scripts/setup.sh
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DLARKPOST_TESTS=OFF >/dev/null
cmake --build build/bench -j"$(nproc)" >/dev/null
bin="$PWD/build/bench/bin"

for size in "${sizes[@]}"; do
  root="$(mktemp -d /tmp/larkpost-browse-XXXXXX)"
  "$bin/larkpostctl" --root "$root" user add bench --password bench >/dev/null
  "$bin/mailgen" "$size" >"$root/mail.mbox"
  start=$(date +%s.%N)
  stored=$("$bin/larkpostctl" --root "$root" import bench "$root/mail.mbox")
  end=$(date +%s.%N)
  rate=$(awk -v n="$stored" -v a="$start" -v b="$end" 'BEGIN { printf "%.0f", n / (b - a) }')
  echo "== $size messages: imported $stored in $(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.1f", b - a }') s, $rate messages/s"
  rm -f "$root/mail.mbox"
  "$bin/browse_bench" "$root" bench "$iterations"
  rm -rf "$root"
done
