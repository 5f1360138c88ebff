#!/usr/bin/env bash
# Installs, with apt-get, whatever the build and the tests need and this machine lacks.
# Safe to run again: it installs nothing when everything is there.
set -euo pipefail
packages=(cmake ninja-build g++ gcc clang libclang-rt-14-dev llvm python3
          libgtest-dev googletest libgmock-dev libbenchmark-dev libsqlite3-dev libedit-dev
          g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix mingw-w64-tools wine wine64 util-linux coreutils tzdata valgrind
          libxml2-utils)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
