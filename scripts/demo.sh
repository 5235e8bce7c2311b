#!/usr/bin/env bash
# Installs what is needed, builds, and runs the main job: an emulated chassis
# whose board 0 runs the tunnel-bundle daemon, configured with tbdlctl and
# inspected with chassisctl, then stopped in order.
#   scripts/demo.sh [chassis directory]   (default: a new temporary directory)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
echo "== Building (build/)"
scripts/build.sh build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTBDL_BUILD_TESTS=OFF -DTBDL_BUILD_BENCH=OFF

dir="${1:-$(mktemp -d /tmp/tbdl-chassis.XXXXXX)}"
export TBDL_CHASSIS_DIR="$dir"
chassisctl() { build/tools/chassisctl "$@"; }
tbdlctl() { build/tools/tbdlctl "$@"; }
step() { printf '\n$ %s\n' "$*"; "$@"; }
# A refused request is part of the demonstration: show it and go on.
refused() { printf '\n$ %s\n' "$*"; "$@" || echo "(refused as expected, exit status $?)"; }

trap 'chassisctl stop >/dev/null 2>&1 || true' EXIT

step chassisctl start
step chassisctl status
step tbdlctl debug on all
step chassisctl if add Tunnel10 --mode 0 --state up
step chassisctl if add Tunnel11 --mode 0 --state down
step chassisctl if add Tunnel12 --mode 0 --state up
step tbdlctl bundle create 1 --mode loadbalancing
step tbdlctl bundle address 1 10.0.0.1
step tbdlctl member add 1 --tunnel 10 --weight 2
step tbdlctl member add 1 --tunnel 11
step tbdlctl bundle create 2 --mode 1:1
step tbdlctl member add 2 --tunnel 12 --role 1
refused tbdlctl member add 2 --tunnel 10 --role 0
step tbdlctl show bundles
step tbdlctl show counts
step tbdlctl show limits
step chassisctl dump ktbdl --board 0
step chassisctl dump lsm --board 0
step chassisctl board restart 0
step tbdlctl show bundles
step chassisctl dump db
step chassisctl stop
trap - EXIT
step chassisctl dump log --board 0
echo
echo "The chassis directory $dir keeps the database and the board's log."
