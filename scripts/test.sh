#!/usr/bin/env bash
# Sets everything up and runs every test: the plain build with all tests, the unit tests again under
# AddressSanitizer + UndefinedBehaviorSanitizer, and the threaded tests under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=${JOBS:-$(nproc)}

bash scripts/install-deps.sh

configure_and_build() {
  local dir=$1; shift
  cmake -S "$root" -B "$dir" -G Ninja "$@" >/dev/null
  ninja -C "$dir" -j "$jobs"
}

echo "== include layering"
bash scripts/check-includes.sh

echo "== Release build: all tests"
configure_and_build build/release -DCMAKE_BUILD_TYPE=Release -DFMP4_WERROR=ON
ctest --test-dir build/release --output-on-failure -j "$jobs"

echo "== AddressSanitizer + UndefinedBehaviorSanitizer: unit tests and the end-to-end runs labelled sanitized"
configure_and_build build/asan -DCMAKE_BUILD_TYPE=Debug -DFMP4_WERROR=ON -DFMP4_SANITIZE=address,undefined -DFMP4_BUILD_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build/asan --output-on-failure -j "$jobs" -L '^(unit|threaded|sanitized)$'

echo "== ThreadSanitizer: threaded tests and the end-to-end runs labelled sanitized"
configure_and_build build/tsan -DCMAKE_BUILD_TYPE=Debug -DFMP4_WERROR=ON -DFMP4_SANITIZE=thread -DFMP4_BUILD_BENCH=OFF
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest --test-dir build/tsan --output-on-failure -j "$jobs" -L '^(threaded|sanitized)$'

echo "all test suites passed"
