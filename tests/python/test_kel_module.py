"""The `kel` Python module against the real runtime and real files: generated
round trips of every layer type, the C++ demo's recordings, zero-copy views,
damage, errors, and playback through the plugin."""

import gc
import json
import os
import re
import resource
import subprocess

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import kel
from conftest import KEL_TOOL

PURPOSES = [None, "PRIMARY_COLOR", "THUMBNAIL", "CAMERA_PRIMARY", "STATIC", "Network",
            "0F7A4F52-D13A-4B77-B7A2-23636E4DB3F9", "12345678-9ABC-4DEF-8123-456789ABCDEF"]
text = st.text(st.characters(blacklist_categories=("Cs",)), max_size=40)
finite = st.floats(allow_nan=False, allow_infinity=False, width=64)
u32 = st.integers(0, 2**32 - 1)
small_bytes = st.binary(max_size=300) | st.integers(0, 70_000).map(lambda n: bytes(range(256)) * (n // 256))


@st.composite
def textures(draw):
    h, w = draw(st.integers(1, 40)), draw(st.integers(1, 40))
    seed = draw(st.integers(0, 2**32 - 1))
    pixels = np.random.default_rng(seed).integers(0, 256, (h, w, 4), dtype=np.uint8)
    return kel.TextureRGBA(pixels, purpose=draw(st.sampled_from(PURPOSES)))


@st.composite
def meshes(draw):
    n, m = draw(st.integers(0, 50)), draw(st.integers(0, 50))
    rng = np.random.default_rng(draw(st.integers(0, 2**32 - 1)))
    vertices = rng.standard_normal((n, 3)).astype(np.float32)
    indices = rng.integers(0, max(n, 1), (m, 3), dtype=np.uint32)
    tex = rng.random((n, 2), dtype=np.float32) if draw(st.booleans()) and n > 0 else None
    return kel.Mesh(vertices, indices, tex, purpose=draw(st.sampled_from(PURPOSES)))


@st.composite
def cameras(draw):
    return kel.CameraParams(width=draw(u32), height=draw(u32), fx=draw(finite), fy=draw(finite), cx=draw(finite),
                            cy=draw(finite), distortion=draw(st.lists(finite, max_size=8)),
                            pose=np.array(draw(st.lists(finite, min_size=16, max_size=16))).reshape(4, 4),
                            version=draw(st.sampled_from([1, 2])), purpose=draw(st.sampled_from(PURPOSES)))


layers = st.one_of(
    textures(), meshes(), cameras(),
    st.builds(kel.StreamInfo, num_frames=u32, frame_rate=finite, name=text, purpose=st.sampled_from(PURPOSES)),
    st.builds(kel.RecordingInfo, start_time=st.integers(-2**63, 2**63 - 1), device=text, description=text),
    st.builds(kel.StaticInfo, entries=st.dictionaries(text, text, max_size=5)),
    st.builds(kel.Binary, name=text, data=small_bytes, purpose=st.sampled_from(PURPOSES)),
    st.builds(kel.CylinderCrop, center_x=finite, center_z=finite, radius=finite, min_y=finite, max_y=finite),
    st.builds(kel.Opaque, type_guid=st.just("5C0FFEE0-1234-4321-ABCD-0123456789AB"), fields=st.binary(max_size=64),
              blobs=st.lists(small_bytes, max_size=3), purpose=st.sampled_from(PURPOSES[1:])),
)
atoms = st.builds(lambda s, f, t, ls: kel.Atom(stream=s, frame=f, time_stamp=t, layers=ls),
                  st.integers(0, 65535), u32, st.integers(-2**63, 2**63 - 1), st.lists(layers, max_size=12))


def fields(layer):
    """What a layer holds, as plain values (arrays as bytes and shapes), read
    through the module's properties."""
    common = (layer.type, layer.type_guid, layer.purpose, layer.version)
    if isinstance(layer, kel.TextureRGBA):
        return common + (layer.pixels.shape, layer.pixels.tobytes())
    if isinstance(layer, kel.Mesh):
        return common + tuple((a.shape, a.tobytes()) for a in (layer.vertices, layer.indices, layer.tex_coords))
    if isinstance(layer, kel.CameraParams):
        return common + (layer.width, layer.height, layer.fx, layer.fy, layer.cx, layer.cy,
                         layer.distortion.tobytes(), layer.pose.tobytes())
    if isinstance(layer, kel.StreamInfo):
        return common + (layer.num_frames, layer.frame_rate, layer.name)
    if isinstance(layer, kel.RecordingInfo):
        return common + (layer.start_time, layer.device, layer.description)
    if isinstance(layer, kel.StaticInfo):
        return common + (layer.entries,)
    if isinstance(layer, kel.Binary):
        return common + (layer.name, layer.data.tobytes())
    if isinstance(layer, kel.CylinderCrop):
        return common + (layer.center_x, layer.center_z, layer.radius, layer.min_y, layer.max_y)
    if isinstance(layer, kel.Opaque):
        return common + (layer.fields, tuple(b.tobytes() for b in layer.blobs))
    raise AssertionError(f"unexpected layer {layer!r}")


def atom_fields(atom):
    return (atom.stream, atom.frame, atom.time_stamp, [fields(layer) for layer in atom.layers])


@settings(max_examples=int(os.environ.get("KEL_PY_EXAMPLES", "200")), deadline=None,
          suppress_health_check=[HealthCheck.function_scoped_fixture, HealthCheck.too_slow])
@given(written=st.lists(atoms, min_size=1, max_size=6), close=st.booleans(),
       compress=st.sampled_from([None, "none", "zstd", "zstd:5"]))
def test_generated_atoms_read_back_field_by_field(tmp_path, written, close, compress):
    path = tmp_path / "gen.kel"
    writer = kel.create(path, compress=compress)
    for atom in written:
        writer.write(atom)
    expected = [atom_fields(a) for a in written]
    if close:
        writer.close()
    with kel.open(path) as rec:  # an unclosed file is listed from its record headers
        assert rec.num_atoms == len(written)
        assert [atom_fields(a) for a in rec.atoms()] == expected
        for i, atom in enumerate(written):
            first = next(j for j, other in enumerate(written) if (other.stream, other.frame) == (atom.stream, atom.frame))
            assert atom_fields(rec.atom(atom.stream, atom.frame)) == expected[first]
    if not close:
        writer.close()


def test_the_demo_recordings_read_as_the_cpp_side_wrote_them(demo_dir):
    with kel.open(str(demo_dir / "capture.kel")) as rec:
        assert rec.streams == [0, 1, 2]
        assert rec.writer_closed and rec.verify()["intact"]
        assert list(rec.frame_numbers(1)) == list(range(12))
        stamps = rec.time_stamps(0)
        assert stamps.dtype == np.int64 and np.all(np.diff(stamps) > 0)
        first = rec.atom(0, 0)
        assert first.layer("StreamInfo").name == "Camera 0"
        assert first.layer("TextureRGBA", "THUMBNAIL") is not None
        image = rec.atom(2, 7).layer("TextureRGBA", "PRIMARY_COLOR")
        assert image.pixels.shape == (48, 64, 4)
        # The per-camera file of camera 2 holds the same pixels.
        with kel.open(str(demo_dir / "per-camera" / "camera_2.kel")) as single:
            assert np.array_equal(single.atom(2, 7).layer("TextureRGBA", "PRIMARY_COLOR").pixels, image.pixels)
        # Merged back from the per-camera files: the same frames. The
        # asynchronous snapshot writer, pressed at frame 3, writes the next 4
        # frames it takes from its queue, which may still hold earlier ones.
        with kel.open(str(demo_dir / "merged.kel")) as merged, kel.open(str(demo_dir / "snapshot.kel")) as snap:
            for s in (0, 1, 2):
                assert np.array_equal(merged.time_stamps(s), rec.time_stamps(s))
                start = list(rec.time_stamps(s)).index(snap.time_stamps(s)[0])
                assert start <= 3 and np.array_equal(snap.time_stamps(s), rec.time_stamps(s)[start:start + 4])
    assert (demo_dir / "capture.kel.xml").exists()
    assert (demo_dir / "thumbnails" / "camera_2.png").read_bytes().startswith(b"\x89PNG")


def test_playback_restores_stream_level_layers_as_the_source_does(demo_dir):
    with kel.open(str(demo_dir / "capture.kel")) as rec:
        assert rec.atom(1, 5).layer("StreamInfo") is None  # writers keep it in the first atom only
        playback = rec.playback(included_streams=[2, 0])
        frames = list(playback)
        assert len(frames) == len(playback) == 12
        for number, frame in enumerate(frames):
            assert [a.stream for a in frame] == [0, 2]
            assert all(a.frame == number for a in frame)
            info = frame[0].layer("StreamInfo")
            assert info is not None and info.num_frames == 12
            assert np.array_equal(frame[1].layer("TextureRGBA", "PRIMARY_COLOR").pixels,
                                  rec.atom(2, number).layer("TextureRGBA", "PRIMARY_COLOR").pixels)


def test_arrays_are_read_only_views_that_keep_the_readers_memory_alive(demo_dir):
    rec = kel.open(str(demo_dir / "capture.kel"))
    texture = rec.atom(0, 3).layer("TextureRGBA", "PRIMARY_COLOR")
    pixels = texture.pixels
    assert not pixels.flags.writeable and not pixels.flags.owndata
    assert np.shares_memory(pixels, texture.pixels)  # a view of the layer's buffer, not a copy per access
    assert pixels.ctypes.data % 64 == 0  # blobs lie 64-byte aligned in the reader's memory
    with pytest.raises(ValueError):
        pixels[0, 0, 0] = 1
    copy = pixels.copy()
    rec.close()
    del texture
    gc.collect()
    assert np.array_equal(pixels, copy)  # still valid after the recording and the layer are gone


def rss_kib():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") // 1024


def test_reading_a_large_file_frame_by_frame_does_not_grow_memory(tmp_path):
    # 1 GiB where the disk has room for it, else 256 MiB.
    stat = os.statvfs(tmp_path)
    frames = 256 if stat.f_bavail * stat.f_frsize > 4 * 2**30 else 64
    path = str(tmp_path / "big.kel")
    pixels = np.random.default_rng(1).integers(0, 256, (1024, 1024, 4), dtype=np.uint8)
    with kel.create(path) as writer:
        for f in range(frames):
            writer.write(kel.Atom(stream=0, frame=f, time_stamp=f * 40_000, layers=[kel.TextureRGBA(pixels)]))
    size = os.path.getsize(path)
    before = rss_kib()
    peak = before
    total = 0
    with kel.open(path) as rec:
        for atom in rec.atoms():
            view = atom.layer("TextureRGBA").pixels.reshape(-1)
            total += int(view[::4096].sum())
            del atom, view
            peak = max(peak, rss_kib())
    assert total == frames * int(pixels.reshape(-1)[::4096].sum())
    assert (peak - before) * 1024 < size / 8, f"memory grew by {(peak - before) // 1024} MiB over a {size >> 20} MiB file"
    os.remove(path)


def test_a_frame_lost_to_damage_stops_playback_unless_skipped(demo_dir, tmp_path):
    source = demo_dir / "capture.kel"
    with kel.open(str(source)) as rec:
        pixels = rec.atom(1, 5).layer("TextureRGBA", "PRIMARY_COLOR").pixels.tobytes()
        frames = rec.num_frames(0)
    data = bytearray(source.read_bytes())
    at = data.find(pixels)
    assert at > 0
    data[at + len(pixels) // 2] ^= 1
    path = tmp_path / "damaged.kel"
    path.write_bytes(bytes(data))
    with kel.open(str(path)) as rec:
        with pytest.raises(kel.KelError) as error:
            list(rec.playback())
        assert error.value.code == kel.KEL_ERR_CORRUPT
        assert "frame 5 of" in str(error.value) and "stream 1 frame 5 at offset" in str(error.value)
        skipping = rec.playback(skip_damaged=True)
        played = [frame[0].frame for frame in skipping]
        assert played == [f for f in range(frames) if f != 5]
        assert skipping.damaged_frames == [5]


def test_frames_keep_each_streams_information_and_select_by_position_or_time(demo_dir):
    with kel.open(str(demo_dir / "capture.kel")) as rec:
        frames = list(rec.frames())
        assert len(frames) == rec.num_frames(0)
        for frame in (frames[0], frames[7]):
            infos = [atom.layer("StreamInfo") for atom in frame]
            assert [i.name for i in infos] == [f"Camera {s}" for s in rec.streams]
            assert all(i.num_frames == len(frames) for i in infos)
        # playback() gives every stream the first one's, as the plugin's source does.
        assert {a.layer("StreamInfo").name for a in next(iter(rec.playback()))} == {"Camera 0"}
        stamps = rec.time_stamps(1)
        assert [f[0].frame for f in rec.frames(streams=[1], start=2, stop=5)] == [2, 3, 4]
        assert next(iter(rec.frames(start=(stamps[4] - stamps[0]) / 1e6)))[0].frame == 4
        assert rec.atom_at(1, stamps[4] + 1).frame == 4
        with pytest.raises(KeyError):
            rec.atom_at(1, stamps[0] - 1)


def test_damage_is_reported_and_costs_only_the_damaged_atoms(demo_dir, tmp_path):
    path = tmp_path / "damaged.kel"
    data = bytearray((demo_dir / "per-camera" / "camera_1.kel").read_bytes())
    with kel.open(str(demo_dir / "per-camera" / "camera_1.kel")) as rec:
        n = rec.num_atoms
    middle = len(data) // 2
    data[middle:middle + 16] = bytes(16)
    path.write_bytes(bytes(data[:-100]))  # the index goes too
    with kel.open(str(path)) as rec:
        assert not rec.writer_closed
        got = list(rec.atoms())
        assert n - 2 <= len(got) < n
        missing = sorted(set(range(n)) - {a.frame for a in got})
        with pytest.raises(kel.KelError) as error:
            rec.atom(1, missing[0])
        assert error.value.code == kel.KEL_ERR_CORRUPT
        assert rec.damage["skipped_records"] >= 1
        assert rec.damage["damaged"] and kel.summary(path)["damage"]["damaged"]
        report = rec.verify()
        assert not report["intact"] and report["problems"] and report["verdict"] == "DAMAGED"


def snake_case(value):
    if isinstance(value, dict):
        return {re.sub(r"([A-Z])", lambda m: "_" + m.group(1).lower(), k): snake_case(v) for k, v in value.items()}
    return [snake_case(v) for v in value] if isinstance(value, list) else value


def test_summary_and_verification_are_the_tools_json(demo_dir, tmp_path):
    damaged = tmp_path / "damaged.kel"
    data = bytearray((demo_dir / "capture.kel").read_bytes())
    data[len(data) // 3] ^= 0xFF
    damaged.write_bytes(bytes(data[:-100]))
    for path in [demo_dir / "capture.kel", damaged, tmp_path / "absent.kel"]:
        info = subprocess.run([KEL_TOOL, "info", "--json", str(path)], capture_output=True, text=True, timeout=60)
        verify = subprocess.run([KEL_TOOL, "verify", "--json", str(path)], capture_output=True, text=True, timeout=60)
        assert kel.summary(path) == snake_case(json.loads(info.stdout))  # a pathlib.Path, as os.fspath takes
        if path.exists():
            with kel.open(path, verify=False) as rec:
                assert rec.summary() == kel.summary(str(path))
                assert rec.verify() == snake_case(json.loads(verify.stdout)[0]) == kel.verify(path)


def test_errors_are_exceptions_with_the_hosts_codes(tmp_path):
    with pytest.raises(kel.KelError) as missing:
        kel.open(str(tmp_path / "absent.kel"))
    assert missing.value.code == kel.KEL_ERR_NOT_FOUND and "absent.kel" in str(missing.value)
    (tmp_path / "text.kel").write_text("not a container at all")
    with pytest.raises(kel.KelError) as foreign:
        kel.open(str(tmp_path / "text.kel"))
    assert foreign.value.code == kel.KEL_ERR_NOT_A_CONTAINER
    with pytest.raises(kel.KelError) as exists:
        kel.create(str(tmp_path / "text.kel"), overwrite=False)
    assert exists.value.code == kel.KEL_ERR_ALREADY_EXISTS
    writer = kel.create(str(tmp_path / "w.kel"))
    writer.close()
    with pytest.raises(ValueError):
        writer.write(kel.Atom())
    with pytest.raises(ValueError):
        kel.TextureRGBA(np.zeros((4, 4, 3), np.uint8))
    with pytest.raises(ValueError):
        kel.Binary("x", b"", purpose="NO_SUCH_PURPOSE")
    with kel.open(str(tmp_path / "w.kel")) as rec:
        with pytest.raises(KeyError):
            rec.atom(0, 0)
    with pytest.raises(ValueError):
        rec.streams  # closed


def test_a_full_disk_fails_the_write_and_keeps_what_was_acknowledged(tmp_path):
    path = str(tmp_path / "limited.kel")
    pixels = np.zeros((256, 256, 4), np.uint8)
    soft, hard = resource.getrlimit(resource.RLIMIT_FSIZE)
    import signal
    previous = signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
    written = 0
    try:
        resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 20, hard))
        with pytest.raises(kel.KelError) as full:
            with kel.create(path) as writer:
                for f in range(100):
                    writer.write(kel.Atom(frame=f, layers=[kel.TextureRGBA(pixels)]))
                    written += 1
        assert full.value.code == kel.KEL_ERR_FILE_TOO_LARGE
    finally:
        resource.setrlimit(resource.RLIMIT_FSIZE, (soft, hard))
        signal.signal(signal.SIGXFSZ, previous)
    assert 0 < written < 100
    with kel.open(path) as rec:
        assert [a.frame for a in rec.atoms()] == list(range(written))


def test_layers_refuse_values_they_would_store_altered_and_writers_warn_of_order(tmp_path):
    with pytest.raises(TypeError, match="uint8, not int32"):
        kel.TextureRGBA(np.full((2, 2, 4), 300, dtype=np.int32))
    with pytest.raises(TypeError, match="uint8"):
        kel.TextureRGBA(np.zeros((2, 2, 4), dtype=np.float32))
    with pytest.raises(ValueError, match="height, width, 4"):
        kel.TextureRGBA(np.zeros((2, 2, 3), dtype=np.uint8))
    with pytest.raises(ValueError, match="indices must lie in 0..4294967295"):
        kel.Mesh(np.zeros((3, 3)), np.array([[0, 1, -1]]))
    with pytest.raises(TypeError, match="vertices must hold real numbers"):
        kel.Mesh(np.array([["a", "b", "c"]]), np.array([[0, 0, 0]]))
    with pytest.raises(ValueError, match="empty"):
        kel.TextureRGBA(np.zeros((1, 1, 4), dtype=np.uint8), purpose="")
    # Without a purpose a layer gets the one such layers have.
    assert kel.TextureRGBA(np.zeros((1, 1, 4), dtype=np.uint8)).purpose == "PRIMARY_COLOR"
    mesh = kel.Mesh(np.zeros((3, 3), dtype=np.float64), np.array([[0, 1, 2]]))
    assert mesh.purpose == "DYNAMIC" and mesh.vertices.dtype == np.float32
    with kel.create(str(tmp_path / "order.kel")) as out:
        out.write(kel.Atom(stream=0, frame=0, time_stamp=100))
        with pytest.warns(UserWarning, match="stream 0 already holds frame 0"):
            out.write(kel.Atom(stream=0, frame=0, time_stamp=200))
        with pytest.warns(UserWarning, match=r"time stamps of stream 0 go backwards \(50 after 200\)"):
            out.write(kel.Atom(stream=0, frame=1, time_stamp=50))
    with kel.open(str(tmp_path / "order.kel")) as rec:
        warnings = [w["what"] for w in rec.verify()["warnings"]]
    assert warnings == ["stream 0 holds frame 0 more than once (readers return the first)",
                        "stream 0: time stamps go backwards at frame 1 (50 after 200)"]
