"""The examples in examples/python, run as a user runs them, on the simulated card."""

import os
import struct
import subprocess
import sys
import zlib
from pathlib import Path

EXAMPLES = Path(__file__).resolve().parents[2] / "examples" / "python"


def run(script, *args, cwd=None):
    env = dict(os.environ, KVPCIE_SIM="1")
    return subprocess.run([sys.executable, str(EXAMPLES / script), *args], capture_output=True,
                          text=True, timeout=60, env=env, cwd=cwd)


def test_loopback_check_passes():
    done = run("loopback_check.py")
    assert done.returncode == 0, done.stderr
    assert done.stdout.strip().endswith("PASS")


def test_capture_png_writes_the_cards_picture(tmp_path):
    done = run("capture_png.py", str(tmp_path / "shot.png"), cwd=tmp_path)
    assert done.returncode == 0, done.stderr
    png = (tmp_path / "shot.png").read_bytes()
    assert png[:8] == b"\x89PNG\r\n\x1a\n"
    width, height = struct.unpack(">II", png[16:24])
    assert (width, height) == (640, 480)
    idat = png.index(b"IDAT")
    length = struct.unpack(">I", png[idat - 4:idat])[0]
    rows = zlib.decompress(png[idat + 4:idat + 4 + length])
    # The card's test pattern is a ramp: every grey value appears, a blank picture has one.
    assert len(set(rows)) > 200
