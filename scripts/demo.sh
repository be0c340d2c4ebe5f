#!/usr/bin/env bash
# Sets up, builds the product, prepares the demo data root (user demo /
# password demo, administrator admin / admin) and serves it on
# 127.0.0.1:8080 until Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DLARKPOST_TESTS=OFF -DLARKPOST_BENCH=OFF
cmake --build build/release -j"$(nproc)"

root="${LARKPOST_ROOT:-$PWD/var/demo}"
ctl=(build/release/bin/larkpostctl --root "$root")
existing="$("${ctl[@]}" user list 2>/dev/null || true)"
grep -qw demo <<<"$existing" || "${ctl[@]}" user add demo --password demo >/dev/null
grep -qw admin <<<"$existing" || "${ctl[@]}" user add admin --password admin --admin >/dev/null

echo "Larkpost: data root $root, serving http://127.0.0.1:8080/ (Ctrl-C stops)"
exec "${ctl[@]}" serve --listen "${LARKPOST_LISTEN:-127.0.0.1:8080}"
