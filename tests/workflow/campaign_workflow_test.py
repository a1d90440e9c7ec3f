"""A small campaign through workflow/Snakefile: three simulated photon files, one of them malformed, and a raw file
whose acquisition was interrupted.

Usage: campaign_workflow_test.py SOURCE_DIR BIN_DIR [--profile PROFILE_DIR] [--keep DIR]
Without --profile the campaign runs with `snakemake --cores 2 --keep-going`; with it, through that profile (the
Slurm script passes workflow/profiles/slurm). Exits 77 (skipped) when snakemake is not installed.
"""

import argparse
import csv
import os
import resource
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SKIPPED = 77
SETTINGS = {"dSpace_px": "5", "dTime_s": "5e-7", "durationMax_s": "2e-6"}
BRANTEL_OPTIONS = ["-s", "5", "-t", "5e-07", "-D", "2e-06"]
SIMULATIONS = {
    "alpha": ["--duration", "0.02", "--event-rate", "2e4", "--seed", "11", "--triggers", "1000"],
    "beta": ["--duration", "0.01", "--event-rate", "5e4", "--seed", "12"],
}
ARGS = argparse.Namespace()


def run(command: list[str], cwd: Path) -> subprocess.CompletedProcess[str]:
    return subprocess.run(command, cwd=cwd, capture_output=True, text=True)


def allow_core_dumps() -> None:
    """Core dumps as large as the system allows, as on a machine where they are switched on."""
    resource.setrlimit(resource.RLIMIT_CORE, (resource.getrlimit(resource.RLIMIT_CORE)[1],) * 2)


class CampaignWorkflowTest(unittest.TestCase):
    root: Path
    temp: tempfile.TemporaryDirectory[str]

    @classmethod
    def setUpClass(cls) -> None:
        if ARGS.keep:
            cls.root = Path(ARGS.keep).resolve()
            shutil.rmtree(cls.root, ignore_errors=True)
            cls.root.mkdir(parents=True)
        else:
            cls.temp = tempfile.TemporaryDirectory(prefix="kovra_campaign_")
            cls.root = Path(cls.temp.name)
        (cls.root / "in").mkdir()
        for name, options in SIMULATIONS.items():
            cls.simulate(name, options)
        # A photon file cut short: kovra_brantel refuses it.
        good = (cls.root / "in" / "alpha.kovraphot").read_bytes()
        (cls.root / "in" / "broken.kovraphot").write_bytes(good[:100])
        # A raw file without its last 100 bytes, as an interrupted acquisition leaves it: imported with a warning.
        result = run([str(Path(ARGS.bin) / "kovra_simulate"), "-o", "raw.kovraphot", "--duration", "0.01",
                      "--event-rate", "2e4", "--seed", "14", "--raw", "raw.tpx3"], cls.root)
        assert result.returncode == 0, result.stderr
        (cls.root / "in" / "interrupted.tpx3").write_bytes((cls.root / "raw.tpx3").read_bytes()[:-100])

    @classmethod
    def tearDownClass(cls) -> None:
        if not ARGS.keep:
            cls.temp.cleanup()

    @classmethod
    def simulate(cls, name: str, options: list[str]) -> None:
        result = run([str(Path(ARGS.bin) / "kovra_simulate"), "-o", f"in/{name}.kovraphot", *options], cls.root)
        assert result.returncode == 0, result.stderr

    def snakemake(self, *config: str) -> subprocess.CompletedProcess[str]:
        command = ["snakemake", "-s", str(Path(ARGS.source) / "workflow" / "Snakefile")]
        if ARGS.profile:
            command += ["--profile", ARGS.profile]
        else:
            command += ["--cores", "2", "--keep-going"]
        settings = {"input": "in", "output": "out", "bin": str(Path(ARGS.bin).resolve()), **SETTINGS}
        settings.update(dict(entry.split("=", 1) for entry in config))
        command += ["--config", *(f"{key}={value}" for key, value in settings.items())]
        return subprocess.run(command, cwd=self.root, capture_output=True, text=True, preexec_fn=allow_core_dumps)

    def direct_run(self, name: str, photon_file: Path | None = None) -> dict[str, bytes]:
        """kovra_brantel and kovra_inspect run by hand on one photon file, as the campaign runs them."""
        folder = self.root / "direct"
        folder.mkdir(exist_ok=True)
        brantel = run([str(Path(ARGS.bin) / "kovra_brantel"), *BRANTEL_OPTIONS, "-i",
                       str(photon_file or self.root / "in" / f"{name}.kovraphot"), "-o",
                       str(folder / f"{name}.kovraevent")], self.root)
        self.assertEqual(brantel.returncode, 0, brantel.stderr)
        inspect = run([str(Path(ARGS.bin) / "kovra_inspect"), f"{name}.kovraevent", "--summary", "--hdf5",
                       f"{name}.h5", "--image", f"{name}.png", "--size", "256"], folder)
        self.assertEqual(inspect.returncode, 0, inspect.stderr)
        kinds = ["kovraevent", "h5", "png"]
        if "--triggers" in SIMULATIONS.get(name, []):
            tof = run([str(Path(ARGS.bin) / "kovra_inspect"), f"{name}.kovraevent", "--tof-bins", "100", "--size", "256",
                       "--binning", "8", "--spectrum", f"{name}.tof.csv", "--stack-hdf5", f"{name}.stack.h5"], folder)
            self.assertEqual(tof.returncode, 0, tof.stderr)
            kinds += ["tof.csv", "stack.h5"]
        outputs = {f"{name}.{kind}": (folder / f"{name}.{kind}").read_bytes() for kind in kinds}
        return {**outputs, f"{name}.summary.txt": inspect.stdout.encode()}

    def snapshot(self) -> dict[str, int]:
        out = self.root / "out"
        return {str(path.relative_to(out)): path.stat().st_mtime_ns for path in out.rglob("*") if path.is_file()}

    def test_1_bad_settings_stop_before_any_job(self) -> None:
        # One sample: campaign_config_test.py has every message.
        result = self.snakemake("dTime_s=fast")
        self.assertNotEqual(result.returncode, 0)
        self.assertIn("campaign settings: \"dTime_s\" must be a number, got 'fast'", result.stderr)
        self.assertFalse((self.root / "out").exists())

    def test_2_campaign_matches_direct_runs_and_reports_the_broken_file(self) -> None:
        result = self.snakemake()
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        out = self.root / "out"
        # kovra_brantel ends abnormally on the broken file; with core dumps on, the kernel would leave a core file
        # in the folder Snakemake runs in (where the core pattern is a plain name, as Debian's "core").
        self.assertEqual([path.name for path in (*self.root.glob("core*"), *out.glob("core*"))], [])
        for name in SIMULATIONS:
            for file_name, content in self.direct_run(name).items():
                with self.subTest(output=file_name):
                    self.assertEqual((out / file_name).read_bytes(), content)

        broken = run([str(Path(ARGS.bin) / "kovra_brantel"), *BRANTEL_OPTIONS, "-i", "in/broken.kovraphot", "-o",
                      "direct/broken.kovraevent"], self.root)
        self.assertNotEqual(broken.returncode, 0)
        tool_message = broken.stderr.split("what():", 1)[1].strip()
        self.assertIn(tool_message, result.stderr)
        self.assertFalse(list(out.glob("broken.*")))
        self.assertFalse([path for path in out.rglob(".*") if "partial" in path.name])

        # The raw file: imported as kovra_import imports it by hand, its warning in the report and at the end.
        imported = run([str(Path(ARGS.bin) / "kovra_import"), "in/interrupted.tpx3", "-o",
                        "direct/interrupted.kovraphot"], self.root)
        self.assertEqual(imported.returncode, 0, imported.stderr)
        warning = imported.stderr.removeprefix("warning: ").rstrip("\n")
        self.assertTrue(warning.startswith("the raw file ended early, inside the chunk at byte offset "), warning)
        self.assertEqual((out / "imported" / "interrupted.kovraphot").read_bytes(),
                         (self.root / "direct" / "interrupted.kovraphot").read_bytes())
        self.assertEqual((out / "interrupted.kovraevent").read_bytes(),
                         self.direct_run("interrupted", self.root / "direct" / "interrupted.kovraphot")[
                             "interrupted.kovraevent"])
        self.assertIn(f"campaign: 1 raw file imported with warnings (see out/campaign.md):\n"
                      f"  interrupted.tpx3: {warning}\n", result.stderr)

        with open(out / "campaign.csv", newline="") as stream:
            rows = {row["file"]: row for row in csv.DictReader(stream)}
        self.assertEqual(sorted(rows), ["alpha.kovraphot", "beta.kovraphot", "broken.kovraphot", "interrupted.tpx3"])
        self.assertEqual((rows["interrupted.tpx3"]["status"], rows["interrupted.tpx3"]["warnings"]), ("ok", warning))
        self.assertEqual(rows["alpha.kovraphot"]["warnings"], "")
        self.assertEqual((rows["broken.kovraphot"]["status"], rows["broken.kovraphot"]["message"]),
                         ("failed", tool_message))
        for name in SIMULATIONS:
            row = rows[f"{name}.kovraphot"]
            summary = (out / f"{name}.summary.txt").read_text().splitlines()
            fields = {line.split(None, 1)[0]: line.split(None, 1)[1] for line in summary if " " in line.strip()}
            log = (out / "logs" / f"{name}.log").read_text()
            with self.subTest(file=name):
                self.assertEqual(row["status"], "ok")
                self.assertEqual(row["events"], fields["records"])
                self.assertIn(f"Total number of photons in file = {row['photons']}\n", log)
                if not ARGS.profile:  # --cores 2 over three files: one thread each
                    self.assertIn("$ KOVRA_THREADS=1 ", log)
                self.assertEqual(f"{float(row['span_s']):.6g}", f"{float(fields['span'].split()[0]):.6g}")
                self.assertEqual(f"{float(row['event_rate_per_s']):.6g}",
                                 f"{float(fields['mean'].split()[1]):.6g}")
                one_photon = int(fields["one-photon"].split()[0])
                self.assertAlmostEqual(float(row["one_photon_share"]), one_photon / int(row["events"]), places=8)
        markdown = (out / "campaign.md").read_text()
        self.assertIn("4 photon files: 3 processed (1 imported with warnings), 1 failed.", markdown)
        self.assertIn("| interrupted.tpx3 | ok, warnings |", markdown)
        self.assertIn(f"## Imported with warnings\n\n- `interrupted.tpx3`: {warning}\n", markdown)
        self.assertIn(f"- `broken.kovraphot`: kovra_brantel ended abnormally (SIGABRT): {tool_message}", markdown)
        for plot in ("campaign_pulse_shape.png", "campaign_event_map.png", "campaign_tof.png"):
            self.assertEqual((out / plot).read_bytes()[:8], b"\x89PNG\r\n\x1a\n")
        # Only alpha has triggers: its stack is the sum, beta is listed without a spectrum.
        self.assertFalse(list(out.glob("beta.tof.csv")))
        self.assertIn("- `beta.kovraphot`: no spectrum (trigger list absent)", markdown)
        self.assertIn("`campaign_stack.h5`: the stacks of 1 file summed.", markdown)
        self.assertEqual((out / "campaign_stack.h5").read_bytes()[:8], b"\x89HDF\r\n\x1a\n")

        # Nothing new: nothing is done, nothing is touched.
        before = self.snapshot()
        again = self.snakemake()
        self.assertEqual(again.returncode, 0, again.stderr)
        self.assertIn("Nothing to be done", again.stdout + again.stderr)
        self.assertEqual(self.snapshot(), before)

        # A new file and one redone by hand, as the docs say (its status file deleted): only they and the report
        # are made.
        self.simulate("gamma", ["--duration", "0.005", "--seed", "13"])
        (out / "status" / "beta.json").unlink()
        redone = self.snakemake()
        self.assertEqual(redone.returncode, 0, redone.stderr)
        made = [f"{name}.{kind}" for name in ("beta", "gamma") for kind in ("h5", "kovraevent", "png", "summary.txt")]
        made += [f"{folder}/{name}.{kind}" for name in ("beta", "gamma") for folder, kind in
                 (("logs", "log"), ("status", "json"), ("status", "npz"))]
        after = self.snapshot()
        self.assertEqual(sorted(path for path in after if before.get(path) != after[path]), sorted(made + [
            "campaign.csv", "campaign.md", "campaign_event_map.png", "campaign_pulse_shape.png", "campaign_stack.h5",
            "campaign_tof.png", "logs/campaign_report.log"]))


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("source")
    parser.add_argument("bin")
    parser.add_argument("--profile")
    parser.add_argument("--keep", help="run in this folder and leave it behind")
    parsed, rest = parser.parse_known_args()
    ARGS.__dict__.update(vars(parsed))
    ARGS.source = str(Path(parsed.source).resolve())
    ARGS.bin = str(Path(parsed.bin).resolve())
    if parsed.profile:
        ARGS.profile = str(Path(parsed.profile).resolve())
    if shutil.which("snakemake") is None:
        print("SKIP: snakemake is not installed; scripts/setup.sh installs it (Debian package snakemake)")
        return SKIPPED
    os.environ.pop("SNAKEMAKE_PROFILE", None)
    program = unittest.main(argv=[sys.argv[0], *rest], exit=False, verbosity=2)
    return 0 if program.result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
