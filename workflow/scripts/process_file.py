"""One file of a campaign: for a raw file kovra_import first, then kovra_brantel, then kovra_inspect, then the
numbers the campaign report needs.

Runs as a Snakemake `script:` (under Snakemake's own Python, which has NumPy and h5py). Every output is written
under a temporary name and renamed into place; the status file is written last, so a file whose status exists
has all its outputs. A tool that fails does not fail the job: its message goes into the status file and the
campaign report, and the file's stale outputs from an earlier run are removed. The warnings of an import (a raw
file that ended early, damage skipped, late packets dropped) go into the status file and the report too.
"""


import json
import os
import re
import resource
import signal
import subprocess
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Mapping, Sequence

import h5py
import numpy as np

import atomic_files

CHUNK_RECORDS = 1 << 20
# Pulse-shape values are collected in fixed logarithmic bins (seconds), so that files can be added up.
PSD_EDGES_S = np.logspace(-11.0, -3.0, 401)
PHOTON_COUNT_LINE = re.compile(r"Total number of photons in file = (\d+)")
TRIGGER_LINE = re.compile(r"^ext\. triggers (.*)$", re.MULTILINE)
RAW_SUFFIX = ".tpx3"
WARNING_PREFIX = "warning: "


@dataclass(frozen=True)
class FileOutputs:
    """Where the outputs of one photon file go, all in the campaign's output folder."""

    name: str
    output_dir: Path
    raw: bool = False  # the input is a raw file, imported into `imported`

    @property
    def imported(self) -> Path:
        return self.output_dir / "imported" / f"{self.name}.kovraphot"

    @property
    def events(self) -> Path:
        return self.output_dir / f"{self.name}.kovraevent"

    @property
    def summary(self) -> Path:
        return self.output_dir / f"{self.name}.summary.txt"

    @property
    def hdf5(self) -> Path:
        return self.output_dir / f"{self.name}.h5"

    @property
    def image(self) -> Path:
        return self.output_dir / f"{self.name}.png"

    @property
    def tof(self) -> Path:
        return self.output_dir / f"{self.name}.tof.csv"

    @property
    def stack(self) -> Path:
        return self.output_dir / f"{self.name}.stack.h5"

    def published(self) -> tuple[Path, ...]:
        made = (self.events, self.summary, self.hdf5, self.image, self.tof, self.stack)
        return (self.imported, *made) if self.raw else made


def describe_exit(tool: str, returncode: int) -> str:
    if returncode < 0:
        try:
            name = signal.Signals(-returncode).name
        except ValueError:
            name = f"signal {-returncode}"
        return f"{tool} ended abnormally ({name})"
    return f"{tool} ended with status {returncode}"


def tool_message(stderr: str) -> str:
    """The tool's own words: the text of an uncaught exception when there is one, else its error output."""
    reasons = [line.split("what():", 1)[1].strip() for line in stderr.splitlines() if "what():" in line]
    if reasons:
        return " ".join(reasons)
    return " / ".join(line.strip() for line in stderr.splitlines() if line.strip())


def import_warnings(stderr: str) -> list[str]:
    """The warnings of kovra_import, without their prefix, in the order it gave them."""
    return [line[len(WARNING_PREFIX):] for line in stderr.splitlines() if line.startswith(WARNING_PREFIX)]


def without_core_dumps() -> None:
    """Runs in the child before the tool starts. A tool that fails on a file may end abnormally (kovra_brantel
    aborts with its message); where core dumps are on, that would leave a core file in the folder the campaign was
    started from, often the repository."""
    resource.setrlimit(resource.RLIMIT_CORE, (0, resource.getrlimit(resource.RLIMIT_CORE)[1]))


def run_tool(command: Sequence[str], log: Any, cwd: Path | None = None,
             environment: Mapping[str, str] | None = None) -> subprocess.CompletedProcess[str]:
    """Runs a tool, with `environment` added to this process's and core dumps off, and logs the command, what it
    said and how it ended."""
    extra = dict(environment or {})
    result = subprocess.run(list(command), cwd=cwd, capture_output=True, text=True, errors="replace",
                            env={**os.environ, **extra} if extra else None, preexec_fn=without_core_dumps)
    log.write(f"$ {' '.join([*(f'{key}={value}' for key, value in extra.items()), *command])}\n")
    if cwd is not None:
        log.write(f"  (in {cwd})\n")
    log.write(result.stdout)
    log.write(result.stderr)
    log.write(f"exit status {result.returncode}\n")
    log.flush()
    return result


def event_statistics(hdf5_path: Path, map_size_px: int) -> tuple[dict[str, Any], dict[str, np.ndarray]]:
    """Counts, time range and the two histograms of one event file, read from its HDF5 export in chunks."""
    event_map = np.zeros(map_size_px * map_size_px, dtype=np.int64)
    psd_counts = np.zeros(len(PSD_EDGES_S) - 1, dtype=np.int64)
    psd_other = {"zero_or_negative": 0, "below_range": 0, "above_range": 0, "not_finite": 0}
    n_events = 0
    n_one_photon = 0
    t_min: int | None = None
    t_max: int | None = None
    with h5py.File(hdf5_path, "r") as file:
        events = file["events"]
        px_raw = int(round(1.0 / float(events.attrs["x_scale"])))
        t_scale = float(events.attrs["t_scale"])
        n_events = int(events.shape[0])
        for start in range(0, n_events, CHUNK_RECORDS):
            chunk = events[start : start + CHUNK_RECORDS]
            n_photons = chunk["nPhotons"]
            n_one_photon += int(np.count_nonzero(n_photons == 1))
            t = chunk["t"]
            t_min = int(t.min()) if t_min is None else min(t_min, int(t.min()))
            t_max = int(t.max()) if t_max is None else max(t_max, int(t.max()))
            column = np.floor_divide(chunk["x"].astype(np.int64), px_raw)
            row = np.floor_divide(chunk["y"].astype(np.int64), px_raw)
            inside = (column >= 0) & (column < map_size_px) & (row >= 0) & (row < map_size_px)
            event_map += np.bincount(row[inside] * map_size_px + column[inside], minlength=event_map.size)
            psd = chunk["psd"][n_photons > 1]
            finite = np.isfinite(psd)
            psd_other["not_finite"] += int(np.count_nonzero(~finite))
            psd = psd[finite]
            psd_other["zero_or_negative"] += int(np.count_nonzero(psd <= 0.0))
            psd = psd[psd > 0.0]
            psd_other["below_range"] += int(np.count_nonzero(psd < PSD_EDGES_S[0]))
            psd_other["above_range"] += int(np.count_nonzero(psd >= PSD_EDGES_S[-1]))
            psd_counts += np.histogram(psd, bins=PSD_EDGES_S)[0]
    span_s = None if t_min is None or t_max is None else (t_max - t_min) * t_scale
    numbers: dict[str, Any] = {
        "events": n_events,
        "one_photon": n_one_photon,
        "t_first_s": None if t_min is None else t_min * t_scale,
        "t_last_s": None if t_max is None else t_max * t_scale,
        "span_s": span_s,
        "event_rate_per_s": n_events / span_s if span_s else None,
        "psd_outside_bins": psd_other,
    }
    histograms = {
        "event_map": event_map.reshape(map_size_px, map_size_px),
        "psd_counts": psd_counts,
        "psd_edges_s": PSD_EDGES_S,
    }
    return numbers, histograms


def time_of_flight(outputs: FileOutputs, summary: str, inspect_tool: str, tof_args: Sequence[str], log: Any,
                   status: dict[str, Any]) -> None:
    """The spectrum and stack of a file with triggers. A file without (or with too few to give a range) has none,
    which is noted in its status, not a failure."""
    for path in (outputs.tof, outputs.stack):
        atomic_files.remove_if_present(path)
    found = TRIGGER_LINE.search(summary)
    triggers = found.group(1) if found else "absent"
    if triggers in ("absent", "empty"):
        status.update(tof="none", tof_message=f"trigger list {triggers}")
        return
    partial_tof = atomic_files.partial_path(outputs.tof)
    partial_stack = atomic_files.partial_path(outputs.stack)
    command = [inspect_tool, outputs.events.name, *tof_args, "--spectrum", partial_tof.name, "--stack-hdf5",
               partial_stack.name]
    result = run_tool(command, log, cwd=outputs.output_dir)
    if result.returncode != 0:
        status.update(tof="none", tof_message=tool_message(result.stderr) or describe_exit("kovra_inspect",
                                                                                             result.returncode))
        return
    atomic_files.publish(partial_tof, outputs.tof)
    atomic_files.publish(partial_stack, outputs.stack)
    status["tof"] = "ok"


def process_file(
    name: str,
    photon_file: Path,
    output_dir: Path,
    brantel_args: Sequence[str],
    inspect_tool: str,
    map_size_px: int,
    status_path: Path,
    log_path: Path,
    tof_args: Sequence[str] = (),
    threads: int = 1,
    import_args: Sequence[str] = (),
) -> dict[str, Any]:
    outputs = FileOutputs(name, output_dir, raw=photon_file.suffix == RAW_SUFFIX)
    output_dir.mkdir(parents=True, exist_ok=True)
    status_path.parent.mkdir(parents=True, exist_ok=True)
    log_path.parent.mkdir(parents=True, exist_ok=True)
    stats_path = status_path.with_suffix(".npz")
    for path in (*outputs.published(), stats_path):
        atomic_files.remove_if_present(atomic_files.partial_path(path))
    status: dict[str, Any] = {"file": photon_file.name, "status": "ok", "message": ""}

    def fail(tool: str, result: subprocess.CompletedProcess[str]) -> dict[str, Any]:
        for path in (*outputs.published(), stats_path):
            atomic_files.remove_if_present(atomic_files.partial_path(path))
            atomic_files.remove_if_present(path)
        status.update(status="failed", tool=tool, exit=describe_exit(tool, result.returncode))
        status["message"] = tool_message(result.stderr) or status["exit"]
        return status

    with open(log_path, "w", encoding="utf-8") as log:
        if outputs.raw:
            # kovra_import writes its output whole or not at all by itself.
            command = [*import_args, str(photon_file), "-o", str(outputs.imported)]
            result = run_tool(command, log, environment={"KOVRA_THREADS": str(threads)})
            if result.returncode != 0:
                return fail("kovra_import", result)
            status["warnings"] = import_warnings(result.stderr)
            photon_file = outputs.imported
        partial_events = atomic_files.partial_path(outputs.events)
        command = [*brantel_args, "-i", str(photon_file), "-o", str(partial_events)]
        result = run_tool(command, log, environment={"KOVRA_THREADS": str(threads)})
        if result.returncode != 0:
            return fail("kovra_brantel", result)
        atomic_files.publish(partial_events, outputs.events)
        counted = PHOTON_COUNT_LINE.search(result.stdout)
        status["photons"] = int(counted.group(1)) if counted else None

        # The inspector runs beside the event file and names it without a folder, so its summary does not depend
        # on where the campaign was started.
        partial_hdf5 = atomic_files.partial_path(outputs.hdf5)
        partial_image = atomic_files.partial_path(outputs.image)
        command = [
            inspect_tool,
            outputs.events.name,
            "--summary",
            "--hdf5",
            partial_hdf5.name,
            "--image",
            partial_image.name,
            "--size",
            str(map_size_px),
        ]
        result = run_tool(command, log, cwd=output_dir)
        if result.returncode != 0:
            return fail("kovra_inspect", result)
        atomic_files.write_text(outputs.summary, result.stdout)
        atomic_files.publish(partial_hdf5, outputs.hdf5)
        atomic_files.publish(partial_image, outputs.image)
        time_of_flight(outputs, result.stdout, inspect_tool, tof_args, log, status)

    numbers, histograms = event_statistics(outputs.hdf5, map_size_px)
    status.update(numbers)
    partial_stats = atomic_files.partial_path(stats_path)
    with open(partial_stats, "wb") as stream:
        np.savez_compressed(stream, **histograms)
    atomic_files.publish(partial_stats, stats_path)
    return status


def main(snakemake: Any) -> None:
    status = process_file(
        name=snakemake.wildcards.name,
        photon_file=Path(snakemake.input.source),
        output_dir=Path(snakemake.params.output_dir),
        brantel_args=snakemake.params.brantel_args,
        inspect_tool=snakemake.params.inspect_tool,
        map_size_px=int(snakemake.params.map_size_px),
        status_path=Path(snakemake.output.status),
        log_path=Path(snakemake.log[0]),
        tof_args=snakemake.params.tof_args,
        threads=int(snakemake.threads),
        import_args=snakemake.params.import_args,
    )
    atomic_files.write_text(Path(snakemake.output.status), json.dumps(status, indent=2, sort_keys=True) + "\n")


if "snakemake" in globals():
    main(globals()["snakemake"])
