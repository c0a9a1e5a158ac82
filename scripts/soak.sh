#!/usr/bin/env bash
# Runs the generated container tests for as long as asked (default 600 s),
# each round with new seeds: the model-based round trips (RapidCheck), the
# crash simulation and the fault injection. Stops at the first failure and
# prints its seed; at the end prints how many cases ran.
#
#   scripts/soak.sh [seconds]
set -euo pipefail

seconds="${1:-600}"
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build/release"
cd "$root"
cmake --preset release >/dev/null
cmake --build --preset release -j2 --target container_model_tests container_crash_tests

deadline=$((SECONDS + seconds))
rounds=0
model_cases=0
sequences=0
while [ $SECONDS -lt $deadline ]; do
  seed=$(od -An -N6 -tu8 /dev/urandom | tr -d ' ')
  RC_PARAMS="max_success=1000 seed=$seed" "$build/tests/container_model_tests" >/dev/null 2>&1 ||
    { echo "soak: model round trip failed with RC_PARAMS=\"seed=$seed\""; exit 1; }
  KEL_HARNESS_SEED=$seed KEL_CRASH_SEQUENCES=50 KEL_FAULT_SEQUENCES=20 KEL_LOG_LEVEL=0 \
    "$build/tests/container_crash_tests" >/dev/null 2>&1 ||
    { echo "soak: crash or fault test failed with KEL_HARNESS_SEED=$seed"; exit 1; }
  rounds=$((rounds + 1))
  model_cases=$((model_cases + 1000))
  sequences=$((sequences + 70))
done
echo "soak: ${SECONDS} s, ${rounds} rounds: ${model_cases} model round trips, ${sequences} crash and fault sequences; nothing acknowledged was lost"
