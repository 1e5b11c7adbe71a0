#!/usr/bin/env bash
# Builds everything and runs the whole test suite.
# Usage: tools/test.sh [build-dir] [extra cmake arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."
tools/setup.sh native
dir=${1:-build}
shift || true
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVQ_TL_WERROR=ON -DVQ_TL_ALLOC_FAULTS=ON "$@"
cmake --build "$dir" -j "$(nproc)"
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)"
