#!/usr/bin/env bash
# Installs a build tree under PREFIX and builds a worker plug-in from SOURCE against the
# installed headers and zarnpkg.pc alone, as a package author would.
# Usage: build-plugin.sh BUILD_DIR PREFIX SOURCE OUTPUT [CXX]
set -euo pipefail
build=$1
prefix=$2
source=$3
output=$4
cxx=${5:-c++}
rm -rf "$prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
export PKG_CONFIG_PATH="$(dirname "$(find "$prefix" -name zarnpkg.pc)")"
# shellcheck disable=SC2046
"$cxx" -std=c++17 -Wall -Wextra -Werror -fPIC -shared -fvisibility=hidden \
  $(pkg-config --cflags zarnpkg) "$source" -o "$output" -Wl,--as-needed $(pkg-config --libs zarnpkg)
