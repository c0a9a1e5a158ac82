#!/usr/bin/env bash
# The project's test command. With no argument it runs every stage:
#   release  build and run the whole suite (ctest: C++ and Python tests)
#   asan     the whole C++ suite under AddressSanitizer + UndefinedBehaviorSanitizer
#   tsan     the concurrency tests under ThreadSanitizer
#   fuzz     a short libFuzzer run of the container reader and of the writer
# With arguments, only the named stages run.
#
# Every stage runs even when an earlier one failed, so that the closing line
# counts what really passed, failed and was skipped; a stage that runs no test
# at all fails. The exit code is 0 only when every stage passed.
set -uo pipefail
cd "$(dirname "$0")/.."

stages=("$@")
if [ ${#stages[@]} -eq 0 ]; then
  stages=(release asan tsan fuzz)
fi

jobs=$(nproc)

total_passed=0
total_failed=0
total_skipped=0
failed_stages=()

# Adds the counts of ctest's JUnit report $1 to the totals; fails when it ran
# no test.
count_ctest() {
  local counts passed failed skipped
  counts=$(python3 - "$1" <<'PY'
import sys
import xml.etree.ElementTree as ET
try:
    root = ET.parse(sys.argv[1]).getroot()
except (OSError, ET.ParseError):
    sys.exit(1)
suites = [root] if root.tag == "testsuite" else root.iter("testsuite")
passed = failed = skipped = 0
for suite in suites:
    for case in suite.iter("testcase"):
        status = case.get("status", "run")
        if case.find("failure") is not None or case.find("error") is not None or status == "fail":
            failed += 1
        elif case.find("skipped") is not None or status in ("notrun", "disabled", "skipped"):
            skipped += 1
        else:
            passed += 1
print(passed, failed, skipped)
PY
  ) || { echo "check: no test report from ctest" >&2; return 1; }
  read -r passed failed skipped <<<"$counts"
  if [ $((passed + failed + skipped)) -eq 0 ]; then
    echo "check: the stage ran no test" >&2
    return 1
  fi
  total_passed=$((total_passed + passed))
  total_failed=$((total_failed + failed))
  total_skipped=$((total_skipped + skipped))
  return 0
}

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
  cmake --preset "$preset" >/dev/null || return 1
  cmake --build --preset "$preset" -j "$jobs" "${targets[@]}" || return 1
  echo "== $preset: tests"
  local status=0
  local report="build/$preset/ctest-report.xml"
  rm -f "$report"
  ctest --preset "$preset" --no-tests=error --output-junit "$PWD/$report" "$@" || status=$?
  count_ctest "$report" || status=1
  return "$status"
}

# The ThreadSanitizer stage builds the executables that CMake lists as
# holding "concurrency" cases, then runs those cases.
run_tsan() {
  cmake --preset tsan >/dev/null || return 1
  local list=build/tsan/concurrency-test-targets.txt
  local targets=()
  mapfile -t targets < <(grep -v '^$' "$list")
  if [ ${#targets[@]} -eq 0 ]; then
    echo "check: no test executable is labelled concurrency" >&2
    return 1
  fi
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 run_suite tsan "${targets[@]}" -- -L concurrency
}

run_stage() {
  case "$1" in
    release) run_suite release ;;
    asan) ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 run_suite asan ;;
    tsan) run_tsan ;;
    fuzz) ./scripts/fuzz-smoke.sh ;;
    *)
      echo "unknown stage: $1" >&2
      return 2
      ;;
  esac
}

if ! ./scripts/install-deps.sh --test; then
  echo "check: installing the dependencies failed" >&2
  exit 1
fi

for stage in "${stages[@]}"; do
  if ! run_stage "$stage"; then
    failed_stages+=("$stage")
  fi
done

echo "check: $total_passed passed, $total_failed failed, $total_skipped skipped" \
  "${failed_stages[*]:+(failed stages: ${failed_stages[*]})}"
[ ${#failed_stages[@]} -eq 0 ]
