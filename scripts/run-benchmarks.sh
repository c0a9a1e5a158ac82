#!/usr/bin/env bash
# Runs every benchmark of a build and prints each figure with the baseline it
# is compared to, measured in the same run, and the ratio.
#
#   scripts/run-benchmarks.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."

build="${1:-build/release}"
bench="$build/bench"
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

echo "== machine: $(nproc) cores, $(awk '/MemTotal/ {printf "%.0f GiB", $2 / 1048576}' /proc/meminfo), $(uname -sr)"
echo
echo "== reading (fresh processes)"
"$bench/kel_read_bench" --runs "${KEL_BENCH_RUNS:-5}"
echo
echo "== reading from Python (fresh processes)"
PYTHONPATH="$build/python" /usr/bin/python3 bench/python_read_bench.py --cxx "$bench/kel_read_bench" \
  --runs "${KEL_BENCH_RUNS:-5}"
echo
echo "== kel.dask on local clusters of worker processes (127.0.0.1)"
PYTHONPATH="$build/python" /usr/bin/python3 bench/dask_bench.py --tool "$build/tools/kel/kel" \
  --runs "${KEL_BENCH_RUNS:-5}"
echo
echo "== kel view in headless Chromium (SwiftShader): scrub rate and time to first frame"
PYTHONPATH="$build/python" /usr/bin/python3 bench/view_scrub_bench.py --tool "$build/tools/kel/kel" \
  --node-modules "$build/view-page/node_modules" --runs "${KEL_BENCH_RUNS:-3}"
echo
echo "== compressed takes (photographs of mate-backgrounds with sensor noise, a scanned-like mesh)"
photos="$out/photos"
mkdir -p "$photos"
/usr/bin/python3 - "$photos" <<'PY'
import glob, os, sys
from PIL import Image
for p in sorted(glob.glob("/usr/share/backgrounds/mate/nature/*.jpg"))[:4]:
    image = Image.open(p).convert("RGBA").resize((1920, 1080), Image.LANCZOS)
    with open(os.path.join(sys.argv[1], os.path.basename(p)[:-4] + ".rgba"), "wb") as f:
        f.write(image.tobytes())
PY
"$bench/kel_compression_bench" --photos "$photos" --dir "$out/compression" --runs "${KEL_BENCH_RUNS:-3}"
echo
echo "== asynchronous target, graph-thread cost per frame with compression on (KEL_COMPRESSION=zstd) and off"
for c in none zstd; do
  KEL_COMPRESSION=$c "$bench/targets_bench" --benchmark_filter='BM_AsyncGraphThreadPerFrame/16777216' \
    --benchmark_format=json --benchmark_out="$out/async-$c.json.tmp" --benchmark_out_format=json \
    --benchmark_repetitions="${KEL_BENCH_REPETITIONS:-3}" --benchmark_report_aggregates_only=true >/dev/null
done
python3 - "$out" <<'PY'
import json, os, sys
def median(name):
    with open(os.path.join(sys.argv[1], name)) as f:
        return next(b for b in json.load(f)["benchmarks"] if b.get("aggregate_name") == "median")
on, off = median("async-zstd.json.tmp"), median("async-none.json.tmp")
print(f"graph-thread CPU time per 16 MiB frame: compressed {on['cpu_time']:.3f} {on['time_unit']} "
      f"vs uncompressed {off['cpu_time']:.3f} {off['time_unit']}  ratio {on['cpu_time'] / off['cpu_time']:.2f}")
PY
echo
for b in container_bench targets_bench sources_bench; do
  echo "== $b"
  "$bench/$b" --benchmark_format=json --benchmark_out="$out/$b.json" --benchmark_out_format=json \
    --benchmark_repetitions="${KEL_BENCH_REPETITIONS:-3}" --benchmark_report_aggregates_only=true >/dev/null
done

# Each line: subject, baseline, what is compared, and whether higher is better.
python3 - "$out" <<'PY'
import json, os, sys
out = sys.argv[1]
medians = {}
for name in os.listdir(out):
    if not name.endswith(".json"):  # the photographs and files of the other benchmarks
        continue
    with open(os.path.join(out, name)) as f:
        for b in json.load(f)["benchmarks"]:
            if b.get("aggregate_name") == "median":
                medians[b["run_name"].removesuffix("/real_time")] = b
pairs = [
    ("BM_WriteTextureAtoms", "BM_WritePlainBaseline", "container write, 32 x 4 MiB textures", "rate"),
    ("BM_SyncWriter4MiBTextures", "BM_PlainWriteLoop4MiBTextures", "TargetKEL2FileWriter, 4 streams x 4 MiB", "rate"),
    ("BM_EndToEndAsync", "BM_EndToEndSync", "end to end, async target vs sync target", "rate"),
    ("BM_AsyncGraphThreadPerFrame/16777216", "BM_AsyncGraphThreadPerFrame/65536",
     "async graph-thread time per frame, 16 MiB vs 64 KiB frames", "time"),
    ("BM_SequentialSourcePushFrame/1000", "BM_SequentialSourcePushFrame/1",
     "sequential source push per frame, 1,000 files vs 1", "time"),
    ("BM_Open/1000/262144", "BM_Open/1000/16", "open 1,000 atoms, 250 MiB file vs 0.2 MiB file", "time"),
]
def figure(b, kind):
    if kind == "rate":
        return b["bytes_per_second"] / 1e9, "GB/s"
    return b["real_time"], b["time_unit"]
print(f"{'figure':58} {'subject':>14} {'baseline':>14} {'ratio':>6}")
for subject, baseline, what, kind in pairs:
    if subject not in medians or baseline not in medians:
        print(f"{what:58} missing")
        continue
    s, unit = figure(medians[subject], kind)
    b, _ = figure(medians[baseline], kind)
    ratio = s / b if kind == "rate" else b / s
    print(f"{what:58} {s:10.3f} {unit:4} {b:10.3f} {unit:4} {ratio:6.2f}")
for name in ("BM_Open/100000/16", "BM_SequentialSourceInitialize/1000"):
    if name in medians:
        b = medians[name]
        print(f"{name:58} {b['real_time']:10.3f} {b['time_unit']}")
print("(ratios: subject / baseline for rates, baseline / subject for times; 1 means as fast as the baseline)")
PY
