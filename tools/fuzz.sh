#!/usr/bin/env bash
# Builds the library and the libFuzzer targets of tests/fuzz with clang under
# AddressSanitizer and UndefinedBehaviorSanitizer, then runs each target for a
# while on a scratch copy of its seed corpus (the repository's corpus is never
# written). Exits non-zero on any finding; crashing inputs and logs stay in
# BUILD_DIR/fuzz-run/TARGET/.
# Usage: tools/fuzz.sh [build-dir] [seconds-per-target]
# VQ_TL_JOBS: parallel build jobs (default 2).
set -euo pipefail
cd "$(dirname "$0")/.."
tools/setup.sh fuzz
dir=${1:-build-fuzz}
seconds=${2:-30}
targets=$(cd tests/fuzz && ls fuzz_*.cpp | sed 's/\.cpp$//')
cmake -S . -B "$dir" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVQ_TL_BUILD_FUZZ=ON -DVQ_TL_BUILD_TESTS=OFF \
  -DVQ_TL_BUILD_BENCH=OFF -DVQ_TL_WERROR=ON >/dev/null
# shellcheck disable=SC2086
cmake --build "$dir" -j "${VQ_TL_JOBS:-2}" --target $targets
export ASAN_OPTIONS="detect_leaks=1 ${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1 ${UBSAN_OPTIONS:-}"
passed=0
failed=0
for t in $targets; do
  work="$dir/fuzz-run/$t"
  rm -rf "$work"
  mkdir -p "$work/corpus" "$work/findings"
  [ -d tests/fuzz/corpus/"$t" ] && cp tests/fuzz/corpus/"$t"/* "$work/corpus/"
  # -timeout: seconds for one input; -rss_limit_mb: memory of the whole process.
  if "$dir/tests/fuzz/$t" -max_total_time="$seconds" -timeout=5 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$work/findings/" "$work/corpus" >"$work/log" 2>&1; then
    status=ok
    passed=$((passed + 1))
  else
    status=FAILED
    failed=$((failed + 1))
    tail -n 80 "$work/log"
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/log")
  echo "fuzz: $t $status, ${runs:-?} inputs in $seconds s, corpus $(ls "$work/corpus" | wc -l)," \
    "findings $(ls "$work/findings" | wc -l)"
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
