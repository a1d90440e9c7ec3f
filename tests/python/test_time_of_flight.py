"""Time of flight, spectra and stacks from Python: the definition at the trigger edges, a plain NumPy computation,
and the files kovra_inspect writes for the same settings (HDF5 through h5py, TIFF through tifffile or PIL)."""

from __future__ import annotations

import csv
import subprocess
import unittest

import h5py
import numpy as np

import kovra
from kovra_testing import INSPECT, TempDirTest, run_brantel, simulate

try:
    import tifffile

    def read_tiff(path) -> np.ndarray:
        return tifffile.imread(path)
except ImportError:  # Debian's python3-tifffile missing: PIL reads the pages one by one
    from PIL import Image, ImageSequence

    def read_tiff(path) -> np.ndarray:
        with Image.open(path) as image:
            return np.stack([np.array(page, dtype=np.uint32) for page in ImageSequence.Iterator(image)])


def plain_tof(times: np.ndarray, triggers: np.ndarray) -> np.ndarray:
    """The definition with NumPy: the latest trigger at or before each time, -1 before the first."""
    latest = np.searchsorted(triggers, times, side="right") - 1
    return np.where(latest >= 0, times - triggers[np.maximum(latest, 0)], -1)


class DefinitionTest(unittest.TestCase):
    def test_trigger_edges(self) -> None:
        triggers = [100, 200, 200, 350]  # two equal triggers
        cases = {99: -1, 100: 0, 199: 99, 200: 0, 349: 149, 350: 0, 10_000: 9650}
        np.testing.assert_array_equal(kovra.time_of_flight(np.array(list(cases)), triggers), list(cases.values()))
        np.testing.assert_array_equal(kovra.time_of_flight([5, 6], []), [-1, -1])

    def test_bad_input(self) -> None:
        events = np.zeros(1, dtype=kovra.EVENT_DTYPE)
        tof, spectrum = kovra.time_of_flight, kovra.tof_spectrum
        cases = [  # (call, error, message)
            (lambda: tof([1], [3, 9, 4]), ValueError,
             "Trigger times out of order: trigger 2 (4 ticks) is earlier than trigger 1 (9 ticks)!"),
            (lambda: tof([1], None), ValueError, "no time of flight: the trigger list is absent"),
            (lambda: tof([2**63 - 1], [-2**63]), ValueError,
             "the time of flight of record 0 is 18446744073709551615 ticks, beyond int64"),
            (lambda: tof([1.5], [0]), TypeError, "times: float64 values do not fit int64"),
            (lambda: spectrum(events, [5]), ValueError,
             "no time-of-flight range: the triggers give no interval between two of them; give tof_max_s"),
            (lambda: spectrum(events, [], tof_max_s=1), ValueError, "no time of flight: the trigger list is empty"),
            (lambda: spectrum(np.zeros(1, kovra.PHOTON_DTYPE), [0, 5], photons_min=2), ValueError,
             "the selections by pulse-shape value and photon count need events"),
            (lambda: spectrum(events, [0, 5], log=True), ValueError, "logarithmic bins need tof_min_s above 0"),
        ]
        for call, error, message in cases:
            with self.subTest(message=message):
                with self.assertRaises(error) as raised:
                    call()
                self.assertEqual(str(raised.exception), message)


class AgreementTest(TempDirTest):
    """One simulated file with triggers: Python against NumPy, and the tool against Python."""

    def setUp(self) -> None:
        super().setUp()
        photons = simulate(self.dir / "s.kovraphot", "--duration", "4e-3", "--triggers", "3e3", "--seed", "4")
        self.path = self.dir / "s.kovraevent"
        self.assertEqual(run_brantel("-s", "5", "-t", "5e-7", "-i", str(photons), "-o", str(self.path)).returncode, 0)
        self.events, self.triggers = kovra.read_events(self.path)

    def inspect(self, *arguments: str) -> None:
        completed = subprocess.run([INSPECT, str(self.path), *arguments], cwd=self.dir, capture_output=True,
                                   text=True, check=False)
        self.assertEqual(completed.returncode, 0, completed.stderr)

    def test_python_agrees_with_numpy(self) -> None:
        tof = kovra.time_of_flight(self.events, self.triggers)
        np.testing.assert_array_equal(tof, plain_tof(self.events["t"], np.asarray(self.triggers)))
        self.assertTrue((tof >= 0).all())

        period = int(np.diff(self.triggers).max())
        spectrum = kovra.tof_spectrum(self.events, self.triggers, bins=7, photons_min=3)
        edges = -(-np.arange(8) * period // 7)  # ceil(i period / 7)
        np.testing.assert_array_equal(spectrum.edges, edges)
        chosen = self.events["nPhotons"] >= 3
        np.testing.assert_array_equal(spectrum.counts, np.histogram(tof[chosen], bins=edges)[0])
        self.assertEqual(spectrum.tally["deselected"], int((~chosen).sum()))

        stack = kovra.tof_stack(self.events, self.triggers, bins=7, photons_min=3, size_px=256, binning_px=8)
        np.testing.assert_array_equal(stack.counts.sum(axis=(1, 2)), spectrum.counts)  # every event in the square
        column, row = self.events["x"][chosen] // (8 * 65536), self.events["y"][chosen] // (8 * 65536)
        plain_map = np.bincount(row * 32 + column, minlength=32 * 32).reshape(32, 32)
        np.testing.assert_array_equal(stack.counts.sum(axis=0), plain_map)

    def test_tool_writes_the_same_numbers(self) -> None:
        settings = {"bins": 5, "tof_min_s": 2e-5, "tof_max_s": 3e-4, "log": True, "psd_min_s": 1e-8,
                    "region_px": (10.0, 20.5, 200.0, 250.0)}
        options = ["--tof-bins", "5", "--tof-min", "2e-5", "--tof-max", "3e-4", "--tof-log", "--psd-min", "1e-8",
                   "--region", "10,20.5,200,250"]
        self.inspect(*options, "--spectrum", "t.csv", "--stack-hdf5", "t.h5", "--stack-tiff", "t.tif", "--size",
                     "256", "--binning", "4")
        spectrum = kovra.tof_spectrum(self.events, self.triggers, **settings)
        stack = kovra.tof_stack(self.events, self.triggers, **settings, size_px=256, binning_px=4)
        with open(self.dir / "t.csv", newline="") as stream:
            rows = list(csv.DictReader(stream))
        self.assertEqual([int(r["events"]) for r in rows], spectrum.counts.tolist())
        self.assertEqual([int(r["tof_lo"]) for r in rows] + [int(rows[-1]["tof_hi"])], spectrum.edges.tolist())
        self.assertGreater(spectrum.counts.sum(), 0)
        with h5py.File(self.dir / "t.h5", "r") as h5:
            np.testing.assert_array_equal(h5["stack"][:], stack.counts)
            np.testing.assert_array_equal(h5["tof_edges"][:], stack.edges)
            self.assertEqual(h5["stack"].attrs["axes"], "tof,y,x")  # text attributes come back as str
            self.assertEqual(h5["stack"].attrs["records_counted"], stack.tally["counted"])
            self.assertEqual(h5["stack"].attrs["records_seen"], len(self.events))
            self.assertEqual(h5["stack"].compression, "gzip")
        np.testing.assert_array_equal(read_tiff(self.dir / "t.tif"), stack.counts)


if __name__ == "__main__":
    unittest.main()
