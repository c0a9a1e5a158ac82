"""kel.dask and kel batch on a real distributed.LocalCluster of worker
processes on 127.0.0.1: generated archives against the single-process
reader, damaged and unreadable files as rows, a worker killed mid-job, and a
1 GiB take on a worker limited to 512 MiB."""

import json
import os
import resource
import signal
import subprocess
import sys
import time
import warnings

import distributed
import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import kel
import kel.dask
from test_kel_module import atom_fields

KEL_TOOL = os.environ.get("KEL_TOOL", "kel")


local_cluster = kel.dask.local_cluster


def listening():
    import psutil
    return {c.laddr.ip for c in psutil.Process().connections("inet") if c.status == psutil.CONN_LISTEN}


@pytest.fixture(scope="module")
def client():
    with local_cluster(2) as cluster, distributed.Client(cluster) as c:
        # The scheduler, the nannies, the workers and their HTTP servers: loopback only.
        assert listening().union(*c.run(listening).values()) == {"127.0.0.1"}
        yield c


def write_take(path, seed, streams, frames, close=True, size=8):
    """A take as writers store it: every stream's first atom carries its
    stream information, the others only their image; frame numbers with
    gaps, time stamps jittered per stream."""
    rng = np.random.default_rng(seed)
    writer = kel.create(str(path))
    for frame in range(frames):
        for stream in streams:
            if rng.random() < 0.15:
                continue  # a gap in this stream
            layers = [kel.TextureRGBA(rng.integers(0, 256, (size, size, 4), dtype=np.uint8))]
            if frame == 0:
                layers.append(kel.StreamInfo(num_frames=frames, frame_rate=30.0, name=f"cam {stream}"))
            writer.write(kel.Atom(stream=stream, frame=frame,
                                  time_stamp=frame * 33_333 + int(rng.integers(0, 2_000)), layers=layers))
    if close:
        writer.close()
    return writer


def frames_of(path, streams, start, stop):
    """What one process reads: Recording.frames() of the file, or nothing
    when it lacks a stream (kel.dask.frames leaves it out)."""
    with kel.open(str(path)) as rec:
        if not rec.streams or (streams and not set(streams) <= set(rec.streams)):
            return []
        return [[atom_fields(a) for a in frame] for frame in rec.frames(streams, start, stop, skip_damaged=True)]


takes = st.lists(st.tuples(st.sets(st.integers(0, 2), max_size=3), st.integers(0, 14), st.booleans()),
                 min_size=1, max_size=3)
bounds = st.none() | st.integers(0, 16) | st.floats(0, 0.5)


@settings(max_examples=int(os.environ.get("KEL_DASK_EXAMPLES", "60")), deadline=None,
          suppress_health_check=[HealthCheck.function_scoped_fixture, HealthCheck.too_slow])
@given(plan=takes, seed=st.integers(0, 2**32 - 1), start=bounds, stop=bounds, per_partition=st.integers(1, 6),
       streams=st.none() | st.lists(st.integers(0, 2), min_size=1, max_size=2, unique=True))
def test_index_and_frames_match_the_single_process_reader(client, tmp_path_factory, plan, seed, start, stop,
                                                          per_partition, streams):
    archive = tmp_path_factory.mktemp("archive")
    # Unclosed takes stay open (a recording in progress) until the end.
    writers = [write_take(archive / f"take{i}.kel", seed + i, sorted(ids), count, close)
               for i, (ids, count, close) in enumerate(plan)]
    try:
        check_archive(archive, len(plan), start, stop, per_partition, streams)
    finally:
        for writer in writers:
            writer.close()


def check_archive(archive, count, start, stop, per_partition, streams):
    paths = [archive / f"take{i}.kel" for i in range(count)]

    index = kel.dask.index(str(archive), streams=streams).compute()
    expected = []
    for path in paths:
        with kel.open(str(path)) as rec:
            expected += [(str(path), rec.file_id, a.stream, a.frame, a.time_stamp, tuple(l.type for l in a.layers))
                         for a in rec.atoms() if streams is None or a.stream in streams]
            if streams is None:  # the records fill the file between its header and its index and footer
                stored = index.loc[index.file == str(path), "stored_bytes"].sum()
                tail = 64 + 8 + 24 * rec.num_atoms + 80 if rec.writer_closed else 0
                assert stored == rec.file_size - 128 - tail
    got = index[["file", "file_id", "stream", "frame", "time_stamp", "layer_types"]].itertuples(index=False)
    assert [tuple(row) for row in got] == expected
    assert not index.damaged.any()

    with warnings.catch_warnings():
        warnings.simplefilter("ignore")  # files that lack a stream are left out, with a warning
        bag = kel.dask.frames(str(archive / "*.kel"), streams, start, stop, frames_per_partition=per_partition)
    assert [[atom_fields(a) for a in frame] for frame in bag.compute()] == \
        [frame for path in paths for frame in frames_of(path, streams, start, stop)]


def damaged_archive(root, demo_dir):
    """The demo's take intact, with a bit flipped in one image, cut short in
    the middle of a record, and files that are no takes at all."""
    archive = root / "archive"
    archive.mkdir()
    data = (demo_dir / "capture.kel").read_bytes()
    (archive / "a-intact.kel").write_bytes(data)
    with kel.open(str(demo_dir / "capture.kel")) as rec:
        pixels = rec.atom(1, 5).layer("TextureRGBA", "PRIMARY_COLOR").pixels.tobytes()
    flipped = bytearray(data)
    flipped[data.find(pixels) + 100] ^= 1
    (archive / "b-flipped.kel").write_bytes(bytes(flipped))
    (archive / "c-cut.kel").write_bytes(data[:len(data) * 2 // 3])
    (archive / "d-text.kel").write_text("not a take")
    (archive / "e-empty.kel").write_bytes(b"")
    os.mkfifo(archive / "f-fifo.kel")
    (archive / "g-dir.kel").mkdir()
    return archive


def test_damaged_and_unreadable_files_are_rows_with_the_verdicts_of_kel_verify(client, tmp_path, demo_dir):
    archive = damaged_archive(tmp_path, demo_dir)
    listed = [str(archive / n) for n in ("a-intact.kel", "b-flipped.kel", "c-cut.kel", "d-text.kel", "e-empty.kel",
                                         "f-fifo.kel")]
    verdicts = kel.dask.verify([str(archive), str(tmp_path / "none-*.kel")]).compute()
    tool = subprocess.run([KEL_TOOL, "verify", "--json", *listed], capture_output=True, text=True, timeout=120)
    assert list(verdicts.path) == listed + [str(tmp_path / "none-*.kel")]
    assert list(verdicts.verdict) == [r["verdict"] for r in json.loads(tool.stdout)] + ["UNREADABLE"]
    assert list(verdicts.verdict[:3]) == ["OK", "DAMAGED", "DAMAGED"]
    assert verdicts.open_error.iloc[-1] == "no file matches"

    facts = kel.dask.files(str(archive)).compute().set_index("path")
    assert facts.error.isna().tolist() == [True, True, True, False, False, False]
    assert facts.loc[listed[2], "damage"]["truncated_tail_bytes"] > 0 and not facts.loc[listed[2], "closed"]
    assert [s["name"] for s in facts.loc[listed[0], "streams"]] == ["Camera 0", "Camera 1", "Camera 2"]
    assert "FIFO" in facts.loc[listed[5], "error"]

    index = kel.dask.index(str(archive)).compute()
    assert set(index.file) == set(listed[:3])  # what can be read of each readable take

    with pytest.warns(UserWarning, match="d-text.kel"):
        played = kel.dask.frames(str(archive)).count().compute()
    assert played == sum(len(frames_of(path, None, None, None)) for path in listed[:3])
    flipped = kel.dask.frames(listed[1]).map(lambda frame: frame[0].frame).compute()
    assert flipped == [f for f in range(12) if f != 5]  # the damaged frame is left out, the rest plays
    with pytest.raises(kel.KelError, match="lost to damage"):
        kel.dask.frames(listed[1], skip_damaged=False).compute()

    run = subprocess.run([KEL_TOOL, "batch", "verify", str(archive), "--workers", "2", "--json"],
                         capture_output=True, text=True, timeout=300)
    assert run.returncode == 1, run.stderr
    assert "tcp://127.0.0.1:" in run.stderr and "5 of 6 file(s) failed" in run.stderr
    assert [r["verdict"] for r in json.loads(run.stdout)] == list(verdicts.verdict[:-1])


def test_copy_writes_verified_copies_and_refuses_what_it_cannot(client, tmp_path, demo_dir):
    archive = damaged_archive(tmp_path, demo_dir)
    out = tmp_path / "out"
    rows = kel.dask.copy([str(archive / "a-intact.kel"), str(archive / "b-flipped.kel")], str(out),
                         streams=[0, "Camera 1"], compress="zstd").compute()  # the flipped image is stream 1's
    assert rows.done.tolist() == [True, False] and rows.verdict.tolist() == ["OK", None]
    assert "damaged" in rows.error.iloc[1]
    with kel.open(str(out / "a-intact.kel")) as copied, kel.open(str(archive / "a-intact.kel")) as source:
        assert copied.streams == [0, 1]
        assert [[atom_fields(a) for a in f] for f in copied.frames()] == \
            [[atom_fields(a) for a in f] for f in source.frames([0, 1])]
    summary = kel.summary(str(out / "a-intact.kel"))
    assert summary["stored_blob_bytes"] < summary["blob_bytes"]
    again = kel.dask.copy(str(archive / "a-intact.kel"), str(out)).compute()
    assert not again.done.iloc[0] and "exist" in again.error.iloc[0]
    refused = kel.dask.copy(str(archive / "a-intact.kel"), str(tmp_path / "lz4"), compress="lz4").compute()
    assert not refused.done.iloc[0] and "--compress" in refused.error.iloc[0]
    with pytest.raises(ValueError, match="both be copied"):
        kel.dask.copy([str(demo_dir / "capture.kel"), str(archive / "capture.kel")], str(out))
    run = subprocess.run([KEL_TOOL, "batch", "copy", str(archive / "a-intact.kel"), "--out", str(out), "--overwrite",
                          "--workers", "1"], capture_output=True, text=True, timeout=300)
    assert run.returncode == 0 and "done" in run.stdout, run.stderr


def test_a_worker_killed_mid_job_costs_a_retry_and_the_results_are_complete(tmp_path):
    for i in range(4):
        write_take(tmp_path / f"take{i}.kel", i, [0, 1], 16, size=64)

    def digest(frame):
        return [(a.stream, a.frame, int(a.layer("TextureRGBA").pixels.sum())) for a in frame]

    def slow_digest(frame):
        time.sleep(0.03)
        return digest(frame)

    bag = kel.dask.frames(str(tmp_path), frames_per_partition=4).map(slow_digest)
    with local_cluster(2) as cluster, distributed.Client(cluster) as c:
        undisturbed = bag.compute()
        before = c.run(os.getpid)
        partitions = c.compute(bag.to_delayed())
        next(distributed.as_completed(partitions))  # both workers are now in the middle of a partition
        address, victim = sorted(before.items())[0]
        assert c.processing()[address]  # it holds tasks, the first of them running
        os.kill(victim, signal.SIGKILL)
        results = [frame for part in c.gather(partitions) for frame in part]
        c.wait_for_workers(2, timeout=60)
        after = c.run(os.getpid)
    assert victim not in after.values() and len(after) == 2  # the nanny started a new worker
    assert results == undisturbed
    one_process = []
    for i in range(4):
        with kel.open(str(tmp_path / f"take{i}.kel")) as rec:
            one_process += [digest(frame) for frame in rec.frames()]
    assert undisturbed == one_process


def test_a_1_gib_take_reads_on_a_worker_limited_to_512_mib(tmp_path):
    path = tmp_path / "big.kel"
    pixels = np.random.default_rng(3).integers(0, 256, (1024, 1024, 4), dtype=np.uint8)
    with kel.create(str(path)) as writer:
        for f in range(256):
            writer.write(kel.Atom(stream=0, frame=f, time_stamp=f * 40_000, layers=[kel.TextureRGBA(pixels)]))
    assert os.path.getsize(path) > 2**30
    touch = int(pixels.reshape(-1)[::4096].astype(np.int64).sum())
    with local_cluster(1, memory_limit="512MiB") as cluster, distributed.Client(cluster) as c:
        sums = kel.dask.frames(str(path)).map(
            lambda frame: int(frame[0].layer("TextureRGBA").pixels.reshape(-1)[::4096].astype(np.int64).sum()))
        assert sums.sum().compute() == 256 * touch
        assert kel.dask.verify(str(path)).compute().verdict.tolist() == ["OK"]
        peak_kib = max(c.run(lambda: resource.getrusage(resource.RUSAGE_SELF).ru_maxrss).values())
    assert peak_kib < 512 * 1024, f"a worker peaked at {peak_kib // 1024} MiB"
    os.remove(path)


def test_import_kel_leaves_dask_alone_and_kel_dask_names_what_is_missing(tmp_path):
    (tmp_path / "dask").mkdir()
    (tmp_path / "dask" / "__init__.py").write_text("raise ImportError(\"No module named 'dask'\")\n")
    probe = f"""
import sys
import kel
assert "dask" not in sys.modules
sys.path.insert(0, {str(tmp_path)!r})
try:
    import kel.dask
except ImportError as error:
    print(error)
"""
    run = subprocess.run([sys.executable, "-c", probe], capture_output=True, text=True, timeout=60)
    assert run.returncode == 0, run.stderr
    assert "apt-get install python3-dask python3-distributed python3-pandas" in run.stdout
