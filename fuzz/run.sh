#!/usr/bin/env bash
# Builds the fuzz targets with clang-14/libFuzzer, replays the regression
# inputs and the seed corpus of each, then fuzzes each for a bounded time.
# Exits non-zero when any input makes a target fail.
#
#   fuzz/run.sh [SECONDS]        (default 30 for the configuration request
#                                 path, a third of it for the PS receiver,
#                                 10 s for the interface-event callback and
#                                 the watches, the HA receiver,
#                                 the recovery and chassisd's requests;
#                                 build dir: build-fuzz)
#   fuzz/run.sh --long [RUNS [TARGET...]]
#                                each target (or the ones named) for RUNS
#                                 executions (default 10 million), then one
#                                 line per target: executions, coverage
#                                 (cov, ft) and crashes
#
# A failing input is left in build-fuzz/artifacts/; once the fault is fixed,
# copy it into fuzz/regressions/ (configuration requests), fuzz/regress/
# <target>/ (the other targets) or the target's corpus folder so that every
# later run replays it.
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/.." && pwd)"
BUILD="${TBDL_FUZZ_BUILD:-$ROOT/build-fuzz}"
LONG_RUNS=""
ONLY=()
if [[ "${1:-}" == "--long" ]]; then
  LONG_RUNS="${2:-10000000}"
  ONLY=("${@:3}")
  SECONDS_MAX=60
else
  SECONDS_MAX="${1:-30}"
fi
TARGETS=(fuzz_cfg_request fuzz_ps_send fuzz_if_event fuzz_watch_event fuzz_ha_msg fuzz_dbm_recover
  fuzz_chassis_rpc)

CC=clang-14 CXX=clang++-14 cmake -S "$ROOT/fuzz" -B "$BUILD" >/dev/null
cmake --build "$BUILD" --target "${TARGETS[@]}" -j2

ARTIFACTS="$BUILD/artifacts"
mkdir -p "$ARTIFACTS"
SUMMARY=()
FAILED=0

# fuzz TARGET CORPUS SECONDS MAX_LEN [REPLAY_DIR...]
fuzz() {
  local target="$1" corpus="$2" secs="$3" maxlen="$4"
  shift 4
  local bin="$BUILD/$target" work="$BUILD/corpus-work/$target"
  if [[ ${#ONLY[@]} -gt 0 && " ${ONLY[*]} " != *" $target "* ]]; then
    return
  fi
  echo "== replaying the kept inputs of $target"
  for dir in "$@" "$corpus"; do
    "$bin" -runs=0 "$dir"
  done
  # New inputs go to a work copy of the corpus; the checked-in seeds stay as
  # they are.
  mkdir -p "$work"
  cp -n "$corpus/"* "$work/" 2>/dev/null || true
  local opts=(-max_len="$maxlen" -timeout=10 -rss_limit_mb=2048 -artifact_prefix="$ARTIFACTS/$target-"
    -print_final_stats=1)
  if [[ -z "$LONG_RUNS" ]]; then
    echo "== fuzzing $target for ${secs}s"
    "$bin" -max_total_time="$secs" "${opts[@]}" "$work"
    return
  fi
  echo "== fuzzing $target for $LONG_RUNS executions"
  local log="$BUILD/long-$target.log" before after rc=0
  before=$(find "$ARTIFACTS" -name "$target-*" | wc -l)
  "$bin" -runs="$LONG_RUNS" "${opts[@]}" "$work" >"$log" 2>&1 || rc=$?
  grep -E "DONE|ERROR|check failed" "$log" || true
  after=$(find "$ARTIFACTS" -name "$target-*" | wc -l)
  # The last status line libFuzzer printed: "#N DONE cov: C ft: F ...".
  local last
  last=$(grep -E "^#[0-9]+" "$log" | tail -1)
  SUMMARY+=("$(printf '%-18s executions %-10s cov %-6s ft %-7s crashes %s' "$target" \
    "$(sed -E 's/^#([0-9]+).*/\1/' <<<"$last")" "$(sed -nE 's/.* cov: ([0-9]+).*/\1/p' <<<"$last")" \
    "$(sed -nE 's/.* ft: ([0-9]+).*/\1/p' <<<"$last")" "$((after - before))")")
  if [[ $rc -ne 0 ]]; then
    FAILED=1
  fi
}

fuzz fuzz_cfg_request "$ROOT/fuzz/corpus/cfg_request" "$SECONDS_MAX" 2100 "$ROOT/fuzz/regressions"
fuzz fuzz_ps_send "$ROOT/fuzz/corpus/ps_send" $((SECONDS_MAX / 3 > 0 ? SECONDS_MAX / 3 : 1)) 2048
# Interface events: a code and up to 64 entries.
fuzz fuzz_if_event "$ROOT/fuzz/corpus/if_event" 10 516
fuzz fuzz_watch_event "$ROOT/fuzz/corpus/watch_event" 10 1200
fuzz fuzz_ha_msg "$ROOT/fuzz/corpus/ha_msg" 10 4096
fuzz fuzz_dbm_recover "$ROOT/fuzz/corpus/dbm_recover" 10 2048 "$ROOT/fuzz/regress/dbm_recover"
fuzz fuzz_chassis_rpc "$ROOT/fuzz/corpus/chassis_rpc" 10 4096 "$ROOT/fuzz/regress/chassis_rpc"

if [[ -n "$LONG_RUNS" ]]; then
  echo "== per target"
  printf '%s\n' "${SUMMARY[@]}"
  if [[ $FAILED -ne 0 ]]; then
    echo "fuzz: failures found (inputs in $ARTIFACTS)"
    exit 1
  fi
fi
echo "fuzz: no failure found"
