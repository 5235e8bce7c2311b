#!/bin/sh
# Builds a Release tree of the daemon, the chassis, the PS library and the
# tools, and runs the configuration benchmark, the download benchmark, the
# interface event benchmark and the HA pair benchmark, once each. Arguments go
# to bench_config (--pairs N, --echo N, --bundles N, --members N,
# --interleaved N, --counted N, --idle S, --test-time TEXT, --keep; its
# closing table sets every figure beside its baseline and goal);
# TBDL_BENCH_DOWNLOAD_ARGS to bench_download (--bundles N, --members N,
# --pairs N, --resyncs N, --changes N, --keep); TBDL_BENCH_WATCH_ARGS to
# bench_watch (--bundles N, --members N, --burst N, --pairs N, --rounds N,
# --changes N, --keep); TBDL_BENCH_HA_ARGS to bench_ha (--bundles N,
# --members N, --switchovers N, --keep).
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
build=${TBDL_BENCH_BUILD:-$here/build-bench}
cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" -DTBDL_BUILD_TESTS=OFF -DTBDL_BUILD_BENCH=ON >/dev/null
cmake --build "$build" --target bench_config bench_download bench_watch bench_ha tbdld chassisd chassisctl ps -j2
"$build/bench/bench_config" --bin-dir "$build" "$@"
# shellcheck disable=SC2086 # the variables hold several options
"$build/bench/bench_download" --bin-dir "$build" ${TBDL_BENCH_DOWNLOAD_ARGS:-}
# shellcheck disable=SC2086
"$build/bench/bench_watch" --bin-dir "$build" ${TBDL_BENCH_WATCH_ARGS:-}
# shellcheck disable=SC2086
exec "$build/bench/bench_ha" --bin-dir "$build" ${TBDL_BENCH_HA_ARGS:-}
