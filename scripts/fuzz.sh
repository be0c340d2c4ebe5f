#!/usr/bin/env bash
# Builds the fuzz targets with clang and libFuzzer (AddressSanitizer and
# UndefinedBehaviorSanitizer on, in build/fuzz) and runs each of them for
# SECONDS (default 60) on its corpus. New inputs that reach new code go to
# build/fuzz/corpus/<target> (the kept seeds in fuzz/corpus stay as they
# are); a crash, leak or hang leaves its input in build/fuzz/findings/<target>
# and makes the script fail. Each target's final libFuzzer line goes to
# build/fuzz/summary.txt. TARGETS=name,name runs only those.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"

scripts/setup.sh
cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_C_FLAGS=-fsanitize=fuzzer-no-link -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link \
  -DLARKPOST_SANITIZE=ON -DLARKPOST_FUZZ=ON -DLARKPOST_TESTS=OFF -DLARKPOST_BENCH=OFF >/dev/null

targets=()
for source in fuzz/*_fuzz.cc; do
  name="$(basename "$source" _fuzz.cc)"
  if [ -z "${TARGETS:-}" ] || [[ ",$TARGETS," == *",$name,"* ]]; then targets+=("$name"); fi
done
cmake --build build/fuzz -j"$(nproc)" --target "${targets[@]/#/fuzz_}"

export ASAN_OPTIONS="detect_leaks=1:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"
summary=build/fuzz/summary.txt
: >"$summary"
failed=()
for name in "${targets[@]}"; do
  corpus="build/fuzz/corpus/$name"
  findings="build/fuzz/findings/$name"
  mkdir -p "$corpus" "$findings"
  log="build/fuzz/$name.log"
  echo "fuzz: $name for ${seconds}s"
  # The programs' own complaints about bad input go to standard error;
  # libFuzzer still reports there.
  if build/fuzz/bin/fuzz_"$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2560 \
    -close_fd_mask=3 -print_final_stats=1 -artifact_prefix="$PWD/$findings/" \
    "$PWD/$corpus" "$PWD/fuzz/corpus/$name" >"$log" 2>&1; then
    :
  else
    failed+=("$name")
  fi
  {
    printf '%s: ' "$name"
    grep -E '^#[0-9]+.*(DONE|cov:)' "$log" | tail -1
    grep -E '^stat::number_of_executed_units' "$log" || true
  } >>"$summary"
done
cat "$summary"
if ((${#failed[@]})); then
  echo "fuzz: findings in ${failed[*]} (see build/fuzz/findings and build/fuzz/<target>.log)" >&2
  exit 1
fi
