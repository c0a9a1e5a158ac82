"""The HTML report as a browser sees it: valid HTML5, one embedded image per
sampled frame, one SVG per stream time line, and a page that Chromium renders
to something other than a blank screen. Run by ctest with KEL_TOOL set to the
built `kel`."""

import os
import re
import shutil
import subprocess

import html5lib
import pytest
from PIL import Image

KEL = os.environ.get("KEL_TOOL", "kel")
CHROMIUM = shutil.which("chromium") or shutil.which("chromium-browser")


def kel(*args, cwd=None, check=True):
    run = subprocess.run([KEL, *args], cwd=cwd, capture_output=True, text=True, timeout=300)
    if check and run.returncode != 0:
        raise AssertionError(f"kel {' '.join(args)} failed ({run.returncode}): {run.stderr}")
    return run


@pytest.fixture(scope="module")
def demo(tmp_path_factory):
    out = tmp_path_factory.mktemp("demo")
    kel("demo", "--out", str(out), "--frames", "24", "--width", "96", "--height", "64")
    return out


def parse_strictly(path):
    with open(path, "rb") as f:
        return html5lib.HTMLParser(strict=True, namespaceHTMLElements=False).parse(f)


def count_parts(document):
    """Embedded images, sampled-frame figures, SVG drawings, and streams (rows
    of the stream tables below their heading rows)."""
    images = [img for img in document.iter("img") if img.get("src", "").startswith("data:image/png;base64,")]
    figures = list(document.iter("figure"))
    svgs = list(document.iter("{http://www.w3.org/2000/svg}svg"))
    streams = sum(len(list(t.iter("tr"))) - 1 for t in document.iter("table") if t.get("class") == "streams")
    return images, figures, svgs, streams


def test_demo_report_is_html5_with_an_image_per_sample_and_an_svg_per_stream(demo):
    report = demo / "report.html"
    assert report.exists(), "make demo writes the report of its recordings"
    document = parse_strictly(report)
    images, figures, svgs, streams = count_parts(document)
    assert streams > 0
    assert len(svgs) == streams
    assert len(images) == len(figures), "every sampled frame of the demo is readable"
    assert len(images) == 8 * streams  # 24 frames a stream, eight samples each (the snapshot holds 10)
    text = report.read_text()
    assert "http" not in text.replace("http://www.w3.org/2000/svg", ""), "nothing is fetched"
    assert "<script" not in text


def test_damaged_file_report_shows_the_damage_and_stays_valid(demo, tmp_path):
    damaged = tmp_path / "damaged.kel"
    shutil.copy(demo / "capture.kel", damaged)
    size = damaged.stat().st_size
    with open(damaged, "r+b") as f:
        f.seek(size // 2)
        chunk = bytearray(f.read(4096))
        for i in range(0, len(chunk), 7):
            chunk[i] ^= 0x5A
        f.seek(size // 2)
        f.write(chunk)
        f.truncate(size - 200)  # the index and footer go too
    kel("report", str(damaged), "-o", str(tmp_path / "damaged.html"))
    document = parse_strictly(tmp_path / "damaged.html")
    images, figures, svgs, streams = count_parts(document)
    assert len(svgs) == streams == 3
    text = (tmp_path / "damaged.html").read_text()
    assert "its writer is still writing or died" in text
    assert "incomplete last record" in text
    assert len(images) == len([f for f in figures if f.get("class") != "unreadable"])


def test_chromium_renders_the_report(demo, tmp_path):
    assert CHROMIUM, "chromium is missing: scripts/install-deps.sh installs it"
    shot = tmp_path / "report.png"
    subprocess.run(
        [CHROMIUM, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         f"--user-data-dir={tmp_path / 'profile'}", "--hide-scrollbars", "--window-size=1280,1600",
         f"--screenshot={shot}", (demo / "report.html").as_uri()],
        capture_output=True, timeout=120, check=True)
    image = Image.open(shot).convert("RGB")
    assert image.size == (1280, 1600)
    pixels = list(image.getdata())
    colours = len(set(pixels))
    not_white = sum(1 for p in pixels if p != (255, 255, 255)) / len(pixels)
    assert colours > 100, f"only {colours} colours: the page rendered blank"
    assert not_white > 0.05, f"only {not_white:.1%} of the page is drawn"
