#!/usr/bin/env bash
# Configures and builds into ${BUILD_DIR:-build}: the targets named as arguments, else all.
# Uses ccache when it is installed and no other compiler launcher is set.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$here/build}
if [ -z "${CMAKE_CXX_COMPILER_LAUNCHER:-}" ] && command -v ccache >/dev/null; then
  export CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi
cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo} >/dev/null
targets=()
for target in "$@"; do targets+=(--target "$target"); done
cmake --build "$build" -j "$(nproc)" "${targets[@]}"
