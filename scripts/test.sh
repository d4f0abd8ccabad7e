#!/usr/bin/env bash
# Installs dependencies, then builds and runs the whole test suite twice: with the default
# compiler in ${BUILD_DIR:-build}, and with clang under the address and undefined-behaviour
# sanitizers in ${ASAN_BUILD_DIR:-build-asan} (no benchmarks there); in between, every fuzz target
# for a bounded time (fuzz/run.sh, build-fuzz). Exits non-zero on any failure or finding.
# SKIP_FUZZ=1 leaves the fuzzing out, SKIP_ASAN=1 the second suite.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/install-deps.sh"
if [ -z "${CMAKE_CXX_COMPILER_LAUNCHER:-}" ] && command -v ccache >/dev/null; then
  export CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi
jobs=$(nproc)

"$here/scripts/build.sh"
(cd "${BUILD_DIR:-$here/build}" && ctest --output-on-failure -j "$jobs" --timeout 600)

if [ "${SKIP_FUZZ:-0}" != 1 ]; then "$here/fuzz/run.sh"; fi

if [ "${SKIP_ASAN:-0}" = 1 ]; then exit 0; fi
asan=${ASAN_BUILD_DIR:-$here/build-asan}
cmake -S "$here" -B "$asan" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Sanitize \
  -DCMAKE_CXX_FLAGS="-O1 -gline-tables-only -fno-omit-frame-pointer \
-fsanitize=address,undefined -fno-sanitize-recover=undefined" \
  -DZARN_BUILD_BENCH=OFF >/dev/null
cmake --build "$asan" -j "$jobs"
(cd "$asan" && ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1} \
   UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1} \
   ctest --output-on-failure -j "$jobs" --timeout 600)
