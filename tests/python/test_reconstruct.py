"""kovra.reconstruct against the command-line tool and against events rebuilt from their photons, and the
conversions it shares with the tool."""

from __future__ import annotations

import contextlib
import io
import itertools
import math
import os
import shutil
import tempfile
import unittest
from pathlib import Path
from unittest import mock

import numpy as np

import kovra
from kovra_testing import TempDirTest, brantel_message, run_brantel, simulate

ALGORITHMS = ["default", "noBranchChain_direct", "noBranchChain_ghostPhoton_direct", "forwardChain_photonBuildup",
              "fullChain_direct"]

# (label, keyword arguments): the settings each algorithm is run with.
SETTINGS = [
    ("plain", {"d_space_px": 2, "d_time_s": 1e-7}),
    ("longest duration", {"d_space_px": 5, "d_time_s": 5e-7, "duration_max_s": 3e-7}),
    ("widening window", {"d_space_px": 1.5, "d_time_s": 3e-8, "d_time_ext": 0.25}),
]
OPTION = dict(d_space_px="-s", d_time_s="-t", duration_max_s="-D", d_time_ext="--dTime_ext", algorithm="--algorithm")


def tool_options(arguments: dict[str, object]) -> list[str]:  # kovra_brantel's options for the keyword arguments
    return [word for key, value in arguments.items() for word in (OPTION[key], str(value))]


def wrap32(value: int) -> int:
    return (value + 2**31) % 2**32 - 2**31


def rebuilt_event(photons: np.ndarray) -> tuple[int, int, int, int, float]:
    """The event record of photons taken in this order: the running integer mean of the positions (difference
    wrapping at 32 bits, division truncating), the first photon's time, the running mean of the time distances
    to the first photon in seconds."""
    x, y, t_first = (int(photons[0][field]) for field in ("x", "y", "toa"))

    def step(mean: int, sample: int, n: int) -> int:
        difference = wrap32(sample - mean)
        return wrap32(mean + abs(difference) // n * (1 if difference >= 0 else -1))

    psd = 0.0
    for n, (photon_x, photon_y, toa) in enumerate(photons[1:].tolist(), start=2):
        x, y = step(x, photon_x, n), step(y, photon_y, n)
        psd = (psd * (n - 1) + (toa * kovra.TICK_SECONDS - t_first * kovra.TICK_SECONDS)) / n
    return x, y, t_first, len(photons), psd


class SameEventsAsTheToolTest(unittest.TestCase):
    """Simulated photons (crowded enough that the algorithms disagree), reconstructed by the tool and from Python."""

    @classmethod
    def setUpClass(cls) -> None:
        cls.dir = Path(tempfile.mkdtemp())
        cls.photon_file = simulate(cls.dir / "s.kovraphot", "--duration", "2e-3", "--event-rate", "4e5",
                                   "--dark-rate", "1e6", "--triggers", "1e4", "--seed", "7")
        cls.photons, cls.triggers = kovra.read_photons(cls.photon_file)

    @classmethod
    def tearDownClass(cls) -> None:
        shutil.rmtree(cls.dir)

    def test_events_are_byte_for_byte_those_of_the_tool(self) -> None:
        outputs = {}
        for algorithm in ALGORITHMS:
            for label, arguments in SETTINGS:
                with self.subTest(algorithm=algorithm, settings=label):
                    tool_file = self.dir / "tool.kovraevent"
                    completed = run_brantel(*tool_options(arguments), "--algorithm", algorithm, "-i",
                                            str(self.photon_file), "-o", str(tool_file))
                    self.assertEqual(completed.returncode, 0, completed.stderr)
                    printed = io.StringIO()
                    with contextlib.redirect_stdout(printed):
                        result = kovra.reconstruct(self.photons, **arguments, algorithm=algorithm,
                                                   triggers=self.triggers)
                    self.assertEqual(printed.getvalue(), completed.stdout)  # the extension-factor warning
                    kovra.write_events(self.dir / "python.kovraevent", *result)
                    self.assertEqual((self.dir / "python.kovraevent").read_bytes(), tool_file.read_bytes())
                    np.testing.assert_array_equal(result.triggers, self.triggers)
                    outputs[algorithm, label] = result.events.tobytes()
        # The comparison is only worth something if the algorithms give different events on this file.
        for label, _ in SETTINGS:
            self.assertEqual(len({outputs[algorithm, label] for algorithm in ALGORITHMS}), 4, label)
        # On several threads, in pieces small enough that the list is cut many times: the same events.
        with mock.patch.dict(os.environ, {"KOVRA_PIECE_PHOTONS": "1000"}):
            for threads, algorithm, (label, arguments) in itertools.product((1, 2, 5), ALGORITHMS, SETTINGS):
                with self.subTest(algorithm=algorithm, settings=label, threads=threads):
                    with contextlib.redirect_stdout(io.StringIO()):
                        result = kovra.reconstruct(self.photons, **arguments, algorithm=algorithm, threads=threads)
                    self.assertEqual(result.events.tobytes(), outputs[algorithm, label])
        for bad in (0, -1, 2.0, True, "2"):
            with self.subTest(threads=bad), self.assertRaisesRegex(ValueError, "threads must be a whole number"):
                kovra.reconstruct(self.photons, 1, 1e-7, threads=bad)


    def test_events_rebuilt_from_their_photons_equal_the_events(self) -> None:
        # Which photons each event took (membership=True), checked by rebuilding every event from them.
        photons, shared = self.photons, {}
        for algorithm, (label, arguments) in itertools.product(ALGORITHMS, SETTINGS):
            with self.subTest(algorithm=algorithm, settings=label), contextlib.redirect_stdout(io.StringIO()):
                (events, _), members = kovra.reconstruct(photons, **arguments, algorithm=algorithm, membership=True)
                self.assertEqual(events.tolist(),
                                 kovra.reconstruct(photons, **arguments, algorithm=algorithm).events.tolist())
                # By photon, then event; every photon in some event.
                order = np.lexsort((members.event, members.photon))
                np.testing.assert_array_equal(order, np.arange(len(order)))
                np.testing.assert_array_equal(np.unique(members.photon), np.arange(len(photons)))
                # Each event's photons, in photon order, are the order they joined in.
                by_event = np.argsort(members.event, kind="stable")
                ends = np.cumsum(np.bincount(members.event, minlength=len(events)))
                np.testing.assert_array_equal(ends[-1], len(members.photon))
                for index, taken in enumerate(np.split(members.photon[by_event], ends[:-1])):
                    self.assertEqual(rebuilt_event(photons[taken]), tuple(events[index].tolist()), f"event {index}")
                shared[algorithm, label] = len(members.photon) - len(photons)
        # Only the ghost-photon chain shares photons between events, and on this file it does.
        for (algorithm, label), count in shared.items():
            self.assertEqual(count > 0, algorithm in ("default", "noBranchChain_ghostPhoton_direct"), (algorithm, label))


class SettingsErrorTest(TempDirTest):
    def test_bad_settings_raise_the_tools_message(self) -> None:
        path = simulate(self.dir / "s.kovraphot", "--duration", "1e-4")
        photons = kovra.read_photons(path).photons
        cases = [  # (label, keyword arguments)
            ("unknown algorithm", {"d_space_px": 1, "d_time_s": 1e-7, "algorithm": "Default"}),
            ("time out of range", {"d_space_px": 1, "d_time_s": 1e300}),
            ("negative time out of range", {"d_space_px": 1, "d_time_s": -8e9}),
            ("time not a number", {"d_space_px": 1, "d_time_s": math.nan}),
            ("duration beyond the range is unlimited", {"d_space_px": 1, "d_time_s": 1e-7, "duration_max_s": 1e10}),
        ]
        for label, arguments in cases:
            with self.subTest(label):
                completed = run_brantel(*tool_options(arguments), "-i", str(path), "-o", str(self.dir / "o.kovraevent"))
                expected = brantel_message(completed)
                if expected is None:  # the tool accepts it: so must Python
                    kovra.reconstruct(photons, **arguments)
                    continue
                with self.assertRaises(ValueError) as raised:
                    kovra.reconstruct(photons, **arguments)
                self.assertEqual(str(raised.exception), expected)

    def test_what_would_stop_the_tool_on_an_assertion_is_an_error(self) -> None:
        photons = kovra.make_photons([0, 0], [0, 0], [5, 4])
        for algorithm in ALGORITHMS:
            with self.subTest(algorithm), self.assertRaisesRegex(ValueError, "non-decreasing time"):
                kovra.reconstruct(photons, 1, 1e-7, algorithm=algorithm)
        for duration in (-1e-9, math.nan):
            with self.subTest(duration=duration), self.assertRaisesRegex(ValueError, "duration_max_s"):
                kovra.reconstruct(photons[::-1], 1, 1e-7, duration_max_s=duration)

    def test_no_photons_give_no_events_and_keep_the_triggers(self) -> None:
        for triggers, membership in itertools.product((None, [], [3]), (False, True)):
            with self.subTest(triggers=triggers, membership=membership):
                result = kovra.reconstruct(np.empty(0, kovra.PHOTON_DTYPE), 1, 1e-7, triggers=triggers,
                                           membership=membership)
                (events, out), members = result if membership else (result, None)
                self.assertEqual(len(events), 0)
                self.assertEqual(None if out is None else out.tolist(), triggers)
                if members is not None:
                    self.assertEqual([(len(a), a.dtype) for a in members], [(0, np.int64)] * 2)


class ConversionTest(unittest.TestCase):
    def test_conversions_round_as_the_library(self) -> None:
        cases = [
            # (pixels, raw): halves go away from zero, unlike numpy.round
            (0.5 / 65536, 1), (-0.5 / 65536, -1), (1.5 / 65536, 2), (2.5 / 65536, 3), (-2.5 / 65536, -3),
            (0.49 / 65536, 0), (1.0, 65536), (-3.25, -212992),
        ]
        for pixels, raw in cases:
            with self.subTest(pixels=pixels):
                self.assertEqual(int(kovra.from_pixels(pixels)), raw)
        np.testing.assert_array_equal(kovra.from_seconds([2.5 * 1.5625e-9, -0.5 * 1.5625e-9, 1e-3]),
                                      [3, -1, 640000])
        with self.assertRaisesRegex(ValueError, "out of range!$"):
            kovra.from_seconds([0.0, 1e12])
        raw = np.array([-2**31, -1, 0, 1, 2**31 - 1], dtype=np.int32)
        np.testing.assert_array_equal(kovra.from_pixels(kovra.to_pixels(raw)), raw)
        self.assertEqual(float(kovra.to_seconds(640)), 1e-6)


if __name__ == "__main__":
    unittest.main()
