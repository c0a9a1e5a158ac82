"""The module's objects used from several threads, with each interleaving
forced through the module's test gate (kel._testing_hold_next_call): a reader
or writer call is stopped at a known point, without the GIL, while the test
closes the object or changes the atom from another thread. Also: a child of
fork() that plays a recording its parent was playing, and importing the
module where numpy is missing."""

import multiprocessing
import os
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import kel
from test_kel_module import atom_fields

WAIT = 10  # seconds; only reached when something hangs


@pytest.fixture
def gate():
    yield
    kel._testing_release()  # lets a call go on that a failed test left held


def in_flight(point, call):
    """Runs `call` on a new thread and returns once it is held at the gate's
    `point` ("unlocked": before it waits for the object's lock; "locked":
    holding it); the outcome dict gets its "value" or "error"."""
    outcome = {}

    def run():
        try:
            outcome["value"] = call()
        except BaseException as error:  # handed to the test
            outcome["error"] = error

    kel._testing_hold_next_call(point)
    thread = threading.Thread(target=run, daemon=True)
    thread.start()
    assert kel._testing_wait_held(WAIT), "the call never reached the gate"
    return thread, outcome


def waits(call, *held):
    """Runs `call` on a new thread while the calls on the threads `held` are
    held at the gate, then releases them; True when `call` had not returned
    by then (it waited for them) and all of them returned afterwards."""
    thread = threading.Thread(target=call, daemon=True)
    thread.start()
    thread.join(0.5)
    waited = thread.is_alive()
    kel._testing_release()  # before anything can fail: nothing stays blocked
    for t in (thread,) + held:
        t.join(WAIT)
        assert not t.is_alive()
    return waited


def finish(thread):
    kel._testing_release()
    thread.join(WAIT)
    assert not thread.is_alive()


def sample_atom(frame, time_stamp=1_000):
    pixels = np.arange(64 * 48 * 4, dtype=np.uint32).astype(np.uint8).reshape(48, 64, 4)
    return kel.Atom(stream=3, frame=frame, time_stamp=time_stamp,
                    layers=[kel.TextureRGBA(pixels, purpose="PRIMARY_COLOR"),
                            kel.CameraParams(width=64, height=48, fx=50.0, fy=51.0, cx=32.0, cy=24.0)])


def test_a_call_that_reaches_the_lock_after_close_raises_value_error(demo_dir, tmp_path, gate):
    rec = kel.open(str(demo_dir / "capture.kel"))
    stream = rec.streams[0]
    frame = int(rec.frame_numbers(stream)[0])
    before_close = rec.atoms()
    of_stream = rec.atoms(stream)
    playback = rec.playback()
    reader, read = in_flight("unlocked", lambda: rec.atom(stream, frame))
    rec.close()  # nothing holds the recording yet: returns at once
    finish(reader)
    assert isinstance(read.get("error"), ValueError), read
    for call in [lambda: rec.streams, lambda: rec.num_frames(stream), lambda: rec.frame_numbers(stream),
                 lambda: rec.time_stamps(stream), lambda: rec.atom(stream, frame), rec.atoms,
                 lambda: next(before_close), lambda: next(of_stream), rec.playback, lambda: rec.playback([stream]),
                 lambda: next(playback), lambda: len(playback), lambda: playback.streams, lambda: rec.damage,
                 rec.verify, rec.refresh, lambda: rec.num_atoms, lambda: rec.file_size, lambda: rec.file_id,
                 lambda: rec.created, lambda: rec.writer_closed]:
        with pytest.raises(ValueError, match="closed"):
            call()
    assert rec.closed and "closed" in repr(rec)
    rec.close()  # again: nothing happens

    path = str(tmp_path / "w.kel")
    writer = kel.create(path)
    writer.write(sample_atom(0))
    write, wrote = in_flight("unlocked", lambda: writer.write(sample_atom(1)))
    writer.close()
    finish(write)
    assert isinstance(wrote.get("error"), ValueError), wrote
    for call in [lambda: writer.write(sample_atom(2)), lambda: writer.atoms_written, lambda: writer.bytes_written,
                 lambda: writer.path]:
        with pytest.raises(ValueError, match="closed"):
            call()
    assert writer.closed
    with kel.open(path) as rec:
        assert rec.writer_closed and [a.frame for a in rec.atoms()] == [0]

    # A second close() waits for the first, then finds the writer closed.
    writer = kel.create(path)
    writer.write(sample_atom(0))
    closer, closed = in_flight("locked", writer.close)
    again = {}
    assert waits(lambda: again.setdefault("value", writer.close()), closer)
    assert closed == {"value": None} and again == {"value": None}
    with kel.open(path) as rec:
        assert rec.verify()["intact"] and [a.frame for a in rec.atoms()] == [0]


def test_close_and_other_calls_wait_for_a_call_in_flight(demo_dir, tmp_path, gate):
    rec = kel.open(str(demo_dir / "capture.kel"))
    stream = rec.streams[0]
    frame = int(rec.frame_numbers(stream)[-1])
    expected = atom_fields(rec.atom(stream, frame))
    reader, read = in_flight("locked", lambda: rec.atom(stream, frame))
    assert waits(rec.close, reader), "close() did not wait for the read in flight"
    assert atom_fields(read["value"]) == expected
    assert rec.closed

    # refresh() changes what the recording lists: the properties wait for it.
    path = str(tmp_path / "growing.kel")
    writer = kel.create(path)
    for f in range(3):
        writer.write(sample_atom(f))
    with kel.open(path) as growing:
        assert growing.num_atoms == 3
        for f in range(3, 5):
            writer.write(sample_atom(f))
        refresher, refreshed = in_flight("locked", growing.refresh)
        counted = {}
        assert waits(lambda: counted.setdefault("atoms", growing.num_atoms), refresher), \
            "num_atoms did not wait for refresh()"
        assert refreshed["value"] == 2 and counted["atoms"] == 5
        assert list(growing.frame_numbers(3)) == list(range(5))
    writer.close()


def test_write_stores_the_atom_as_it_was_when_called(tmp_path, gate):
    path = str(tmp_path / "snapshot.kel")
    writer = kel.create(path)
    atom = sample_atom(7, time_stamp=123_456)
    expected = atom_fields(atom)
    write, wrote = in_flight("locked", lambda: writer.write(atom))
    # Changed while the write is in flight; none of it may reach the file.
    atom.time_stamp = 999_999
    atom.frame = 8
    atom.stream = 4
    atom.layer("CameraParams").fx = 1.0
    atom.layer("TextureRGBA").purpose = "THUMBNAIL"
    atom.add_layer(kel.Binary("late", b"not written"))
    assert waits(writer.close, write), "close() did not wait for the write in flight"
    assert wrote == {"value": None}
    with kel.open(path) as rec:
        assert rec.verify()["intact"]
        assert [atom_fields(a) for a in rec.atoms()] == [expected]
        assert list(rec.time_stamps(3)) == [123_456]


def threads_asleep(name):
    """True once every thread of this process named `name` sleeps (waits for
    work); False after WAIT seconds."""
    end = time.monotonic() + WAIT
    while time.monotonic() < end:
        states = []
        for task in os.listdir("/proc/self/task"):
            with open(f"/proc/self/task/{task}/comm") as comm:
                if comm.read().strip() != name:
                    continue
            with open(f"/proc/self/task/{task}/stat") as stat:
                states.append(stat.read().rsplit(")", 1)[1].split()[0])
        if states and all(state == "S" for state in states):
            return True
        time.sleep(0.001)
    return False


def test_a_forked_child_plays_and_closes_a_recording_its_parent_was_playing(tmp_path):
    # multiprocessing forks on Linux: the child inherits a reader whose
    # read-ahead thread, and the workers that decode, wait for work in the
    # parent and are not in the child.
    path = tmp_path / "take.kel"
    ramp = (np.arange(768 * 1024 * 4, dtype=np.uint32) // 64 % 256).astype(np.uint8).reshape(768, 1024, 4)
    with kel.create(path, compress="zstd") as writer:
        for f in range(6):
            writer.write(kel.Atom(stream=0, frame=f, time_stamp=f * 40_000, layers=[kel.TextureRGBA(ramp + f)]))
    rec = kel.open(path)
    sums = [int(a.layer("TextureRGBA").pixels.sum()) for a in rec.atoms()]
    assert threads_asleep("kel-read-ahead") and threads_asleep("kel-codec")

    def child():
        assert [int(a.layer("TextureRGBA").pixels.sum()) for a in rec.atoms()] == sums
        rec.close()

    process = multiprocessing.get_context("fork").Process(target=child)
    process.start()
    process.join(WAIT)
    if process.is_alive():
        process.kill()
        process.join()
        pytest.fail("the child hangs")
    assert process.exitcode == 0
    rec.close()


def test_importing_without_numpy_says_how_to_get_it(tmp_path):
    fake = tmp_path / "numpy"
    fake.mkdir()
    (fake / "__init__.py").write_text("raise ImportError(\"No module named 'numpy'\")\n")
    probe = f"""
import sys
sys.path.insert(0, {str(tmp_path)!r})
try:
    import kel
except ImportError as error:
    print(error)
else:
    print("imported")
"""
    run = subprocess.run([sys.executable, "-c", probe], capture_output=True, text=True, timeout=60)
    message = run.stdout
    assert run.returncode == 0, run.stderr
    version = f"{sys.version_info.major}.{sys.version_info.minor}"
    for part in ["numpy", "No module named 'numpy'", "apt-get install python3-numpy", "/usr/bin/python3", version]:
        assert part in message, message
