"""Which photons each event took (reconstruct(..., membership=True)), checked by rebuilding every event from them."""

from __future__ import annotations

import unittest

import numpy as np

import kovra
from kovra_testing import TempDirTest, simulate
from test_reconstruct import ALGORITHMS, SETTINGS


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


class MembershipTest(TempDirTest):
    def test_events_rebuilt_from_their_photons_equal_the_events(self) -> None:
        path = simulate(self.dir / "s.kovraphot", "--duration", "5e-4", "--event-rate", "4e5", "--dark-rate", "1e6",
                        "--seed", "11")
        photons = kovra.read_photons(path).photons
        shared = {}
        for algorithm in ALGORITHMS:
            for label, arguments in SETTINGS:
                with self.subTest(algorithm=algorithm, settings=label):
                    (events, _), members = kovra.reconstruct(photons, **arguments, algorithm=algorithm,
                                                             membership=True)
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
                        self.assertEqual(rebuilt_event(photons[taken]), tuple(events[index].tolist()),
                                         f"event {index}")
                    shared[algorithm, label] = len(members.photon) - len(photons)
        # Only the ghost-photon chain shares photons between events, and on this file it does.
        for (algorithm, label), count in shared.items():
            self.assertEqual(count > 0, algorithm in ("default", "noBranchChain_ghostPhoton_direct"), (algorithm, label))


if __name__ == "__main__":
    unittest.main()
