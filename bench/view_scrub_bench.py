"""`kel view` in Debian's headless Chromium (WebGL on SwiftShader), same run,
page cache warm unless said otherwise:

- scrub rate: frames per second drawn (the page ready at each next position)
  while stepping with the arrow key through the demo (3 cameras, 320x240,
  meshes) and through a 1920x1080 four-camera take, against the rate at which
  the same page merely fetches the same frames' atom messages;
- time to first frame (navigation start to the first ready page) on a take of
  100,000 small atoms, against the same on the demo; and the server's start
  (process start to its address on standard output) on that take with the
  file dropped from the page cache.

    python3 bench/view_scrub_bench.py --tool build/release/tools/kel/kel \\
        --node-modules build/release/view-page/node_modules [--runs N]

The takes are recorded with `kel demo` and the kel module into a scratch
directory and removed afterwards.
"""

import argparse
import json
import os
import statistics
import subprocess
import tempfile
import time
from pathlib import Path

import numpy as np

import kel

HERE = Path(__file__).resolve().parent


def demo(tool, out, *args):
    subprocess.run([tool, "demo", "--out", str(out), *args], check=True, stdout=subprocess.DEVNULL)
    return out / "capture.kel"


def write_small_atoms(path, streams=4, frames=25_000):
    """streams x frames atoms of one 16x16 texture each."""
    pixels = np.zeros((16, 16, 4), np.uint8)
    pixels[..., 3] = 255
    with kel.create(str(path)) as writer:
        for f in range(frames):
            pixels[..., 0] = f % 256
            for s in range(streams):
                layers = [kel.TextureRGBA(pixels)]
                if f == 0:
                    layers.append(kel.StreamInfo(num_frames=frames, frame_rate=30.0, name=f"camera {s}"))
                writer.write(kel.Atom(stream=s, frame=f, time_stamp=f * 33_333, layers=layers))
    return path


def drop_from_cache(path):
    """As bench/PageCache.h: the whole page cache as root, else the file's pages."""
    os.sync()
    try:
        with open("/proc/sys/vm/drop_caches", "w") as f:
            f.write("1")
        return
    except OSError:
        pass
    fd = os.open(path, os.O_RDONLY)
    try:
        os.fdatasync(fd)
        os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
    finally:
        os.close(fd)


class Server:
    def __init__(self, tool, take):
        start = time.perf_counter()
        self.process = subprocess.Popen([tool, "view", str(take), "--no-browser", "--port", "0"],
                                        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.url = self.process.stdout.readline().strip()
        self.started = time.perf_counter() - start
        if not self.url.startswith("http://"):
            raise RuntimeError(f"kel view did not start on {take}")

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.process.terminate()
        self.process.wait(timeout=30)


def browse(node_modules, url, frames, runs):
    run = subprocess.run(["node", str(HERE / "view_scrub_bench.mjs"), "--url", url, "--frames", str(frames),
                          "--runs", str(runs)], check=True, capture_output=True, text=True,
                         env={**os.environ, "KEL_VIEW_NODE_MODULES": node_modules})
    return json.loads(run.stdout)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--node-modules", required=True)
    parser.add_argument("--runs", type=int, default=3)
    args = parser.parse_args()
    median = statistics.median

    with tempfile.TemporaryDirectory(prefix="kel-view-bench-") as scratch:
        scratch = Path(scratch)
        takes = {
            "demo (3 x 320x240, meshes)": demo(args.tool, scratch / "demo"),
            "1920x1080 x 4 cameras, meshes": demo(args.tool, scratch / "hd", "--streams", "4", "--width", "1920",
                                                  "--height", "1080", "--frames", "30"),
        }
        results = {}
        for name, take in takes.items():
            with Server(args.tool, take) as server:
                results[name] = browse(args.node_modules, server.url, 60, args.runs)
            r = results[name]
            print(f"scrub rate, {name}: {median(r['scrub']):.1f} frames/s drawn vs "
                  f"{median(r['fetch']):.1f} frames/s fetched only  ratio {median(r['scrub']) / median(r['fetch']):.2f}")

        small = write_small_atoms(scratch / "atoms100k.kel")
        drop_from_cache(small)
        with Server(args.tool, small) as server:
            cold_start = server.started
            r = browse(args.node_modules, server.url, 300, args.runs)
        d = results["demo (3 x 320x240, meshes)"]
        print(f"time to first frame, 100,000 atoms: {median(r['first']):.0f} ms (first run {r['first'][0]:.0f} ms) vs "
              f"demo {median(d['first']):.0f} ms  ratio {median(r['first']) / median(d['first']):.2f}")
        print(f"server start on 100,000 atoms, file not in the page cache: {cold_start * 1000:.0f} ms")
        print(f"scrub rate, 100,000 atoms of 16x16: {median(r['scrub']):.1f} frames/s drawn vs "
              f"{median(r['fetch']):.1f} frames/s fetched only  ratio {median(r['scrub']) / median(r['fetch']):.2f}")


if __name__ == "__main__":
    main()
