#!/usr/bin/env bash
# Sets up, builds the test configuration (AddressSanitizer and
# UndefinedBehaviorSanitizer on) and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake -S . -B build/test -DCMAKE_BUILD_TYPE=Debug -DLARKPOST_SANITIZE=ON -DLARKPOST_BENCH=OFF
cmake --build build/test -j"$(nproc)"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"
ctest --test-dir build/test --output-on-failure -j2
