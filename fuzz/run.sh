#!/usr/bin/env bash
# Builds the fuzz targets with clang-14/libFuzzer, replays the regression
# inputs and the seed corpus of each, then fuzzes each for a bounded time.
# Exits non-zero when any input makes a target fail.
#
#   fuzz/run.sh [SECONDS]        (default 60 for the configuration request
#                                 path, a third of it for the PS receiver,
#                                 20 s for the interface-event callback;
#                                 build dir: build-fuzz)
#
# A failing input is left in build-fuzz/artifacts/; once the fault is fixed,
# copy it into fuzz/regressions/ (configuration requests) or the target's
# corpus folder so that every later run replays it.
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/.." && pwd)"
BUILD="${TBDL_FUZZ_BUILD:-$ROOT/build-fuzz}"
SECONDS_MAX="${1:-60}"

CC=clang-14 CXX=clang++-14 cmake -S "$ROOT/fuzz" -B "$BUILD" >/dev/null
cmake --build "$BUILD" --target fuzz_cfg_request fuzz_ps_send fuzz_if_event fuzz_watch_event -j2

ARTIFACTS="$BUILD/artifacts"
mkdir -p "$ARTIFACTS"

# fuzz TARGET CORPUS SECONDS MAX_LEN [REPLAY_DIR...]
fuzz() {
  local target="$1" corpus="$2" secs="$3" maxlen="$4"
  shift 4
  local bin="$BUILD/$target" work="$BUILD/corpus-work/$target"
  echo "== replaying the kept inputs of $target"
  for dir in "$@" "$corpus"; do
    "$bin" -runs=0 "$dir"
  done
  echo "== fuzzing $target for ${secs}s"
  # New inputs go to a work copy of the corpus; the checked-in seeds stay as
  # they are.
  mkdir -p "$work"
  cp -n "$corpus/"* "$work/" 2>/dev/null || true
  "$bin" -max_total_time="$secs" -max_len="$maxlen" -timeout=10 -rss_limit_mb=2048 \
      -artifact_prefix="$ARTIFACTS/" -print_final_stats=1 "$work"
}

fuzz fuzz_cfg_request "$ROOT/fuzz/corpus/cfg_request" "$SECONDS_MAX" 2100 "$ROOT/fuzz/regressions"
fuzz fuzz_ps_send "$ROOT/fuzz/corpus/ps_send" $((SECONDS_MAX / 3 > 0 ? SECONDS_MAX / 3 : 1)) 2048
# Interface events: a code and up to 64 entries.
fuzz fuzz_if_event "$ROOT/fuzz/corpus/if_event" 20 516
fuzz fuzz_watch_event "$ROOT/fuzz/corpus/watch_event" 20 1200
echo "fuzz: no failure found"
