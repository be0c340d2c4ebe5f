#!/usr/bin/env bash
# Installs what building, running and testing Larkpost needs, from Debian's
# packages. Does nothing when everything is already there.
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  libjsoncpp-dev libpcre3-dev libprotobuf-dev protobuf-compiler
  libsqlite3-dev libsodium-dev libgmime-3.0-dev libgumbo-dev
  libexif-dev libmagickwand-dev libarchive-dev
  lighttpd curl libcurl4-openssl-dev libssl-dev sqlite3 unzip python3
  libgtest-dev libgmock-dev libbenchmark-dev wrk
  clang libclang-rt-dev
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  sudo=""
  if [ "$(id -u)" != 0 ]; then sudo="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
fi
