#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with. Does nothing
# when they are all present already.
set -euo pipefail

PKGS=(build-essential cmake pkg-config git
      libsqlite3-dev libgtest-dev libgmock-dev libbenchmark-dev
      nlohmann-json3-dev libcli11-dev gcovr clang-14 libclang-rt-14-dev
      g++-12-aarch64-linux-gnu qemu-user
      libsqlite3-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64)

missing=()
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
# The 64-bit Arm libraries of the cross build come from the same archive.
dpkg --print-foreign-architectures | grep -qx arm64 || $SUDO dpkg --add-architecture arm64
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
