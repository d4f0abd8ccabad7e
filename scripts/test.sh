#!/usr/bin/env bash
# Installs dependencies, builds, and runs the whole test suite; exits non-zero on any failure.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/install-deps.sh"
"$here/scripts/build.sh"
build=${BUILD_DIR:-$here/build}
cd "$build"
ctest --output-on-failure -j "$(nproc)" --timeout 600
