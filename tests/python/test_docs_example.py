"""The example of docs/python.md runs as written and does what its comments say."""

from __future__ import annotations

import importlib.util
import os
import re
import subprocess
import sys
import unittest
from pathlib import Path

from kovra_testing import TempDirTest, run_brantel, simulate

DOC = Path(__file__).resolve().parents[2] / "docs" / "python.md"


class DocsExampleTest(TempDirTest):
    def test_the_example_runs_and_writes_the_tools_bytes(self) -> None:
        blocks = re.findall(r"```python\n(.*?)```", DOC.read_text(), re.DOTALL)
        self.assertEqual(len(blocks), 1)
        (self.dir / "sample").mkdir()
        # The sample file of scripts/demo.sh.
        photon_file = simulate(self.dir / "sample" / "sample.kovraphot", "--duration", "1e-2", "--triggers", "1e4",
                               "--seed", "1")
        completed = subprocess.run([sys.executable, "-c", blocks[0]], cwd=self.dir, capture_output=True, text=True,
                                   env=dict(os.environ, MPLCONFIGDIR=str(self.dir / "mpl")), check=False)
        self.assertEqual(completed.returncode, 0, completed.stderr)
        self.assertRegex(completed.stdout, r"\d+ events, on average")
        self.assertRegex(completed.stdout, r"brightest event: \d+ photons")
        self.assertRegex(completed.stdout, r"time of flight: [1-9]\d* of \d+ events counted, up to 100 us")

        tool_file = self.dir / "tool.kovraevent"
        self.assertEqual(run_brantel("-s", "5", "-t", "5e-7", "-D", "2e-6", "-i", str(photon_file), "-o",
                                     str(tool_file)).returncode, 0)
        self.assertEqual((self.dir / "sample" / "python.kovraevent").read_bytes(), tool_file.read_bytes())
        for plot in ("psd.png", "tof.png"):
            self.assertEqual((self.dir / "sample" / plot).exists(), importlib.util.find_spec("matplotlib") is not None)


if __name__ == "__main__":
    unittest.main()
