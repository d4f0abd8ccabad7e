#!/usr/bin/env bash
# Installs a build tree under a temporary prefix and builds and runs a program against the
# installed tree alone, through pkg-config: all installed headers must compile from the installed
# include path alone, and the program and the installed tool must run with the installed libraries.
# Usage: check-install.sh BUILD_DIR CONSUMER_SOURCE [CXX]; CXXFLAGS as the build used them.
set -euo pipefail
build=$1
consumer=$2
cxx=${3:-c++}
work=$(mktemp -d /tmp/zarnpkg-install.XXXXXX)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
export PKG_CONFIG_PATH="$(dirname "$(find "$work/prefix" -name zarnpkg.pc)")"
includedir=$(pkg-config --variable=includedir zarnpkg)
libdir=$(pkg-config --variable=libdir zarnpkg)
(cd "$includedir" && find . -name '*.h' | sort | sed 's|^\./\(.*\)|#include "\1"|') \
  >"$work/all_public_headers.h"
# shellcheck disable=SC2046
"$cxx" ${CXXFLAGS:-} -std=c++17 -Wall -Wextra -I"$work" $(pkg-config --cflags zarnpkg) "$consumer" \
  -o "$work/consumer" $(pkg-config --libs zarnpkg) -Wl,-rpath,"$libdir"
mkdir -p "$work/root"
# The installed tool finds the installed libraries too.
"$work/prefix/bin/zarnpkg" --root "$work/root" host-init >/dev/null
# The program's own init makes the registry again, under the root it set.
rm -rf "$work/root/var/packages"
"$work/consumer" "$work/root"
test -d "$work/root/var/packages"
