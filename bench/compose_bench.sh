#!/usr/bin/env bash
# Composing with large attachments, through lighttpd: throughput of upload,
# send, download and download_all for one 10 MiB attachment and for twenty
# 100 KiB ones, and the peak memory (max RSS) of the process that served each
# kind of request, against one 1 KiB attachment as the baseline.
#
# Throughput is measured as served: entry.cgi hands each request to the
# preloaded host. Peak memory is measured on a second URL whose requests run
# the full host in a process of their own (no preload), under a small wrapper
# that takes the process's peak resident set from the kernel when it ends
# (bench/rss_wrap.c). That figure includes the programs the request ran and
# waited for, so the archive program is wrapped as well and reported apart.
# Sending goes to a discarding SMTP sink on loopback (the appliance's relay).
#
#   bench/compose_bench.sh [ROUNDS]    (default 5; throughput is the median)
#
# LARKPOST_BENCH_BUILD names the build folder (default build/bench).
set -euo pipefail
cd "$(dirname "$0")/.."
rounds="${1:-5}"
build="${LARKPOST_BENCH_BUILD:-build/bench}"

scripts/setup.sh
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DLARKPOST_TESTS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null
bin="$(cd "$build/bin" && pwd)"

work="$(mktemp -d /tmp/larkpost-compose-XXXXXX)"
root="$work/root"
server=""
sink=""
cleanup() {
  if [ -n "$server" ]; then kill -INT "$server" 2>/dev/null || true; fi
  if [ -n "$sink" ]; then kill "$sink" 2>/dev/null || true; fi
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'
}
port=$(free_port)
sink_port=$(free_port)

# A sink that takes every message and keeps none of it.
python3 - "$sink_port" <<'PY' &
import socket, sys, threading

def serve(conn):
    lines = conn.makefile("rb")
    say = lambda text: conn.sendall(text.encode() + b"\r\n")
    say("220 sink ESMTP")
    in_data = False
    for line in lines:
        if in_data:
            if line == b".\r\n":
                in_data = False
                say("250 2.0.0 taken")
            continue
        verb = line[:4].upper()
        if verb == b"EHLO":
            conn.sendall(b"250-sink\r\n250-8BITMIME\r\n250 SIZE 104857600\r\n")
        elif verb == b"DATA":
            in_data = True
            say("354 end with .")
        elif verb == b"QUIT":
            say("221 bye")
            break
        else:
            say("250 ok")
    conn.close()

server = socket.socket()
server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
server.bind(("127.0.0.1", int(sys.argv[1])))
server.listen(16)
while True:
    conn, _ = server.accept()
    threading.Thread(target=serve, args=(conn,), daemon=True).start()
PY
sink=$!

# The peak-memory URL: a CGI script that runs entry.cgi without the
# preloaded host under the wrapper, labelled with the request's method.
cc -O2 -Wall -o "$work/rss_wrap" bench/rss_wrap.c
mkdir -p "$work/cgi" "$work/prefix/bin" "$root/etc/lighttpd.d"
rss_log="$work/rss.log"
cat >"$work/cgi/entry.cgi" <<SH
#!/bin/sh
method=\$(printf '%s' "\$QUERY_STRING" | sed -n 's/.*method=\([a-z_]*\).*/\1/p')
exec "$work/rss_wrap" "$rss_log" "\${method:-unknown}" "$bin/entry.cgi" entry.cgi
SH
for program in zip convert-thumb; do
  printf '#!/bin/sh\nexec "%s" "%s" %s "%s" %s "$@"\n' \
    "$work/rss_wrap" "$rss_log" "$program" "$bin/$program" "$program" >"$work/prefix/bin/$program"
done
chmod +x "$work/cgi/entry.cgi" "$work/prefix/bin/"*
cat >"$root/etc/lighttpd.d/bench.conf" <<CONF
alias.url += ( "/bench/entry.cgi" => "$work/cgi/entry.cgi" )
\$HTTP["url"] =~ "^/bench/entry\\.cgi\$" {
  cgi.assign = ( ".cgi" => "" )
  setenv.set-environment = ( "LARKPOST_CGI_SOCKET" => "" )
}
CONF
config() {  # the relay is the sink; $1 adds members
  printf '{"mail_server": {"smtp_enabled": "yes"}, "relay": {"host": "127.0.0.1", "port": %s}%s}\n' \
    "$sink_port" "${1:-}" >"$root/etc/larkpost.json"
}
config

"$bin/larkpostctl" --root "$root" user add bench --password bench >/dev/null
"$bin/larkpostctl" --root "$root" serve --listen "127.0.0.1:$port" >"$work/serve.log" 2>&1 &
server=$!
for _ in $(seq 100); do curl -s -o /dev/null "http://127.0.0.1:$port/" && break; sleep 0.1; done
login=$(curl -s -d account=bench -d passwd=bench "http://127.0.0.1:$port/webapi/auth.cgi")
sid=$(sed -E 's/.*"sid":"([0-9a-f]+)".*/\1/' <<<"$login")
token=$(sed -E 's/.*"token":"([0-9a-f]+)".*/\1/' <<<"$login")
served="http://127.0.0.1:$port/webapi/entry.cgi"
wrapped="http://127.0.0.1:$port/bench/entry.cgi"

# call URL API METHOD [curl arguments]: the answer in $work/out, the time in
# seconds in $seconds.
call() {
  local url=$1 api=$2 method=$3
  shift 3
  seconds=$(curl -s -o "$work/out" -w '%{time_total}' \
    "$url?api=$api&version=1&method=$method&_sid=$sid&_token=$token" "$@")
}
# field PATH: a value of the JSON answer ("data.id", "data.message.0.id").
field() {
  python3 -c '
import json, sys
value = json.load(open(sys.argv[1]))
if not value.get("success"):
    sys.exit("failed: " + json.dumps(value))
for key in sys.argv[2].split("."):
    value = value[int(key)] if key.isdigit() else value[key]
print(value)' "$work/out" "$1"
}

call "$served" ZEVO.Larkpost.Info getinfo
[ "$(field data.database_ready)" = True ] || { echo "getinfo failed"; exit 1; }

# round URL FILES...: uploads the files, sends them in one message and
# downloads one and all; times in $t_upload $t_send $t_download $t_all.
round() {
  local url=$1
  shift
  local ids="" file
  t_upload=0
  for file in "$@"; do
    call "$url" ZEVO.Larkpost.Attachment upload -F is_inline=false -F "upload=@$file"
    ids="$ids${ids:+,}$(field data.id)"
    t_upload=$(awk -v a="$t_upload" -v b="$seconds" 'BEGIN { print a + b }')
  done
  call "$url" ZEVO.Larkpost.Draft create --data-urlencode 'from="bench@example.org"' \
    --data-urlencode 'to=["Bob <bob@example.org>"]' --data-urlencode 'subject="Files"' \
    --data-urlencode 'body="<p>Files</p>"' --data-urlencode "temp_attachment=[$ids]"
  local draft
  draft=$(field data.id)
  call "$url" ZEVO.Larkpost.Draft send -d "id=$draft"
  t_send=$seconds
  local sent attachment
  sent=$(field data.id)
  call "$url" ZEVO.Larkpost.Message get -d "id=[$sent]"
  attachment=$(field data.message.0.attachment.0.id)
  call "$url" ZEVO.Larkpost.Attachment download -G -d "id=$attachment"
  t_download=$seconds
  cmp -s "$work/out" "$1" || { echo "download: not the uploaded bytes"; exit 1; }
  call "$url" ZEVO.Larkpost.Attachment download_all -G -d "id=$sent"
  t_all=$seconds
  [ "$(head -c 2 "$work/out")" = PK ] || { echo "download_all: no archive"; exit 1; }
}

mib_s() { awk -v b="$1" -v t="$2" 'BEGIN { printf "%.1f", b / 1048576 / t }'; }
median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2) }'; }
# The largest peak of a label in the log.
peak() { awk -v l="$1" '$1 == l && $2 > m { m = $2 } END { print m + 0 }' "$rss_log"; }

declare -A files_of size_of count_of
scenarios=(baseline large many)
size_of[baseline]=1024
count_of[baseline]=1
size_of[large]=$((10 * 1024 * 1024))
count_of[large]=1
size_of[many]=$((100 * 1024))
count_of[many]=20
for scenario in "${scenarios[@]}"; do
  mkdir -p "$work/files/$scenario"
  files_of[$scenario]=""
  for i in $(seq "${count_of[$scenario]}"); do
    head -c "${size_of[$scenario]}" /dev/urandom >"$work/files/$scenario/file-$i.bin"
    files_of[$scenario]="${files_of[$scenario]} $work/files/$scenario/file-$i.bin"
  done
done

echo "== throughput, as served (median of $rounds rounds), MiB/s"
printf '%-34s %8s %8s %9s %13s\n' "" upload send download download_all
for scenario in large many; do
  read -r -a files <<<"${files_of[$scenario]}"
  total=$((${size_of[$scenario]} * ${count_of[$scenario]}))
  : >"$work/rates"
  for _ in $(seq "$rounds"); do
    round "$served" "${files[@]}"
    echo "$(mib_s "$total" "$t_upload") $(mib_s "$total" "$t_send") $(mib_s "${size_of[$scenario]}" "$t_download") $(mib_s "$total" "$t_all")" >>"$work/rates"
  done
  printf '%-34s' "$scenario (${count_of[$scenario]} x $((${size_of[$scenario]} / 1024)) KiB)"
  for column in 1 2 3 4; do
    printf ' %8s' "$(awk -v c="$column" '{ print $c }' "$work/rates" | median)"
  done
  echo
done

# Peak memory: the requests now start a fresh host that reads the
# configuration anew; the program prefix puts the wrapped programs in place.
config ", \"program_prefix\": \"$work/prefix\""
echo
echo "== peak memory per request (max RSS, KiB; a fresh host per request)"
printf '%-34s %8s %8s %8s %9s %13s %8s\n' "" upload create send download download_all "(zip)"
declare -A rss
for scenario in "${scenarios[@]}"; do
  read -r -a files <<<"${files_of[$scenario]}"
  : >"$rss_log"
  round "$wrapped" "${files[@]}"
  printf '%-34s' "$scenario (${count_of[$scenario]} x $((${size_of[$scenario]} / 1024)) KiB)"
  for kind in upload create send download download_all zip; do
    rss[$scenario.$kind]=$(peak "$kind")
    printf ' %8s' "${rss[$scenario.$kind]}"
  done
  echo
done

# The target: over the baseline, no request grows by more than one copy of
# one attachment. 2 MiB of slack: SQLite's page cache (2000 KiB by default)
# fills up with the pages a large row touches, whatever its size.
echo
echo "== growth over the baseline (KiB) against one attachment's size"
verdict="holds"
for scenario in large many; do
  allowed=$((${size_of[$scenario]} / 1024 + 2048))
  for kind in upload create send download download_all; do
    growth=$((${rss[$scenario.$kind]} - ${rss[baseline.$kind]}))
    state="holds"
    if [ "$growth" -gt "$allowed" ]; then
      state="EXCEEDS"
      verdict="does not hold"
    fi
    printf '%-6s %-13s %8s KiB (one attachment: %s KiB) %s\n' "$scenario" "$kind" "$growth" \
      "$((${size_of[$scenario]} / 1024))" "$state"
  done
done
echo "target (no request grows by more than one copy of an attachment): $verdict"
