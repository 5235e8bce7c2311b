#!/bin/sh
# Builds a Release tree of the daemon, the chassis and the tools, and runs
# the configuration benchmark once. Arguments go to bench_config
# (--pairs N, --echo N, --bundles N, --members N, --keep).
# Then the HA pair benchmark, with TBDL_BENCH_HA_ARGS
# (--bundles N, --members N, --switchovers N, --keep).
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
build=${TBDL_BENCH_BUILD:-$here/build-bench}
cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" -DTBDL_BUILD_TESTS=OFF -DTBDL_BUILD_BENCH=ON >/dev/null
cmake --build "$build" --target bench_config bench_ha tbdld chassisd chassisctl -j2
"$build/bench/bench_config" --bin-dir "$build" "$@"
# shellcheck disable=SC2086 # the variable holds several options
exec "$build/bench/bench_ha" --bin-dir "$build" ${TBDL_BENCH_HA_ARGS:-}
