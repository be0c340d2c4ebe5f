#!/usr/bin/env bash
# The plug-in exports its two tables, their accessors, the entry functions and
# the upload decoder, and nothing else of its own.
set -euo pipefail
plugin="$1"

exported=$(nm -D --defined-only "$plugin" | awk '{print $3}' | c++filt)
unexpected=$(grep -v -E \
  -e '^(gTable|gCheckTable|GetAPITable\(\)|GetAPICheckTable\(\))$' \
  -e '^ZEVO::DecodeUploadParams\(ZEVO::APIRequest\*\)$' \
  -e '^[A-Za-z0-9]+_v1\(ZEVO::APIRequest\*, ZEVO::APIResponse\*\)$' \
  -e '^(typeinfo|typeinfo name|vtable) for ornic::' \
  <<<"$exported" || true)

for required in gTable gCheckTable 'GetAPITable()' 'GetAPICheckTable()' \
    'ZEVO::DecodeUploadParams(ZEVO::APIRequest*)' \
    'InfoGetInfo_v1(ZEVO::APIRequest*, ZEVO::APIResponse*)'; do
  if ! grep -qxF "$required" <<<"$exported"; then
    echo "not exported: $required"
    exit 1
  fi
done
if [ -n "$unexpected" ]; then
  echo "exported but not part of the interface:"
  echo "$unexpected"
  exit 1
fi
echo "exports: $(wc -l <<<"$exported") symbols, all part of the interface"
