#!/usr/bin/env bash
# The project's test command. With no argument it runs every stage:
#   release  build and run the whole suite (ctest)
#   asan     the whole suite under AddressSanitizer + UndefinedBehaviorSanitizer
#   tsan     the concurrency tests under ThreadSanitizer
#   fuzz     a short libFuzzer run of the container reader (clang)
# With arguments, only the named stages run.
set -euo pipefail
cd "$(dirname "$0")/.."

stages=("$@")
if [ ${#stages[@]} -eq 0 ]; then
  stages=(release asan tsan fuzz)
fi

jobs=$(nproc)

# Totals over every ctest run, printed as the closing line.
total_passed=0
total_failed=0
summary_file=$(mktemp)
trap 'rm -f "$summary_file"' EXIT

# run_suite PRESET [build targets...] -- [ctest arguments...]
run_suite() {
  local preset=$1
  shift
  local targets=()
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do
    targets+=(--target "$1")
    shift
  done
  [ $# -gt 0 ] && shift
  echo "== $preset: configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs" "${targets[@]}"
  echo "== $preset: tests"
  local status=0
  ctest --preset "$preset" "$@" 2>&1 | tee "$summary_file" || status=$?
  local line
  line=$(grep -E "tests passed, [0-9]+ tests failed out of [0-9]+" "$summary_file" | tail -n 1 || true)
  if [ -n "$line" ]; then
    local failed total
    failed=$(sed -E 's/.* ([0-9]+) tests failed out of ([0-9]+).*/\1/' <<<"$line")
    total=$(sed -E 's/.* ([0-9]+) tests failed out of ([0-9]+).*/\2/' <<<"$line")
    total_passed=$((total_passed + total - failed))
    total_failed=$((total_failed + failed))
  fi
  return "$status"
}

# The test executables whose cases carry the "concurrency" label.
concurrency_targets=(queue_tests async_target_tests target_stress_tests host_filter_tests kelcommon_tests)

for stage in "${stages[@]}"; do
  case "$stage" in
    release) run_suite release ;;
    asan) ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 run_suite asan ;;
    tsan) TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 run_suite tsan "${concurrency_targets[@]}" -- -L concurrency ;;
    fuzz)
      if [ -x scripts/fuzz-smoke.sh ]; then
        ./scripts/fuzz-smoke.sh
      else
        echo "== fuzz: no fuzz targets yet"
      fi
      ;;
    *) echo "unknown stage: $stage" >&2; exit 2 ;;
  esac
done

echo "check: $total_passed passed, $total_failed failed"
