"""`kel view`'s server as a client on this machine, and a hostile one, meets
it: only requests with the token and the server's own Host get anything, no
path from a request is ever opened, bad numbers are 400s, damage is shown
and not fatal, many clients are served by a bounded number of threads, and
Ctrl-C stops it. Run by ctest with KEL_TOOL set to the built `kel` and the
Python module on PYTHONPATH."""

import http.client
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import threading
import time
from pathlib import Path

import numpy as np
import pytest
from hypothesis import given, settings, strategies as st, HealthCheck

KEL = os.environ.get("KEL_TOOL", "kel")


class View:
    """A running `kel view`: its process, port and token."""

    def __init__(self, *paths):
        self.process = subprocess.Popen([KEL, "view", *map(str, paths), "--no-browser"],
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        url = self.process.stdout.readline().strip()
        assert url.startswith("http://127.0.0.1:"), (url, self.process.stderr.read())
        self.port = int(url.split(":")[2].split("/")[0])
        self.token = url.split("token=")[1]
        self.url = url

    def request(self, path, token=True, host=None, method="GET", headers=None):
        conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        conn.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
        conn.putheader("Host", host if host is not None else f"127.0.0.1:{self.port}")
        if token:
            conn.putheader("X-Kel-Token", self.token if token is True else token)
        for name, value in (headers or {}).items():
            conn.putheader(name, value)
        conn.endheaders()
        response = conn.getresponse()
        body = response.read()
        conn.close()
        return response, body

    def json(self, path, status=200):
        response, body = self.request(path)
        assert response.status == status, (path, response.status, body[:200])
        return json.loads(body)

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
        return self.process.wait(timeout=30)


def decode_atom(body):
    """The atom message: u32 length, JSON header, blobs from the next
    multiple of 16."""
    (length,) = struct.unpack_from("<I", body, 0)
    header = json.loads(body[4:4 + length])
    blobs = body[(4 + length + 15) // 16 * 16:]
    return header, blobs


def kel(*args):
    subprocess.run([KEL, *map(str, args)], check=True, capture_output=True, timeout=300)


@pytest.fixture(scope="module")
def takes(tmp_path_factory):
    """A directory of takes as users have them: a good one, one damaged in
    the middle, one that is not a container, a link to a take inside and a
    link to one outside the directory."""
    root = tmp_path_factory.mktemp("view")
    kel("demo", "--out", root / "demo", "--frames", "24", "--width", "96", "--height", "64")
    takes = root / "takes"
    takes.mkdir()
    shutil.copy(root / "demo" / "capture.kel", takes / "good.kel")
    shutil.copy(root / "demo" / "capture.kel", takes / "damaged.kel")
    data = bytearray((takes / "damaged.kel").read_bytes())
    middle = len(data) // 2
    data[middle:middle + 64] = bytes(b ^ 0x5A for b in data[middle:middle + 64])
    (takes / "damaged.kel").write_bytes(bytes(data))
    (takes / "junk.kel").write_bytes(b"not a container" * 100)
    (takes / "inside.kel").symlink_to(takes / "good.kel")
    (root / "secret.kel").write_bytes((root / "demo" / "capture.kel").read_bytes())
    (takes / "outside.kel").symlink_to(root / "secret.kel")
    (takes / "notes.txt").write_text("root:x:0:0\n")
    return root


@pytest.fixture(scope="module")
def view(takes):
    server = View(takes / "takes")
    yield server
    assert server.stop() == 0


def test_only_requests_with_the_token_and_our_host_are_answered(view):
    assert view.request("/api/takes")[0].status == 200
    assert view.request(f"/api/takes?token={view.token}", token=False)[0].status == 200
    for token in (False, "", view.token[:-1], view.token + "0", view.token[:-1] + "x", "A" * 64):
        response, body = view.request("/api/takes", token=token)
        assert response.status == 403 and "token" in json.loads(body)["error"], token
    for host in ("evil.example", f"evil.example:{view.port}", f"127.0.0.1:{view.port + 1}", "127.0.0.1",
                 "", f"127.0.0.1.evil.example:{view.port}"):
        assert view.request("/api/takes", host=host)[0].status == 403, host
    for host in (f"localhost:{view.port}", f"LOCALHOST:{view.port}"):
        assert view.request("/api/takes", host=host)[0].status == 200
    # No cross-origin permission, not even to a preflight.
    response, _ = view.request("/api/takes", headers={"Origin": "http://evil.example"})
    assert response.status == 200 and response.getheader("Access-Control-Allow-Origin") is None
    response, _ = view.request("/api/takes", method="OPTIONS", headers={"Origin": "http://evil.example"})
    assert response.status == 405 and response.getheader("Access-Control-Allow-Origin") is None
    assert view.request("/api/takes", method="POST")[0].status == 405
    page, body = view.request("/", headers={"Accept-Encoding": "br, gzip"})
    assert page.status == 200 and page.getheader("Content-Type").startswith("text/html")
    assert page.getheader("Content-Encoding") is None, "loopback answers are not compressed: it costs more time"
    assert "default-src 'none'" in page.getheader("Content-Security-Policy")


def test_only_the_named_takes_are_served_and_no_path_is_opened(view, takes):
    listed = view.json("/api/takes")["takes"]
    names = sorted(t["name"] for t in listed)
    assert names == ["takes/damaged.kel", "takes/good.kel", "takes/junk.kel"], names  # inside.kel is good.kel
    junk = next(t for t in listed if t["name"].endswith("junk.kel"))
    assert junk["error"] and junk["streams"] == []
    secret = (takes / "secret.kel").read_bytes()[:64]
    for path in ("/../secret.kel", "/%2e%2e/secret.kel", "/..%2fsecret.kel", "//etc/passwd", "/etc/passwd",
                 "/takes/notes.txt", "/notes.txt", "/api/takes/../../secret.kel", "/api/file?path=/etc/passwd",
                 "/api/atom?take=../secret.kel&stream=0&frame=0", "/api/index?take=%2Fetc%2Fpasswd",
                 "/api/index?take=3", "/api/index?take=99", "/api/summary?take=-1", "/api/index?take=0&take=1", "/%00", "/api/atom"):
        response, body = view.request(path)
        assert 400 <= response.status < 500, (path, response.status)
        assert "error" in json.loads(body), path
        assert b"root:" not in body and secret not in body


@settings(max_examples=150, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(take=st.one_of(st.sampled_from(["0", "1", "2", "3"]), st.text(max_size=24)),
       stream=st.one_of(st.sampled_from(["0", "2", "3", "65535", "65536"]), st.text(max_size=24)),
       frame=st.one_of(st.sampled_from(["0", "23", "24", "007", "4294967295", "4294967296", "99999999999999999999",
                                        "1e3", "-1", "+1", " 1", "0x10", ""]), st.text(max_size=24)))
def test_any_query_is_an_answer_or_a_json_4xx(view, take, stream, frame):
    """The atom request against a simple model of which queries are valid:
    decimal digits within the type, a take that opened (in name order:
    0 damaged, 1 good, 2 junk), a stream it has, a position below its 24."""
    query = "&".join(f"{k}={http_quote(v)}" for k, v in (("take", take), ("stream", stream), ("frame", frame)))
    response, body = view.request("/api/atom?" + query)

    def number(text, limit):
        return int(text) if text.isascii() and text.isdigit() and len(text) <= 20 and int(text) <= limit else None

    t, s, f = number(take, 2**32 - 1), number(stream, 2**16 - 1), number(frame, 2**32 - 1)
    order = ["takes/damaged.kel", "takes/good.kel", "takes/junk.kel"]
    opened = t is not None and t < 3 and not order[t].endswith("junk.kel")
    if t is None:
        expected = 400
    elif not opened:
        expected = 404
    elif s is None or f is None:
        expected = 400
    else:
        expected = 200 if s < 3 and f < 24 else 404
    assert response.status == expected, (query, response.status, body[:200])
    if expected != 200:
        assert "error" in json.loads(body)


def http_quote(text):
    from urllib.parse import quote
    return quote(text, safe="")


def test_atoms_are_the_stored_ones_and_damage_is_shown_not_fatal(view, takes):
    # The sanitizer builds have no Python module: there the server's answers
    # are checked against themselves only where the module is needed.
    kelmodule = pytest.importorskip("kel")
    listed = {t["name"]: t["take"] for t in view.json("/api/takes")["takes"]}
    good, damaged = listed["takes/good.kel"], listed["takes/damaged.kel"]
    with kelmodule.open(str(takes / "takes" / "good.kel")) as recording:
        for stream in (0, 2):
            header, blobs = decode_atom(view.request(f"/api/atom?take={good}&stream={stream}&frame=10")[1])
            stored = recording.atom(stream, 10)
            texture = next(l for l in header["layers"] if l["type"] == "TextureRGBA")
            pixels = np.frombuffer(blobs, np.uint8, texture["pixels"]["bytes"], texture["pixels"]["offset"])
            assert np.array_equal(pixels.reshape(64, 96, 4), stored.layer("TextureRGBA").pixels)
            mesh = next(l for l in header["layers"] if l["type"] == "Mesh")
            vertices = np.frombuffer(blobs, np.float32, mesh["vertices"]["bytes"] // 4, mesh["vertices"]["offset"])
            assert np.array_equal(vertices.reshape(-1, 3), stored.layer("Mesh").vertices)
            camera = next(l for l in header["layers"] if l["type"] == "CameraParams")
            assert np.allclose(np.array(camera["pose"]).reshape(4, 4), stored.layer("CameraParams").pose)
            assert header["frameNumber"] == 10 and header["timeStamp"] == stored.time_stamp
    # Every atom of the damaged take is answered: as damaged or whole.
    states = []
    for frame in range(24):
        for stream in range(3):
            response, body = view.request(f"/api/atom?take={damaged}&stream={stream}&frame={frame}")
            assert response.status == 200
            header, _ = decode_atom(body)
            states.append(header["damaged"])
            if header["damaged"]:
                assert header["reason"] and header["layers"] == []
    assert 0 < sum(states) < len(states)
    index = view.json(f"/api/index?take={damaged}")
    assert sum(len(s["damaged"]) for s in index["streams"]) == sum(states)
    assert view.json(f"/api/summary?take={damaged}")["damage"]


def test_many_clients_at_once_on_bounded_threads(view, takes):
    listed = {t["name"]: t["take"] for t in view.json("/api/takes")["takes"]}
    good = listed["takes/good.kel"]
    idle = [socket.create_connection(("127.0.0.1", view.port)) for _ in range(24)]
    errors = []

    def client(seed):
        rng = np.random.default_rng(seed)
        for _ in range(20):
            stream, frame = int(rng.integers(0, 3)), int(rng.integers(0, 24))
            response, body = view.request(f"/api/atom?take={good}&stream={stream}&frame={frame}")
            header, _ = decode_atom(body)
            if response.status != 200 or (header["stream"], header["frame"]) != (stream, frame):
                errors.append((stream, frame, response.status))

    clients = [threading.Thread(target=client, args=(seed,)) for seed in range(12)]
    for c in clients:
        c.start()
    for c in clients:
        c.join(timeout=120)
    threads = len(os.listdir(f"/proc/{view.process.pid}/task"))
    for s in idle:
        s.close()
    assert not errors
    assert threads <= 16 + 4, f"{threads} threads for 36 connections"


def test_ctrl_c_stops_the_server_cleanly(takes):
    server = View(takes / "demo" / "capture.kel")
    assert server.request("/api/takes")[0].status == 200
    server.process.send_signal(signal.SIGINT)
    assert server.process.wait(timeout=30) == 0
    assert "kel view: stopped" in server.process.stderr.read()
    run = subprocess.run([KEL, "view", str(takes / "missing.kel"), "--no-browser"], capture_output=True, text=True,
                         timeout=30)
    assert run.returncode == 1 and "missing.kel" in run.stderr
    # Any address but loopback is served only with a warning.
    wide = subprocess.Popen([KEL, "view", str(takes / "demo" / "capture.kel"), "--no-browser", "--host", "0.0.0.0"],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert wide.stdout.readline().startswith("http://0.0.0.0:")
    wide.send_signal(signal.SIGTERM)
    assert wide.wait(timeout=30) == 0 and "warning: listening on 0.0.0.0" in wide.stderr.read()
