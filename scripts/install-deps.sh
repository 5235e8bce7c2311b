#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with. Does nothing
# when they are all present already.
set -euo pipefail

PKGS=(build-essential cmake pkg-config git
      libsqlite3-dev libgtest-dev libgmock-dev libbenchmark-dev
      nlohmann-json3-dev libcli11-dev gcovr clang-14 libclang-rt-14-dev)

missing=()
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
