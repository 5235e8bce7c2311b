#!/usr/bin/env bash
# Builds the fuzz targets with clang-14/libFuzzer, replays the regression
# inputs and the seed corpus, then fuzzes for a bounded time. Exits non-zero
# when any input makes a target fail.
#
#   fuzz/run.sh [SECONDS]        (default 60; build dir: build-fuzz)
#
# A failing input is left in build-fuzz/artifacts/; once the fault is fixed,
# copy it into fuzz/regressions/ so that every later run replays it.
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/.." && pwd)"
BUILD="${TBDL_FUZZ_BUILD:-$ROOT/build-fuzz}"
SECONDS_MAX="${1:-60}"
TARGET=fuzz_cfg_request

CC=clang-14 CXX=clang++-14 cmake -S "$ROOT/fuzz" -B "$BUILD" >/dev/null
cmake --build "$BUILD" --target "$TARGET" -j2

BIN="$BUILD/$TARGET"
ARTIFACTS="$BUILD/artifacts"
WORK="$BUILD/corpus-work/cfg_request"
mkdir -p "$ARTIFACTS" "$WORK"

echo "== replaying regressions and seeds"
"$BIN" -runs=0 "$ROOT/fuzz/regressions"
"$BIN" -runs=0 "$ROOT/fuzz/corpus/cfg_request"

echo "== fuzzing $TARGET for ${SECONDS_MAX}s"
# New inputs go to a work copy of the corpus; the checked-in seeds stay as
# they are.
cp -n "$ROOT/fuzz/corpus/cfg_request/"* "$WORK/" 2>/dev/null || true
"$BIN" -max_total_time="$SECONDS_MAX" -max_len=2100 -timeout=10 -rss_limit_mb=2048 \
    -artifact_prefix="$ARTIFACTS/" -print_final_stats=1 "$WORK"
echo "fuzz: no failure found"
