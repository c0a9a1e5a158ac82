#!/usr/bin/env bash
# Builds the libFuzzer targets with the "fuzz" preset (clang, ASan + UBSan)
# and runs each for a while (default 60 s each):
#   reader_fuzzer         the container reader on arbitrary bytes, starting
#                         from a corpus written by the serializer;
#   writer_reader_fuzzer  generated atoms written, crashed and read back
#                         against the model.
# Exits non-zero on any finding.
#
#   scripts/fuzz-smoke.sh [seconds]
set -euo pipefail

seconds="${1:-60}"
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build/fuzz"

cd "$root"
cmake --preset fuzz >/dev/null
cmake --build "$build" --target reader_fuzzer writer_reader_fuzzer kel_fuzz_seeds -j2

artifacts="$build/artifacts/"
mkdir -p "$artifacts"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"

echo "== fuzz: container reader, ${seconds} s"
corpus="$build/corpus/reader"
seeds="$build/corpus/seeds"
rm -rf "$seeds" "$corpus"
mkdir -p "$corpus"
"$build/fuzz/kel_fuzz_seeds" "$seeds"
"$build/fuzz/reader_fuzzer" "$corpus" "$seeds" -max_total_time="$seconds" -max_len=16384 -timeout=10 \
  -artifact_prefix="$artifacts" -print_final_stats=1

echo "== fuzz: writer and reader against the model, ${seconds} s"
corpus="$build/corpus/writer"
choices="$build/corpus/choices"
rm -rf "$corpus" "$choices"
mkdir -p "$corpus"
# The fuzzer reads its choices from the input: a few kilobytes of random
# bytes start it with long sequences of atoms of many sizes.
mkdir -p "$choices"
for n in $(seq 0 31); do
  head -c $((256 * (n % 8 + 1))) /dev/urandom >"$choices/choices$n"
done
"$build/fuzz/writer_reader_fuzzer" "$corpus" "$choices" -max_total_time="$seconds" -max_len=4096 -timeout=20 \
  -artifact_prefix="$artifacts" -print_final_stats=1
