"""Shared pieces of the Python package's tests: the built programs, temporary directories and hand-built files."""

from __future__ import annotations

import os
import struct
import subprocess
import tempfile
import unittest
from pathlib import Path
from typing import Optional

BRANTEL = os.environ.get("KOVRA_BRANTEL", "")
SIMULATE = os.environ.get("KOVRA_SIMULATE", "")
INSPECT = os.environ.get("KOVRA_INSPECT", "")
IMPORT = os.environ.get("KOVRA_IMPORT", "")


def block(identifier: str, content: bytes) -> bytes:
    """One framed block, built without the library's writer so that the reader is not checked against it."""
    return identifier.encode().ljust(8, b"\0") + struct.pack("<Q", len(content)) + content


def kovra_file(file_type: int, *blocks: bytes, version: int = 0) -> bytes:
    inner = block("build", struct.pack("<QQ", version, file_type)) + b"".join(blocks)
    return block("KOVRA", inner)


def photon_bytes(*photons: tuple[int, int, int]) -> bytes:
    return b"".join(struct.pack("<iiq", *photon) for photon in photons)


def trigger_bytes(*times: int) -> bytes:
    return b"".join(struct.pack("<q", t) for t in times)


def run_brantel(*arguments: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run([BRANTEL, "--verbose", "-1", *arguments], capture_output=True, text=True, check=False)


def brantel_message(completed: subprocess.CompletedProcess[str]) -> Optional[str]:
    """The message of the exception that ended a run of the tool; None after a run that succeeded."""
    if completed.returncode == 0:
        return None
    for line in completed.stderr.splitlines():
        if "what():" in line:
            return line.split("what():", 1)[1].strip()
    raise AssertionError(f"the tool did not end with an exception: {completed.stderr!r}")


def simulate(path: Path, *arguments: str) -> Path:
    subprocess.run([SIMULATE, "--output", str(path), *arguments], capture_output=True, check=True)
    return path


class TempDirTest(unittest.TestCase):
    """A fresh temporary directory per test, as `self.dir`."""

    def setUp(self) -> None:
        temporary = tempfile.TemporaryDirectory()
        self.addCleanup(temporary.cleanup)
        self.dir = Path(temporary.name)

    def write_bytes(self, name: str, content: bytes) -> Path:
        path = self.dir / name
        path.write_bytes(content)
        return path
