"""Reading a recording from Python against the same loop in C++, same file,
same run: open the file, take every atom in file order with checksums
verified, and sum one byte per 4 KiB page of every texture. Each run is a
fresh process with the page cache warm; the two sides alternate, and the
medians are compared.

    python3 bench/python_read_bench.py --cxx build/release/bench/kel_read_bench [--runs N]

The recording (64 frames x 4 streams of 1024x1024 RGBA textures, 1 GiB) is
written with the kel module into a scratch directory and removed afterwards.
"""

import argparse
import os
import statistics
import subprocess
import sys
import tempfile

# Imports are not timed (numpy's takes about 0.1 s), as the C++ side's
# process start and dynamic linking are not.
PY_CHILD = r"""
import sys, time
import numpy
import kel
start = time.perf_counter()
total = 0
payload = 0
with kel.open(sys.argv[1]) as rec:
    for atom in rec.atoms():
        for layer in atom.layers:
            if isinstance(layer, kel.TextureRGBA):
                flat = layer.pixels.reshape(-1)
                total += int(flat[::4096].sum())
                payload += flat.size
print(payload, time.perf_counter() - start, total)
"""


def write_recording(path):
    import numpy as np
    import kel

    rng = np.random.default_rng(7)
    images = [rng.integers(0, 256, (1024, 1024, 4), dtype=np.uint8) for _ in range(8)]
    with kel.create(path) as writer:
        for f in range(64):
            for s in range(4):
                layers = [kel.TextureRGBA(images[(f + s) % 8])]
                if f == 0:
                    layers.insert(0, kel.StreamInfo(num_frames=64, frame_rate=30.0, name="camera"))
                writer.write(kel.Atom(stream=s, frame=f, time_stamp=f * 33_333, layers=layers))


def warm(path):
    with open(path, "rb") as f:
        while f.read(1 << 24):
            pass


def run(command):
    out = subprocess.run(command, capture_output=True, text=True, check=True).stdout.split()
    payload, seconds, check = float(out[0]), float(out[1]), int(out[2])
    return payload / seconds / 1e9, check


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--cxx", required=True, help="the kel_read_bench executable")
    parser.add_argument("--runs", type=int, default=5)
    args = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="kel-py-bench-") as scratch:
        path = os.path.join(scratch, "recording.kel")
        write_recording(path)
        python, cxx = [], []
        checks = set()
        for _ in range(args.runs):
            warm(path)
            rate, check = run([args.cxx, "--child", "verified", path])
            cxx.append(rate)
            checks.add(check)
            warm(path)
            rate, check = run([sys.executable, "-c", PY_CHILD, path])
            python.append(rate)
            checks.add(check)
        if len(checks) != 1:
            sys.exit(f"the two loops disagree on what they read: {checks}")
        p, c = statistics.median(python), statistics.median(cxx)
        print(f"{'python, every texture, verified (warm)':44} {p:9.3f} GB/s  vs {'the same loop in C++':24} "
              f"{c:9.3f} GB/s  ratio {p / c:5.2f}")


if __name__ == "__main__":
    main()
