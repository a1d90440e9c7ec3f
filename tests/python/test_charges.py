"""The charges kovra_import --charge writes beside a photon file, read from Python aligned with the photons."""

from __future__ import annotations

import struct
import subprocess

import numpy as np

import kovra
from kovra_testing import IMPORT, TempDirTest, simulate


class ChargesTest(TempDirTest):
    def import_raw(self, *arguments: str) -> str:
        completed = subprocess.run([IMPORT, str(self.dir / "run.tpx3"), "-o", str(self.dir / "run.kovraphot"),
                                    *arguments], capture_output=True, text=True, check=True)
        return completed.stdout

    def test_every_hit_is_in_one_photons_charge(self) -> None:
        simulate(self.dir / "sim.kovraphot", "--duration", "2e-3", "--raw", str(self.dir / "run.tpx3"))
        summary = self.import_raw("--charge", "--window", "5e-8")
        hits_read = int(summary.split("hits: ")[1].split(" ")[0])
        photons = kovra.read_photons(self.dir / "run.kovraphot").photons
        charges = kovra.read_charges(self.dir / "run.kovracharge", photons)
        self.assertEqual(len(charges), len(photons))
        self.assertEqual(int(charges["hits"].sum()), hits_read)
        self.assertTrue((charges["hits"] >= 1).all())
        # Each hit has a ToT of 2 steps or more in the simulator's raw form.
        self.assertTrue((charges["tot"] >= 2 * charges["hits"]).all())
        np.testing.assert_array_equal(kovra.read_charges(self.dir / "run.kovraphot")["tot"], charges["tot"])

        # One photon per hit: each charge is that hit's ToT; together the same hits.
        self.import_raw("--charge", "--hits-as-photons")
        single = kovra.read_charges(self.dir / "run.kovracharge",
                                    kovra.read_photons(self.dir / "run.kovraphot").photons)
        self.assertTrue((single["hits"] == 1).all())
        self.assertEqual(len(single), hits_read)
        self.assertEqual(int(single["tot"].sum()), int(charges["tot"].sum()))

    def test_a_charge_file_that_does_not_fit_is_refused(self) -> None:
        photons = np.zeros(3, dtype=kovra.PHOTON_DTYPE)
        header = b"KOVRACHG" + struct.pack("<IIQQ", 1, 8, 3, 0)
        cases = [(b"KOVRAFLS" + header[8:] + bytes(24), "not a charge file"),
                 (b"KOVRACHG" + struct.pack("<IIQQ", 2, 8, 3, 0) + bytes(24), "unknown version"),
                 (b"KOVRACHG" + struct.pack("<IIQQ", 1, 4, 3, 0) + bytes(12), "bad record size"),
                 (header + bytes(23), "truncated or overlong"),
                 (b"KOVRACHG" + struct.pack("<IIQQ", 1, 8, 2, 0) + bytes(16),
                  "made for 2 photons, the photon file has 3")]
        for content, message in cases:
            with self.subTest(message):
                path = self.write_bytes("c.kovracharge", content)
                with self.assertRaisesRegex(ValueError, f"^charge file '{path}': {message}$"):
                    kovra.read_charges(path, photons)
