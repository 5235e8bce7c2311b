#!/usr/bin/env bash
# Installs what is needed, builds and runs every test:
#   1. one build with AddressSanitizer, UndefinedBehaviorSanitizer and line
#      coverage: unit, platform and system tests, the line coverage of the
#      daemon's code, then a 60-second soak against it (tests/soak.sh),
#      counted as one result;
#   2. a Release build (-O3) of the daemon and the tools, without tests and
#      benchmarks: the optimiser's warnings fail it; counts as one result;
#   3. a cross build for 64-bit Arm whose unit and platform tests run under
#      qemu-user;
#   4. a bounded run of every fuzz target, plus every input that ever
#      crashed one.
# Ends with one line "tests: N passed, M failed" over all of them.
set -uo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

scripts/install-deps.sh || { echo "dependency installation failed"; exit 1; }

passed=0
failed=0
status=0

run_ctest() { # name build-dir [ctest options...]
  local name="$1" dir="$2" log
  shift 2
  log="$dir/ctest.log"
  echo "== $name: tests"
  (cd "$dir" && ctest --output-on-failure -j2 --timeout 300 "$@") 2>&1 | tee "$log" | \
    grep -E '^(Test project|.*tests passed|The following tests FAILED|[[:space:]]+[0-9]+ - )' || true
  local line p f
  line=$(grep -E '[0-9]+% tests passed, [0-9]+ tests failed out of [0-9]+' "$log" | tail -1)
  if [ -z "$line" ]; then
    echo "$name: ctest did not run"; status=1; return
  fi
  f=$(sed -E 's/.*passed, ([0-9]+) tests failed out of ([0-9]+).*/\1/' <<<"$line")
  p=$(sed -E 's/.*passed, ([0-9]+) tests failed out of ([0-9]+).*/\2/' <<<"$line")
  p=$((p - f))
  passed=$((passed + p)); failed=$((failed + f))
  [ "$f" -eq 0 ] || status=1
}

echo "== Build with AddressSanitizer, UndefinedBehaviorSanitizer and line coverage"
# One instrumented build serves both purposes: every test runs once under the
# sanitizers, and the same run gives the daemon's line coverage.
if scripts/build.sh build-asan -DCMAKE_BUILD_TYPE=Debug -DTBDL_SANITIZE=ON -DTBDL_COVERAGE=ON \
     -DTBDL_BUILD_BENCH=OFF; then
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
  find build-asan -name '*.gcda' -delete
  run_ctest sanitizers build-asan
  echo "== Line coverage of daemon/"
  gcovr -r "$root" --filter "$root/daemon/" --object-directory build-asan build-asan 2>/dev/null | \
    grep -E '^(TOTAL|daemon/|---|File)' || echo "coverage report unavailable"
else
  echo "sanitizer build failed"; status=1; failed=$((failed + 1))
fi

echo "== Soak (60 s) against the sanitizer build"
if [ -x build-asan/tools/torture ] && tests/soak.sh --minutes 1 --build build-asan; then
  passed=$((passed + 1))
else
  echo "the soak failed"; failed=$((failed + 1)); status=1
fi

echo "== Release build of the daemon and tools"
if scripts/build.sh build-rel -DCMAKE_BUILD_TYPE=Release -DTBDL_BUILD_TESTS=OFF -DTBDL_BUILD_BENCH=OFF; then
  passed=$((passed + 1))
else
  echo "release build failed"; failed=$((failed + 1)); status=1
fi

echo "== Cross build for 64-bit Arm: unit and platform tests under qemu"
# Plain char is unsigned on this target, so the build catches code that
# relies on its sign. Six tests stay on the host: three fork a process that
# keeps using the library, one sends itself a real-time signal, one races
# a writer thread against readers of a shared table, and one waits with a
# deadline for a lock another thread holds; qemu's user-mode emulation hangs
# in all four kinds (its own threads hold locks across fork; its signal
# mapping keeps the low real-time signals; the race does not end within the
# test's timeout; the timed wait on a robust process-shared mutex never
# times out).
if scripts/build.sh build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
     -DCMAKE_BUILD_TYPE=Debug -DTBDL_BUILD_BENCH=OFF -DTBDL_BUILD_SYSTEM_TESTS=OFF; then
  run_ctest aarch64 build-arm --timeout 120 \
    -E 'MainTest.StartsWithPlatformLimitsStopsOnSignal|DbmOpen.SimultaneousOpens|DbmDurability.AcknowledgedRecordsSurviveKill9|Ktable.HolderThatDies|IfMapTable.ReadersNeverKeepACopyTakenDuringAChange|Ktable.AHolderThatNeverLetsGo'
else
  echo "aarch64 build failed"; status=1; failed=$((failed + 1))
fi

if [ -x fuzz/run.sh ]; then
  echo "== Fuzzing"
  if fuzz/run.sh; then
    passed=$((passed + 1))
  else
    echo "fuzzing found a failure"; failed=$((failed + 1)); status=1
  fi
fi

echo "tests: $passed passed, $failed failed"
exit $status
