"""`kel view` in Debian's headless Chromium (WebGL on SwiftShader): the page
opened at a frame draws the stored pixels in its camera panels and the meshes
in its 3D view, and the keyboard steps through the frames.

Run by ctest with KEL_TOOL (the built `kel`), PYTHONPATH (the built Python
module, which reads the expected pixels independently of the server) and
KEL_VIEW_NODE_MODULES (the npm packages the build installed, for
puppeteer-core)."""

import json
import os
import shutil
import signal
import subprocess
from pathlib import Path

import kel
import numpy as np
import pytest
from PIL import Image

KEL = os.environ.get("KEL_TOOL", "kel")
NODE = shutil.which("node")
PROBE = Path(__file__).with_name("view_probe.mjs")
FRAME = 10
BACKGROUND = (0x15, 0x17, 0x1B)  # the 3D view's clear colour


@pytest.fixture(scope="module")
def demo(tmp_path_factory):
    out = tmp_path_factory.mktemp("demo")
    subprocess.run([KEL, "demo", "--out", str(out), "--frames", "24", "--width", "96", "--height", "64"],
                   check=True, capture_output=True, timeout=300)
    return out / "capture.kel"


@pytest.fixture(scope="module")
def url(demo):
    server = subprocess.Popen([KEL, "view", str(demo), "--no-browser", "--port", "0"], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True)
    try:
        line = server.stdout.readline().strip()
        assert line.startswith("http://127.0.0.1:"), f"first line of kel view: {line!r}"
        yield line
    finally:
        server.send_signal(signal.SIGTERM)
        server.communicate(timeout=30)


def textures(path, position):
    """Per stream, the picture of its atom at the frame position, read by the
    Python module."""
    with kel.open(str(path)) as rec:
        numbers = sorted({int(n) for s in rec.streams for n in rec.frame_numbers(s)})
        return {s: rec.atom(s, numbers[position]).layer("TextureRGBA", "PRIMARY_COLOR").pixels.copy()
                for s in rec.streams}


@pytest.fixture(scope="module")
def probe(url, demo, tmp_path_factory):
    assert NODE, "node is needed to drive Chromium"
    assert os.environ.get("KEL_VIEW_NODE_MODULES"), "KEL_VIEW_NODE_MODULES names the build's node_modules"
    shot = tmp_path_factory.mktemp("view") / "view.png"
    expected = textures(demo, FRAME)
    height, width = next(iter(expected.values())).shape[:2]
    # Corners, the colour bars, the middle, and the frame counter's blocks.
    points = [(0, 0), (width - 1, 0), (width // 3, 2), (width // 2, height // 2), (width // 5, height * 2 // 3),
              (width - 1, height - 1)] + [(x, height - 2) for x in range(width // 32, width, width // 16)]
    samples = [[s, x, y] for s in expected for x, y in points]
    run = subprocess.run(
        [NODE, str(PROBE), "--url", url, "--frame", str(FRAME), "--samples", json.dumps(samples),
         "--screenshot", str(shot), "--steps", json.dumps([["ArrowRight", FRAME + 1], ["ArrowLeft", FRAME]])],
        capture_output=True, text=True, timeout=180)
    assert run.stdout, f"the probe reported nothing: {run.stderr}"
    report = json.loads(run.stdout)
    assert "error" not in report, report
    shutil.copyfile(shot, "/tmp/kel-view-shot.png")
    print(f"screenshot: {shot} (copied to /tmp/kel-view-shot.png)")
    return report, expected, samples


def test_panels_show_the_stored_pixels_and_the_3d_view_the_meshes(probe, demo):
    report, expected, samples = probe
    assert report["frame"] == str(FRAME)
    assert report["consoleErrors"] == [] and report["failedRequests"] == []
    assert sorted((p["stream"], p["width"], p["height"]) for p in report["panels"]) == [
        (s, t.shape[1], t.shape[0]) for s, t in sorted(expected.items())]
    wanted = [list(map(int, expected[s][y, x])) for s, x, y in samples]
    assert report["samples"] == wanted
    # The samples tell the streams and the neighbouring frames apart.
    following = textures(demo, FRAME + 1)
    assert any(following[s][y, x].tolist() != w for (s, x, y), w in zip(samples, wanted))
    assert len({tuple(w) for w in wanted}) > 4

    scene = report["scene"]
    with Image.open(report["screenshot"]) as image:
        view = np.asarray(image.convert("RGB").crop((
            round(scene["x"]), round(scene["y"]), round(scene["x"] + scene["width"]),
            round(scene["y"] + scene["height"]))), dtype=np.int32)
    assert len(np.unique(view.reshape(-1, 3), axis=0)) > 100, "the 3D view is drawn"
    # The view is centred on the meshes: its middle shows their texture, the
    # colours of the pictures of this frame, not the background.
    h, w = view.shape[:2]
    middle = view[h // 2 - 2:h // 2 + 3, w // 2 - 2:w // 2 + 3].reshape(-1, 3)
    assert np.abs(middle - BACKGROUND).max(axis=1).min() > 12
    colours = np.unique(np.concatenate([t[..., :3].reshape(-1, 3) for t in expected.values()]), axis=0)
    nearest = np.abs(middle[:, None, :] - colours[None, :, :].astype(np.int32)).max(axis=2).min(axis=1)
    assert np.median(nearest) <= 24, f"middle of the 3D view {middle.tolist()} is not the pictures' colours"


def test_arrow_keys_step_one_frame(probe):
    report, _, _ = probe
    assert [(s["key"], s["frame"], s["error"]) for s in report["steps"]] == [
        ("ArrowRight", str(FRAME + 1), None), ("ArrowLeft", str(FRAME), None)]
