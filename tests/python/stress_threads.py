"""Stress run of the `kel` module from several threads (not part of the test
suite: it runs for a minute and proves nothing on its own; its use is under a
sanitizer). Round after round: a writer fills a file from two threads while a
third changes the atoms being written and a fourth closes the writer at a
random moment; meanwhile readers read the growing file through one Recording,
one of them refreshes it, and another closes it at a random moment.

Expected failures (ValueError after a close, KeyError for a frame not listed
yet, KelError for a record still being written) are counted; anything else
ends the run with status 1. When the writer is closed, every write it
acknowledged must be in the file and the file must verify as intact.

    PYTHONPATH=build/release/python python3 tests/python/stress_threads.py [--seconds 60] [--dir /tmp]

Under AddressSanitizer, with the module built in its own tree (cmake -S . -B
build/pyasan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKEL_SANITIZE="address;undefined"
-DKEL_BUILD_TESTS=OFF -DKEL_BUILD_BENCH=OFF, target kel_python); python3 is
not a C++ program, so libstdc++ is preloaded with the sanitizer for its
exception interceptor to work:

    LD_PRELOAD="$(gcc -print-file-name=libasan.so) $(gcc -print-file-name=libstdc++.so)" \
    ASAN_OPTIONS=detect_leaks=0 PYTHONPATH=build/pyasan/python python3 tests/python/stress_threads.py
"""

import argparse
import collections
import os
import random
import sys
import tempfile
import threading
import time

import numpy as np

import kel

EXPECTED = (ValueError, KeyError, StopIteration, kel.KelError)


class Round:
    def __init__(self, path, rng):
        self.path = path
        self.rng = rng
        self.counts = collections.Counter()
        self.unexpected = []
        self.lock = threading.Lock()
        self.acknowledged = 0
        self.writer = kel.create(path)
        self.atom = kel.Atom(stream=1, frame=0, time_stamp=0, layers=[self.texture(0)])
        self.writing = True

    def texture(self, seed):
        pixels = np.full((32 + seed % 17, 48, 4), seed % 251, np.uint8)
        return kel.TextureRGBA(pixels, purpose="PRIMARY_COLOR")

    def note(self, what):
        with self.lock:
            self.counts[what] += 1

    def guarded(self, call):
        try:
            return call()
        except EXPECTED as error:
            self.note(type(error).__name__)
        except Exception as error:  # reported at the end
            with self.lock:
                self.unexpected.append(repr(error))
        return None

    def write_loop(self, first_stream):
        frame = 0
        while self.writing:
            atom = kel.Atom(stream=first_stream + frame % 2, frame=frame, time_stamp=frame * 1000,
                            layers=[self.texture(frame)])
            frame += 1
            for shared in (False, True):
                try:
                    self.writer.write(self.atom if shared else atom)
                except ValueError:
                    self.note("write after close")
                    return
                with self.lock:
                    self.acknowledged += 1

    def change_loop(self):
        n = 0
        while self.writing:
            n += 1
            self.atom.time_stamp = n
            self.atom.frame = n % 50
            if n % 7 == 0:
                self.atom.add_layer(self.texture(n))
            if n % 11 == 0:
                self.atom = kel.Atom(stream=1, frame=n % 50, time_stamp=n, layers=[self.texture(n)])
            time.sleep(0)

    def close_writer_later(self):
        time.sleep(self.rng.uniform(0.05, 0.6))
        self.writing = False
        self.guarded(self.writer.close)

    def read_loop(self, rec, seed, stop):
        rng = random.Random(seed)
        iterator = None
        playback = None
        while not stop.is_set():
            choice = rng.randrange(9)
            if choice == 0:
                self.guarded(lambda: rec.atom(rng.choice([1, 2, 3, 4]), rng.randrange(60)))
            elif choice == 1:
                if iterator is None or rng.random() < 0.1:
                    iterator = self.guarded(lambda: rec.atoms(rng.choice([None, 1, 2])))
                if iterator is not None:
                    self.guarded(lambda: next(iterator))
            elif choice == 2:
                self.guarded(lambda: (rec.num_atoms, rec.streams, rec.damage, rec.file_size, rec.writer_closed))
            elif choice == 3:
                self.guarded(lambda: (rec.frame_numbers(1), rec.time_stamps(2), rec.num_frames(3)))
            elif choice == 4:
                self.guarded(rec.refresh)
            elif choice == 5:
                if playback is None or rng.random() < 0.2:
                    playback = self.guarded(lambda: rec.playback())
                if playback is not None:
                    self.guarded(lambda: next(playback))
            elif choice == 6:
                self.guarded(lambda: (rec.closed, repr(rec)))
            else:
                self.guarded(lambda: rec.atom(1, 0))
            self.note("reader call")

    def run(self, readers):
        threads = [threading.Thread(target=self.write_loop, args=(1,)),
                   threading.Thread(target=self.write_loop, args=(3,)),
                   threading.Thread(target=self.change_loop),
                   threading.Thread(target=self.close_writer_later)]
        for t in threads:
            t.start()
        while self.guarded(lambda: self.writer.atoms_written) == 0 and self.writing:
            time.sleep(0.001)
        rec = self.guarded(lambda: kel.open(self.path))
        if rec is not None:
            stop = threading.Event()
            workers = [threading.Thread(target=self.read_loop, args=(rec, self.rng.random(), stop))
                       for _ in range(readers)]
            for t in workers:
                t.start()
            time.sleep(self.rng.uniform(0.05, 0.8))
            self.guarded(rec.close)
            time.sleep(0.05)  # the readers go on against the closed recording for a moment
            stop.set()
            for t in workers:
                t.join()
        for t in threads:
            t.join()
        self.check_file()

    def check_file(self):
        with kel.open(self.path) as rec:
            found = sum(1 for _ in rec.atoms())
            report = rec.verify()
        if not report["intact"] or found != self.acknowledged:
            self.unexpected.append(f"{self.path}: {found} atoms for {self.acknowledged} acknowledged writes, "
                                   f"intact={report['intact']}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, default=60)
    parser.add_argument("--readers", type=int, default=4)
    parser.add_argument("--dir", default=None)
    parser.add_argument("--seed", type=int, default=None)
    args = parser.parse_args()
    seed = args.seed if args.seed is not None else random.randrange(2**32)
    rng = random.Random(seed)
    totals = collections.Counter()
    rounds = 0
    with tempfile.TemporaryDirectory(dir=args.dir) as tmp:
        deadline = time.monotonic() + args.seconds
        while time.monotonic() < deadline:
            path = os.path.join(tmp, f"round{rounds % 2}.kel")
            one = Round(path, rng)
            one.run(args.readers)
            rounds += 1
            totals.update(one.counts)
            if one.unexpected:
                print(f"seed {seed}, round {rounds}: unexpected: {one.unexpected[:5]}", file=sys.stderr)
                return 1
    print(f"seed {seed}: {rounds} rounds, {dict(totals)}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
