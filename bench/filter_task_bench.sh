#!/usr/bin/env bash
# A filter task over the generated mailbox (100,000 messages by default),
# through lighttpd with the core's background service: a rule that matches
# about a tenth of the mail (one correspondent, "from"), with "move_to" and
# "set_read". Reports the time to finish, messages examined per second, and
# the latency of "get_task_status" and of a thread-list page (25 threads of
# the inbox) asked while the task runs: medians and 95th percentiles.
#
#   bench/filter_task_bench.sh [SIZE]
set -euo pipefail
cd "$(dirname "$0")/.."
size="${1:-100000}"

scripts/setup.sh
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DLARKPOST_TESTS=OFF >/dev/null
cmake --build build/bench -j"$(nproc)" >/dev/null
bin="$PWD/build/bench/bin"

root="$(mktemp -d /tmp/larkpost-filter-XXXXXX)"
port=$((20000 + RANDOM % 20000))
server=""
cleanup() {
  if [ -n "$server" ]; then kill -INT "$server" 2>/dev/null || true; wait "$server" 2>/dev/null || true; fi
  rm -rf "$root"
}
trap cleanup EXIT

"$bin/larkpostctl" --root "$root" user add bench --password bench >/dev/null
"$bin/mailgen" "$size" >"$root/mail.mbox"
"$bin/larkpostctl" --root "$root" import bench "$root/mail.mbox" >/dev/null
rm -f "$root/mail.mbox"
"$bin/larkpostctl" --root "$root" serve --listen "127.0.0.1:$port" >/dev/null 2>&1 &
server=$!
url="http://127.0.0.1:$port/webapi"
until curl -sf -o /dev/null "http://127.0.0.1:$port/index.html"; do sleep 0.1; done
until [ -S "$root/run/core.sock" ]; do sleep 0.1; done

sid=$(curl -s -d account=bench -d passwd=bench "$url/auth.cgi" |
      python3 -c 'import json, sys; print(json.load(sys.stdin)["data"]["sid"])')
api() {  # api API METHOD [curl args...]
  local name="$1" method="$2"
  shift 2
  curl -s "$url/entry.cgi" --data-urlencode "api=$name" -d version=1 -d "method=$method" \
    -d "_sid=$sid" "$@"
}
json() { python3 -c "import json, sys; print(json.load(sys.stdin)$1)"; }

mailbox=$(api ZEVO.Larkpost.Mailbox create -d name=Bench | json '["data"]["id"]')
# A correspondent's name: one of the generator's ten, about a tenth of the mail.
sender=$(sqlite3 "$root/mail/"*/larkpost.db \
  "SELECT substr(from_text, 1, instr(from_text, ' <') - 1) AS name FROM message
   WHERE name <> '' GROUP BY name ORDER BY count(*) DESC LIMIT 1")
matching=$(sqlite3 "$root/mail/"*/larkpost.db \
  "SELECT count(*) FROM message WHERE from_text LIKE '%$sender%' AND type <> 1")

status_times="$root/status.txt"
list_times="$root/list.txt"
start=$(date +%s.%N)
key=$(api ZEVO.Larkpost.Filter add_task \
  --data-urlencode "condition=[{\"name\":\"from\",\"value\":\"$sender\"}]" \
  --data-urlencode "action=[{\"name\":\"move_to\",\"value\":\"$mailbox\"},{\"name\":\"set_read\",\"value\":\"true\"}]" |
  json '["data"]["task_key"]')
total=0
while :; do
  answer=$(api ZEVO.Larkpost.Filter get_task_status -d "task_key=$key" \
    -w '\n%{time_total}\n')
  echo "$answer" | tail -1 >>"$status_times"
  total=$(echo "$answer" | head -1 | sed 's/.*"total":\([0-9]*\).*/\1/')
  case "$answer" in *'"status":"none"'*) break ;; esac
  api ZEVO.Larkpost.Thread list --data-urlencode 'condition=[{"name":"mailbox","value":"1"}]' \
    -d offset=0 -d limit=25 -o /dev/null -w '%{time_total}\n' >>"$list_times"
done
end=$(date +%s.%N)

percentiles() {  # file -> "median X ms, 95th percentile Y ms (N samples)"
  sort -n "$1" | awk '{ v[NR] = $1 * 1000 } END {
    if (NR == 0) { print "no samples"; exit }
    printf "median %.1f ms, 95th percentile %.1f ms (%d samples)", v[int((NR + 1) / 2)],
      v[int(NR * 0.95 + 0.999)], NR }'
}
seconds=$(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.2f", b - a }')
echo "== filter task over $size messages: $total examined, $matching matching ($sender)"
echo "time to finish: $seconds s, $(awk -v n="$total" -v s="$seconds" 'BEGIN { printf "%.0f", n / s }') messages/s"
echo "get_task_status during the task: $(percentiles "$status_times")"
echo "thread list page during the task: $(percentiles "$list_times")"
grep -h "filter task" "$root/log/service.log" | sed 's/^/service log: /'
