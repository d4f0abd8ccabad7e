#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test and run. Safe to run again.
set -euo pipefail

packages=(
  build-essential cmake pkg-config clang-format clang libclang-rt-14-dev
  libjsoncpp-dev libboost-filesystem-dev libboost-system-dev
  libcurl4-openssl-dev libssl-dev uuid-dev zlib1g-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  tar gzip openssl passwd util-linux procps
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all packages present"
  exit 0
fi
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "install-deps: installing ${missing[*]}"
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
