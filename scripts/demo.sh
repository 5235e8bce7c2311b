#!/usr/bin/env bash
# Installs what is needed, builds, and runs the main job: an emulated chassis
# of two boards (board 0 master, board 1 standby), configured with tbdlctl and
# inspected with chassisctl; the standby's kernel table follows the master's,
# then a switchover, configuration on the new master, and a board failure and
# recovery; then the chassis is stopped in order.
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
# The standby's kernel table follows the master's over the HA channel.
step chassisctl dump ktbdl --board 1
# A planned switchover: board 1 becomes master; tbdlctl asks the chassis
# which board is master, so the same commands keep working.
step chassisctl switchover
step chassisctl if add Tunnel13 --mode 0 --state up
step tbdlctl bundle create 3 --mode 1+1
step tbdlctl member add 3 --tunnel 13 --role 0
step tbdlctl show bundles
# The master board fails: board 0 is promoted at once; board 1 comes back
# as standby and receives a batch backup.
step chassisctl board fail 1
step tbdlctl show bundle 3
step chassisctl board recover 1
step chassisctl dump ha
step chassisctl stop
trap - EXIT
step chassisctl dump log --board 0
echo
echo "The chassis directory $dir keeps the database and the board's log."
