#!/usr/bin/env bash
# Builds the library and its tests under ThreadSanitizer and runs them.
# Usage: tools/tsan_test.sh [build-dir]
# VQ_TL_TSAN_TESTS: ctest -R expression (default: the whole suite).
# VQ_TL_JOBS: parallel build and test jobs (default 2).
set -euo pipefail
cd "$(dirname "$0")/.."
tools/setup.sh native
dir=${1:-build-tsan}
jobs=${VQ_TL_JOBS:-2}
tests=${VQ_TL_TSAN_TESTS:-.}
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVQ_TL_SANITIZE=thread \
  -DVQ_TL_BUILD_BENCH=OFF -DVQ_TL_WERROR=ON -DVQ_TL_ALLOC_FAULTS=ON
cmake --build "$dir" -j "$jobs"
# halt_on_error: the first race fails the test that found it.
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}" \
  ctest --test-dir "$dir" --output-on-failure -j "$jobs" -R "$tests"
