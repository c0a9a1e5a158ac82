"""kel.dask on a local cluster of worker processes against one process, same
files, same run, page cache warm:

- kel.dask.verify over the takes with 2 workers against 1 worker, and with 1
  worker against `kel verify` given every file in one process;
- kel.dask.frames touching every texture (one byte per 4 KiB page, as
  python_read_bench.py does) against the same loop over Recording.frames()
  in one Python process, per worker.

What two processes can gain on this machine at all is measured beside them:
`kel verify` and the Python loop run in two processes at once, each over
half the takes, against one process over all of them.

Both clusters (and the two-process pool) are started before the first run
and kept (their start is not timed); the runs of every subject alternate,
and the medians are compared.

    python3 bench/dask_bench.py --tool build/release/tools/kel/kel [--runs N] [--takes 20] [--mib 256]

The takes (2 streams of 1024x1024 RGBA textures each) are written with the
kel module into a scratch directory and removed afterwards.
"""

import argparse
import multiprocessing
import os
import statistics
import subprocess
import sys
import tempfile
import time

import distributed
import numpy as np

import kel
import kel.dask


def write_takes(directory, takes, mib):
    rng = np.random.default_rng(11)
    images = [rng.integers(0, 256, (1024, 1024, 4), dtype=np.uint8) for _ in range(4)]
    frames = max(1, mib // 8)  # two 4 MiB textures per frame
    paths = []
    for t in range(takes):
        path = os.path.join(directory, f"take{t:02d}.kel")
        with kel.create(path) as writer:
            for f in range(frames):
                for s in range(2):
                    layers = [kel.TextureRGBA(images[(t + f + s) % 4])]
                    if f == 0:
                        layers.insert(0, kel.StreamInfo(num_frames=frames, frame_rate=30.0, name=f"camera {s}"))
                    writer.write(kel.Atom(stream=s, frame=f, time_stamp=f * 33_333, layers=layers))
        paths.append(path)
    return paths


def warm(paths):
    for path in paths:
        with open(path, "rb") as f:
            while f.read(1 << 24):
                pass


def touch(frame):
    """One byte per 4 KiB page of every texture of a frame, summed."""
    return sum(int(a.layer("TextureRGBA").pixels.reshape(-1)[::4096].sum()) for a in frame)


def python_loop(paths):
    total = 0
    for path in paths:
        with kel.open(path) as rec:
            for frame in rec.frames():
                total += touch(frame)
    return total


def timed(function):
    start = time.perf_counter()
    result = function()
    return time.perf_counter() - start, result


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True, help="the kel executable")
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--takes", type=int, default=20)
    parser.add_argument("--mib", type=int, default=256, help="size of each take")
    args = parser.parse_args()
    times = {}

    def note(name, seconds):
        times.setdefault(name, []).append(seconds)

    # Starting a cluster leaves distributed's settings for worker processes
    # (MALLOC_TRIM_THRESHOLD_, ...) in this process's environment; the
    # baselines run in the environment they were given.
    environment = dict(os.environ)
    with tempfile.TemporaryDirectory(prefix="kel-dask-bench-") as scratch:
        paths = write_takes(scratch, args.takes, args.mib)
        halves = [paths[::2], paths[1::2]]
        total_bytes = sum(os.path.getsize(p) for p in paths)
        with multiprocessing.get_context("spawn").Pool(2) as pool, \
                kel.dask.local_cluster(1) as one, kel.dask.local_cluster(2) as two, \
                distributed.Client(one, set_as_default=False) as c1, \
                distributed.Client(two, set_as_default=False) as c2:
            for c in (c1, c2):
                c.run(lambda: __import__("kel.dask"))
            pool.map(python_loop, [[], []])
            checks = set()
            for _ in range(args.runs):
                warm(paths)
                seconds, run = timed(lambda: subprocess.run([args.tool, "verify", *paths], capture_output=True,
                                                            env=environment))
                if run.returncode != 0:
                    sys.exit(f"kel verify failed: {run.stderr.decode()}")
                note("kel verify", seconds)
                seconds, _ = timed(lambda: [p.wait() for p in [subprocess.Popen([args.tool, "verify", *half],
                                                                                stdout=subprocess.DEVNULL,
                                                                                env=environment)
                                                               for half in halves]])
                note("kel verify x2", seconds)
                for name, c in (("verify 1", c1), ("verify 2", c2)):
                    seconds, rows = timed(lambda: c.compute(kel.dask.verify(paths)).result())
                    if set(rows.verdict) != {"OK"}:
                        sys.exit(f"kel.dask.verify disagrees: {set(rows.verdict)}")
                    note(name, seconds)
                seconds, total = timed(lambda: python_loop(paths))
                note("loop", seconds)
                checks.add(total)
                seconds, totals = timed(lambda: pool.map(python_loop, halves))
                note("loop x2", seconds)
                checks.add(sum(totals))
                for name, c in (("frames 1", c1), ("frames 2", c2)):
                    seconds, total = timed(lambda: c.compute(kel.dask.frames(paths).map(touch).sum()).result())
                    note(name, seconds)
                    checks.add(total)
            if len(checks) != 1:
                sys.exit(f"the loops disagree on what they read: {checks}")

    m = {name: statistics.median(values) for name, values in times.items()}
    gb = total_bytes / 1e9
    print(f"{args.takes} takes, {gb:.2f} GB, median of {args.runs} runs (seconds, GB/s)")
    lines = [
        ("kel.dask.verify, 2 workers vs 1", m["verify 2"], m["verify 1"], m["verify 1"] / m["verify 2"], ">= 1.7"),
        ("  (the machine: kel verify, 2 processes vs 1)", m["kel verify x2"], m["kel verify"],
         m["kel verify"] / m["kel verify x2"], ""),
        ("kel.dask.verify, 1 worker vs kel verify in one process", m["verify 1"], m["kel verify"],
         m["kel verify"] / m["verify 1"], ">= 0.85"),
        ("kel.dask.frames, 1 worker vs the Python loop", m["frames 1"], m["loop"], m["loop"] / m["frames 1"],
         ">= 0.8"),
        ("kel.dask.frames, 2 workers vs the Python loop, per worker", m["frames 2"], m["loop"],
         m["loop"] / m["frames 2"] / 2, ">= 0.8"),
        ("  (the machine: the Python loop, 2 processes vs 1, per process)", m["loop x2"], m["loop"],
         m["loop"] / m["loop x2"] / 2, ""),
    ]
    print(f"{'figure':64} {'subject':>17} {'baseline':>17} {'ratio':>6}  target")
    for what, subject, baseline, ratio, target in lines:
        print(f"{what:64} {subject:6.2f} s {gb / subject:5.2f} GB/s {baseline:6.2f} s {gb / baseline:5.2f} GB/s "
              f"{ratio:6.2f}  {target}")
    print("(ratios: the subject's rate over the baseline's, per worker where said; 1 means as fast)")


if __name__ == "__main__":
    main()
