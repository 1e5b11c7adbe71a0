#!/usr/bin/env bash
# Cross-builds the library and the tests for 32-bit Arm with NEON (armhf) and
# runs the whole suite under qemu-arm through ctest. Installs the cross
# compiler and qemu when they are missing. Warnings are errors.
# Usage: tools/cross_test.sh [build-dir] [extra cmake arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."
tools/setup.sh armhf
dir=${1:-build-armhf}
shift || true
cmake -S . -B "$dir" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/armhf-linux-gnueabihf.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVQ_TL_WERROR=ON -DVQ_TL_ALLOC_FAULTS=ON -DVQ_TL_GTEST_FROM_SOURCE=ON -DVQ_TL_BUILD_BENCH=OFF "$@"
cmake --build "$dir" -j "$(nproc)"
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)"
