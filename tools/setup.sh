#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, each only when it
# is missing. Usage: tools/setup.sh [native|armhf|fuzz|demo]
set -euo pipefail
want=(cmake ninja-build g++ pkg-config)
tests=(googletest libgtest-dev libbenchmark-dev)
case "${1:-native}" in
  armhf) want+=("${tests[@]}" g++-arm-linux-gnueabihf qemu-user) ;;
  fuzz) want+=("${tests[@]}" clang llvm libclang-rt-dev) ;;
  # twinlens alone: OpenCV's core and picture codecs read and write its files.
  demo) want+=(libopencv-core-dev libopencv-imgcodecs-dev) ;;
  # OpenCV: the reference beside the benchmarks, and twinlens's pictures; the
  # library never links it.
  *) want+=("${tests[@]}" libopencv-dev libopencv-contrib-dev) ;;
esac
missing=()
for p in "${want[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd=sudo
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}"
fi
