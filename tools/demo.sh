#!/usr/bin/env bash
# The library at work with no input files: installs what the build needs
# when it is missing, builds twinlens in Release and runs its built-in
# synthetic shot.
# Usage: tools/demo.sh [twinlens demo options...], e.g.
#   tools/demo.sh --size 2000x1500 --out out/small
# VQ_TL_DEMO_BUILD: the build folder (default build-demo).
# VQ_TL_JOBS: parallel build jobs (default: every processor).
set -euo pipefail
cd "$(dirname "$0")/.."
tools/setup.sh demo
dir=${VQ_TL_DEMO_BUILD:-build-demo}
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVQ_TL_BUILD_TESTS=OFF -DVQ_TL_BUILD_BENCH=OFF >/dev/null
cmake --build "$dir" -j "${VQ_TL_JOBS:-$(nproc)}" --target twinlens
# out/ is ignored by git; an --out among the options wins.
out=out/demo
args=(--out "$out" "$@")
for ((i = 1; i <= $#; ++i)); do
  case "${!i}" in
    --out) j=$((i + 1)); out=${!j:-$out}; args=("$@") ;;
    --out=*) out=${!i#--out=}; args=("$@") ;;
  esac
done
"$dir/apps/twinlens/twinlens" demo "${args[@]}"
echo
echo "The pictures are in $out/: depth.png (near dark, far light), depth_color.png,"
echo "depth_mm.png (16-bit millimetres), bokeh.jpg, background.jpg and points.ply."
echo "docs/usage.md explains them and how to run twinlens on your own photos."
