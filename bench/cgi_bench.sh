#!/usr/bin/env bash
# Per-request cost through lighttpd: "getinfo" for a user whose store exists,
# against a CGI program that prints a fixed answer; same server, same client
# (wrk, one connection, one request at a time), same run. "getinfo" is
# measured as served (entry.cgi handing the request to the preloaded host)
# and with entry.cgi starting the full host itself, as without it.
#
#   bench/cgi_bench.sh [seconds per target]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-10}"

scripts/setup.sh
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DLARKPOST_TESTS=OFF >/dev/null
cmake --build build/bench -j"$(nproc)" >/dev/null
bin="$PWD/build/bench/bin"

root="$(mktemp -d /tmp/larkpost-bench-XXXXXX)"
trap 'kill -INT "$server" 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$root"' EXIT
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')

"$bin/larkpostctl" --root "$root" user add bench --password bench >/dev/null
# The baseline is served by the same lighttpd, next to entry.cgi.
mkdir -p "$root/etc/lighttpd.d"
cat >"$root/etc/lighttpd.d/bench.conf" <<CONF
alias.url += ( "/bench/fixed_answer.cgi" => "$bin/fixed_answer.cgi",
               "/bench/fixed_answer_cpp.cgi" => "$bin/fixed_answer_cpp.cgi",
               "/bench/entry.cgi" => "$bin/entry.cgi" )
\$HTTP["url"] =~ "^/bench/(fixed_answer(_cpp)?|entry)\\.cgi\$" { cgi.assign = ( ".cgi" => "" ) }
\$HTTP["url"] =~ "^/bench/entry\\.cgi\$" { setenv.set-environment = ( "LARKPOST_CGI_SOCKET" => "" ) }
CONF
"$bin/larkpostctl" --root "$root" serve --listen "127.0.0.1:$port" &
server=$!
for _ in $(seq 100); do curl -s -o /dev/null "http://127.0.0.1:$port/" && break; sleep 0.1; done

sid=$(curl -s -d account=bench -d passwd=bench "http://127.0.0.1:$port/webapi/auth.cgi" |
  sed -E 's/.*"sid":"([0-9a-f]+)".*/\1/')
getinfo="http://127.0.0.1:$port/webapi/entry.cgi?api=ZEVO.Larkpost.Info&version=1&method=getinfo&_sid=$sid"
direct="http://127.0.0.1:$port/bench/entry.cgi?api=ZEVO.Larkpost.Info&version=1&method=getinfo&_sid=$sid"
fixed="http://127.0.0.1:$port/bench/fixed_answer.cgi"
fixed_cpp="http://127.0.0.1:$port/bench/fixed_answer_cpp.cgi"
# The first call creates the store; the measured ones find it.
curl -s "$getinfo" | grep -q '"database_ready":true' || { echo "getinfo failed"; exit 1; }
for url in "$fixed" "$fixed_cpp"; do
  curl -s "$url" | grep -q '"success":true' || { echo "baseline $url failed"; exit 1; }
done

median() {  # wrk's 50th percentile, in microseconds
  wrk -t1 -c1 -d"${seconds}s" --latency "$1" | awk '
    $1 == "50%" { v = $2; u = v; gsub(/[0-9.]/, "", u); gsub(/[a-z]/, "", v);
                  if (u == "ms") v *= 1000; else if (u == "s") v *= 1000000; print v }'
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
fixed_us=$(median "$fixed")
fixed_cpp_us=$(median "$fixed_cpp")
getinfo_us=$(median "$getinfo")
direct_us=$(median "$direct")
echo "fixed answer CGI (C):   median ${fixed_us} us"
echo "fixed answer CGI (C++): median ${fixed_cpp_us} us"
echo "getinfo:                median ${getinfo_us} us"
echo "getinfo, no preload:    median ${direct_us} us"
echo "ratio to the C baseline:   $(ratio "$getinfo_us" "$fixed_us") (target: at most 2)"
echo "ratio to the C++ baseline: $(ratio "$getinfo_us" "$fixed_cpp_us")"
