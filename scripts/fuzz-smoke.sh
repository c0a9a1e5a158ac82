#!/usr/bin/env bash
# Builds the libFuzzer targets with the "fuzz" preset (clang, ASan + UBSan)
# and runs the container reader fuzzer for a while (default 60 s) starting
# from a corpus written by the serializer. Exits non-zero on any finding.
#
#   scripts/fuzz-smoke.sh [seconds]
set -euo pipefail

seconds="${1:-60}"
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build/fuzz"

cd "$root"
cmake --preset fuzz >/dev/null
cmake --build "$build" --target reader_fuzzer kel_fuzz_seeds -j2

corpus="$build/corpus/reader"
seeds="$build/corpus/seeds"
rm -rf "$seeds" "$corpus"
mkdir -p "$corpus"
"$build/fuzz/kel_fuzz_seeds" "$seeds"

artifacts="$build/artifacts/"
mkdir -p "$artifacts"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
"$build/fuzz/reader_fuzzer" "$corpus" "$seeds" -max_total_time="$seconds" -max_len=16384 -timeout=10 \
  -artifact_prefix="$artifacts" -print_final_stats=1
