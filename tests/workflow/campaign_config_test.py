"""Checks of the campaign settings (workflow/scripts/campaign_config.py), without Snakemake."""

import os
import sys
import tempfile
import unittest
from unittest import mock
from pathlib import Path
from typing import Any

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "workflow" / "scripts"))
import campaign_config  # noqa: E402
from campaign_config import CampaignConfigError, check_campaign  # noqa: E402


class CampaignConfigTest(unittest.TestCase):
    def setUp(self) -> None:
        self.temp = tempfile.TemporaryDirectory()
        self.addCleanup(self.temp.cleanup)
        self.root = Path(self.temp.name)
        self.input, self.bin = self.folder("in"), self.folder("bin")
        for name in ("run2.kovraphot", "run10.kovraphot", "notes.txt", "old.kovraevent", ".kovraphot"):
            self.file(f"in/{name}")
        self.folder("in/folder.kovraphot")
        self.file(self.folder("in/sub") / "deep.kovraphot")
        for tool in ("kovra_brantel", "kovra_inspect"):
            self.file(f"bin/{tool}", "#!/bin/sh\n").chmod(0o755)
        self.params = self.file("params.json", '{"brantel": {"dSpace_px": 3, "dTime_s": 2e-7}}')

    def folder(self, name: str) -> Path:
        (self.root / name).mkdir()
        return self.root / name

    def file(self, name: str | Path, text: str = "") -> Path:
        (self.root / name).write_text(text)
        return self.root / name

    def config(self, **changes: Any) -> dict[str, Any]:
        base: dict[str, Any] = {key: None for key in campaign_config.KNOWN_KEYS}
        base.update(input=str(self.input), output=str(self.root / "out"), dSpace_px=5, dTime_s=5e-7,
                    bin=str(self.bin), mapSize_px=256)
        base.update(changes)
        return base

    def test_good_settings_become_the_command_line(self) -> None:
        brantel = str(self.bin / "kovra_brantel")
        cases = [
            ({}, [brantel, "-s", "5", "-t", "5e-07"]),
            # YAML 1.1 leaves 1e-7 as text; it is still a number.
            ({"dTime_s": "1e-7", "dSpace_px": 2.5}, [brantel, "-s", "2.5", "-t", "1e-07"]),
            ({"dTime_ext": 0, "durationMax_s": 2e-6, "algorithm": "fullChain_direct"},
             [brantel, "-s", "5", "-t", "5e-07", "--dTime_ext", "0", "-D", "2e-06", "--algorithm", "fullChain_direct"]),
            # The parameters file comes first, so the keys override it; it may stand in for the required keys.
            ({"paramsFile": str(self.params)}, [brantel, "-f", str(self.params), "-s", "5", "-t", "5e-07"]),
            ({"paramsFile": str(self.params), "dSpace_px": None, "dTime_s": None}, [brantel, "-f", str(self.params)]),
        ]
        for changes, expected in cases:
            with self.subTest(changes=changes):
                campaign = check_campaign(self.config(**changes))
                self.assertEqual(list(campaign.brantel_args), expected)
                self.assertEqual(campaign.inspect_tool, str(self.bin / "kovra_inspect"))

    def test_only_photon_files_directly_in_the_input_folder_count(self) -> None:
        campaign = check_campaign(self.config(mapSize_px="512"))
        self.assertEqual(campaign.names, ("run10", "run2"))
        self.assertEqual(campaign.map_size_px, 512)
        self.assertEqual(campaign.tof_args, ("--tof-bins", "100", "--size", "512", "--binning", "8"))
        campaign = check_campaign(self.config(tofBins="20", tofMax_s="1e-3", stackBinning_px=0.5))
        self.assertEqual(campaign.tof_args, ("--tof-bins", "20", "--tof-max", "0.001", "--size", "256", "--binning",
                                             "0.5"))

    def test_bad_settings_are_refused_with_one_clear_message(self) -> None:
        empty = self.folder("empty")
        self.file("empty/a.kovraevent")
        not_a_folder = self.file("file")
        bad_json = self.file("bad.json", "{ brantel: 1 }")
        no_section = self.file("other.json", '{"inspect": {}}')
        bad_value = self.file("value.json", '{"brantel": {"dTime_s": "fast"}}')
        no_tools = self.folder("nobin")
        cases = [
            ({"dSpace": 5}, "unknown key dSpace; known keys: input, output, dSpace_px"),
            ({"Input": "x", "extra": 1}, "unknown keys Input, extra;"),
            ({"input": None}, '"input" is not set (give it with --config input=FOLDER)'),
            ({"output": None}, '"output" is not set'),
            ({"input": str(self.root / "missing")}, f'"input": no such folder: {self.root / "missing"}'),
            ({"input": ""}, '"input" must be a non-empty path'),
            ({"input": str(empty)}, f'"input": no *.kovraphot or *.tpx3 files in {empty}'),
            ({"output": str(not_a_folder)}, f'"output": {not_a_folder} exists and is not a folder'),
            ({"dSpace_px": None}, '"dSpace_px" is not set'),
            ({"dTime_s": None}, '"dTime_s" is not set'),
            ({"dSpace_px": "abc"}, "\"dSpace_px\" must be a number, got 'abc'"),
            ({"dSpace_px": 0}, '"dSpace_px" must be greater than 0, got 0'),
            ({"dTime_s": -1e-7}, '"dTime_s" must be greater than 0, got -1e-07'),
            ({"dTime_s": "nan"}, '"dTime_s" must be finite'),
            ({"dSpace_px": True}, '"dSpace_px" must be a number, got True'),
            ({"dSpace_px": [1]}, '"dSpace_px" must be a number, got [1]'),
            ({"durationMax_s": -1}, '"durationMax_s" must be at least 0, got -1'),
            ({"dTime_ext": -0.5}, '"dTime_ext" must be at least 0'),
            ({"algorithm": "fastest"}, "\"algorithm\" must be one of default, noBranchChain_direct"),
            ({"mapSize_px": 1.5}, '"mapSize_px" must be a whole number from 1 to 32768, got 1.5'),
            ({"mapSize_px": 32769}, '"mapSize_px" must be a whole number from 1 to 32768'),
            ({"mapSize_px": 0}, '"mapSize_px" must be at least 1'),
            ({"tofBins": 2.5}, '"tofBins" must be a whole number from 1 to 1000000, got 2.5'),
            ({"tofMax_s": 0}, '"tofMax_s" must be greater than 0, got 0'),
            ({"stackBinning_px": "wide"}, "\"stackBinning_px\" must be a number, got 'wide'"),
            ({"threadsPerFile": 0}, '"threadsPerFile" must be at least 1, got 0'),
            ({"threadsPerFile": 2.5}, '"threadsPerFile" must be a whole number from 1 to 1024, got 2.5'),
            ({"paramsFile": str(self.root / "none.json")}, '"paramsFile": no such file'),
            ({"paramsFile": str(bad_json)}, f'"paramsFile": {bad_json} is not a JSON file'),
            ({"paramsFile": str(no_section)}, f'"paramsFile": {no_section} has no "brantel" object'),
            ({"paramsFile": str(bad_value)}, f'"paramsFile": {bad_value}: "dTime_s" must be a number'),
            ({"bin": str(self.root / "nobin2")}, '"bin": no such folder'),
            ({"bin": str(no_tools)}, f'"bin": {no_tools} holds no executable kovra_brantel'),
        ]
        for changes, message in cases:
            with self.subTest(changes=changes):
                with self.assertRaises(CampaignConfigError) as caught:
                    check_campaign(self.config(**changes))
                self.assertIn(message, str(caught.exception))

    def test_raw_files_are_imported_first_with_their_settings(self) -> None:
        self.file("in/scan.tpx3")
        self.folder("in/folder.tpx3")
        # kovra_import is needed only now that there is a raw file.
        with self.assertRaises(CampaignConfigError) as caught:
            check_campaign(self.config())
        self.assertIn(f'"bin": {self.bin} holds no executable kovra_import', str(caught.exception))
        self.file("bin/kovra_import", "#!/bin/sh\n").chmod(0o755)
        importer = str(self.bin / "kovra_import")
        cases = [
            ({}, [importer]),
            ({"layout": "quad", "skipDamaged": True}, [importer, "--layout", "quad", "--skip-damaged"]),
            ({"layout": "single", "skipDamaged": "false"}, [importer, "--layout", "single"]),
        ]
        for changes, expected in cases:
            with self.subTest(changes=changes):
                campaign = check_campaign(self.config(**changes))
                self.assertEqual(list(campaign.import_args), expected)
        self.assertEqual((campaign.names, campaign.raw_names), (("run10", "run2", "scan"), ("scan",)))
        self.assertEqual((campaign.source("scan"), campaign.source("run2")),
                         (str(self.input / "scan.tpx3"), str(self.input / "run2.kovraphot")))
        bad = [
            ({"layout": "triple"}, "\"layout\" must be one of single, quad, got 'triple'"),
            ({"skipDamaged": "yes"}, "\"skipDamaged\" must be true or false, got 'yes'"),
            ({}, f'"input": run2.kovraphot and run2.tpx3 in {self.input}: keep one'),
        ]
        for changes, message in bad:
            with self.subTest(changes=changes):
                if not changes:
                    self.file("in/run2.tpx3")
                with self.assertRaises(CampaignConfigError) as caught:
                    check_campaign(self.config(**changes))
                self.assertIn(message, str(caught.exception))

    def test_threads_per_file_share_out_the_cores(self) -> None:
        campaign = check_campaign(self.config())  # two photon files
        cases = [(None, 8, 4), (None, 3, 1), (None, 1, 1), ("3", 8, 3), (16, 4, 16),
                 (None, None, campaign_config.CLUSTER_THREADS_PER_FILE)]
        for setting, cores, threads in cases:
            with self.subTest(threadsPerFile=setting, cores=cores):
                self.assertEqual(campaign_config.threads_for(check_campaign(self.config(threadsPerFile=setting)), cores),
                                 threads)

    def test_tools_come_from_path_without_bin(self) -> None:
        with mock.patch.dict(os.environ, PATH=str(self.bin)):
            campaign = check_campaign(self.config(bin=None))
        self.assertEqual(campaign.brantel_args[0], str(self.bin / "kovra_brantel"))
        with mock.patch.dict(os.environ, PATH=str(self.root)), self.assertRaises(CampaignConfigError) as caught:
            check_campaign(self.config(bin=None))
        self.assertIn("kovra_brantel is not on PATH", str(caught.exception))

    def test_job_time_grows_with_the_photon_file(self) -> None:
        gib = 1 << 30
        cases = [(0, 10), (1, 11), (gib, 12), (gib + 1, 13), (100 * gib, 210)]
        for size, minutes in cases:
            with self.subTest(size=size):
                self.assertEqual(campaign_config.job_minutes(size), minutes)


if __name__ == "__main__":
    unittest.main()
