#!/usr/bin/env bash
# Soak: a two-board chassis of its own (in a temporary directory) from a
# sanitizer build, the torture driver's soak mix against it for N minutes
# (configuration, interface flips, VRF moves, LSM/PS restarts, switchovers,
# board failures; resident memory sampled every 10 s), then the chassis is
# stopped and the run judged: consistency checks, daemon crashes, sanitizer
# reports (errors and leaks), memory growth after warm-up.
#   tests/soak.sh [--minutes N] [--build DIR] [--seed N] [--keep]
# Defaults: 30 minutes, build-asan. Exit 0 only when all of it is clean.
set -uo pipefail
cd "$(dirname "$0")/.."

minutes=30
build=build-asan
seed=1
keep=0
while [ $# -gt 0 ]; do
  case "$1" in
    --minutes) minutes="$2"; shift 2 ;;
    --build) build="$2"; shift 2 ;;
    --seed) seed="$2"; shift 2 ;;
    --keep) keep=1; shift ;;
    *) echo "usage: tests/soak.sh [--minutes N] [--build DIR] [--seed N] [--keep]" >&2; exit 2 ;;
  esac
done
seconds=$(awk -v m="$minutes" 'BEGIN { s = int(m * 60 + 0.5); print (s > 0 ? s : 0) }')
for tool in chassisctl torture; do
  if [ ! -x "$build/tools/$tool" ]; then
    echo "soak: $build/tools/$tool is not built" >&2
    exit 2
  fi
done
if [ "$seconds" -le 0 ]; then
  echo "soak: --minutes must be positive" >&2
  exit 2
fi

dir=$(mktemp -d "${TMPDIR:-/tmp}/tbdl-soak.XXXXXX")
san="$dir/sanitizer"
mkdir -p "$san"
# Reports go to files of their own whatever a process does with its stderr;
# a small quarantine, so that resident memory tells of growth and not of
# freed blocks held back for use-after-free detection.
export ASAN_OPTIONS="detect_leaks=1:quarantine_size_mb=4:log_path=$san/asan"
export UBSAN_OPTIONS="print_stacktrace=1:log_path=$san/ubsan"
ctl() { "$build/tools/chassisctl" --dir "$dir" "$@"; }

chassisd_pid=""
stop_chassis() {
  [ -n "$chassisd_pid" ] || return 0
  if ! ctl stop >/dev/null 2>&1 && kill -0 "$chassisd_pid" 2>/dev/null; then
    kill "$chassisd_pid" 2>/dev/null
  fi
  chassisd_pid=""
}
trap stop_chassis EXIT

if ! start_out=$(ctl start --boards 0,1 2>&1); then
  echo "$start_out"
  echo "soak: the chassis does not start (see $dir)"
  exit 1
fi
chassisd_pid=$(sed -nE 's/.*chassisd pid ([0-9]+).*/\1/p' <<<"$start_out" | head -1)

echo "soak: $seconds s against $dir (build $build, seed $seed)"
"$build/tools/torture" --dir "$dir" --soak "$seconds" --seed "$seed" --log "$dir/requests.log" | tee "$dir/soak.out"
soak_rc=${PIPESTATUS[0]}
stop_chassis # the daemons exit normally, so their leak check runs

# A report file per process; a sanitizer that could not open one writes to the stderr kept in the logs.
reports=$(grep -l -E "ERROR: (Address|Leak)Sanitizer|runtime error:" "$san"/* "$dir"/*.log "$dir"/board*/*.log \
  2>/dev/null | sort -u)
nreports=$(grep -c . <<<"$reports")
crashes=$(sed -nE 's/^soak: .* s, ([0-9]+) crashes.*/\1/p' "$dir/soak.out")

echo "== soak summary"
echo "checks and memory: $([ "$soak_rc" -eq 0 ] && echo ok || echo FAILED) (torture exit $soak_rc)"
echo "crashes: ${crashes:-unknown}"
echo "sanitizer reports: $nreports"
for f in $reports; do
  echo "  $f"
  grep -m3 -E "ERROR: |runtime error:|SUMMARY:" "$f" | sed 's/^/    /'
done
if [ "$soak_rc" -eq 0 ] && [ "$nreports" -eq 0 ]; then
  echo "soak: passed"
  [ "$keep" -eq 1 ] || rm -rf "$dir"
  exit 0
fi
echo "soak: FAILED (kept $dir)"
exit 1
