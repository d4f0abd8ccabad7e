#!/usr/bin/env bash
# Fails when libzarnpkg.so exports a host interface: a symbol that libzarnhost.so exports, or a
# name of the host's families (VLIBC..., Volume..., ZARN... outside the library's namespaces).
# Usage: check-exports.sh BUILD_DIR
set -euo pipefail
build=$1
strong() { nm -D --defined-only "$1" | awk '$2 ~ /^[TDBR]$/ {print $3}' | sort -u; }
shared=$(comm -12 <(strong "$build/libzarnpkg.so") <(strong "$build/libzarnhost.so"))
named=$(strong "$build/libzarnpkg.so" | c++filt |
  grep -P '^(VLIBC|Volume|FSInfoGet|ZARN(?!PackageTool::|PackageServer::|PackageCore::|::PkgUtils::|CPkgOnOffAll)[A-Za-z]*(\(|::|$))' || true)
if [ -n "$shared$named" ]; then
  echo "libzarnpkg.so exports host interfaces:"
  printf '%s\n' "$shared" "$named" | grep -v '^$' | c++filt
  exit 1
fi
echo "libzarnpkg.so: $(strong "$build/libzarnpkg.so" | wc -l) exported symbols, none of the host's"
