"""Fixtures of the Python tests: the built `kel` tool and module (ctest sets
KEL_TOOL and PYTHONPATH), and the recordings the C++ demo writes."""

import os
import subprocess

import pytest

KEL_TOOL = os.environ.get("KEL_TOOL", "kel")


@pytest.fixture(scope="session")
def demo_dir(tmp_path_factory):
    """The C++ demo's recordings: capture.kel (3 cameras, thumbnails), the
    per-camera files, a snapshot and a merged file."""
    out = tmp_path_factory.mktemp("demo")
    run = subprocess.run([KEL_TOOL, "demo", "--out", str(out), "--frames", "12", "--width", "64", "--height", "48",
                          "--snapshot-at", "3", "--snapshot-frames", "4"],
                         capture_output=True, text=True, timeout=300)
    assert run.returncode == 0, run.stderr
    return out
