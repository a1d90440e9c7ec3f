"""The campaign report: one table row per photon file (CSV and Markdown), three combined plots (PNG) and the summed
time-of-flight stack (HDF5).

Runs as a Snakemake `script:` under Snakemake's own Python (NumPy, matplotlib). It reads only the small status and
histogram files of each photon file, so it takes seconds however large the campaign's data.
"""


import csv
import io
import json
import sys
from pathlib import Path
from typing import Any, Sequence

import h5py
import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402
from matplotlib.colors import LogNorm  # noqa: E402

import atomic_files  # noqa: E402
from counts import format_count  # noqa: E402
from process_file import PSD_EDGES_S  # noqa: E402

CSV_COLUMNS = (
    "file",
    "status",
    "photons",
    "events",
    "one_photon_share",
    "span_s",
    "event_rate_per_s",
    "message",
    "warnings",
)
# Matplotlib stamps its version into a PNG unless told not to; the report stays the same from run to run.
PNG_METADATA = {"Software": None}


def read_status(path: Path) -> dict[str, Any]:
    with open(path, encoding="utf-8") as stream:
        status: dict[str, Any] = json.load(stream)
    return status


def format_number(value: Any) -> str:
    if value is None:
        return ""
    if isinstance(value, int):
        return str(value)
    return f"{value:.9g}"


def get_stem(file: str) -> str:
    """A file's name without its extension: that of its outputs."""
    return file.removesuffix(".kovraphot").removesuffix(".tpx3")


def warnings_text(status: dict[str, Any]) -> str:
    """The import's warnings of a raw file, one after the other; empty for none."""
    return " / ".join(status.get("warnings", []))


def one_photon_share(status: dict[str, Any]) -> float | None:
    events = status.get("events")
    return status["one_photon"] / events if events else None


def csv_text(statuses: Sequence[dict[str, Any]]) -> str:
    buffer = io.StringIO()
    writer = csv.writer(buffer, lineterminator="\n")
    writer.writerow(CSV_COLUMNS)
    for status in statuses:
        writer.writerow(
            [
                status["file"],
                status["status"],
                format_number(status.get("photons")),
                format_number(status.get("events")),
                format_number(one_photon_share(status)),
                format_number(status.get("span_s")),
                format_number(status.get("event_rate_per_s")),
                status.get("message", ""),
                warnings_text(status),
            ]
        )
    return buffer.getvalue()


def markdown_cell(text: str) -> str:
    return text.replace("|", "\\|").replace("\n", " ")


def markdown_text(statuses: Sequence[dict[str, Any]], plots: Sequence[str], tof_lines: Sequence[str] = ()) -> str:
    good = [status for status in statuses if status["status"] == "ok"]
    failed = [status for status in statuses if status["status"] != "ok"]
    warned = [status for status in good if status.get("warnings")]
    with_warnings = f" ({len(warned)} imported with warnings)" if warned else ""
    lines = [
        "# Campaign report",
        "",
        f"{format_count(len(statuses), 'photon file')}: {len(good)} processed{with_warnings}, {len(failed)} failed.",
        "",
        "| File | Status | Photons | Events | One-photon share | Time span (s) | Event rate (1/s) |",
        "|---|---|---:|---:|---:|---:|---:|",
    ]
    for status in statuses:
        share = one_photon_share(status)
        lines.append(
            "| "
            + " | ".join(
                [
                    markdown_cell(status["file"]),
                    status["status"] + (", warnings" if status.get("warnings") else ""),
                    format_number(status.get("photons")),
                    format_number(status.get("events")),
                    "" if share is None else f"{100.0 * share:.1f} %",
                    format_number(status.get("span_s")),
                    format_number(status.get("event_rate_per_s")),
                ]
            )
            + " |"
        )
    if failed:
        lines += ["", "## Failed files", ""]
        for status in failed:
            lines.append(f"- `{status['file']}`: {status.get('exit', '')}: {markdown_cell(status['message'])}")
    if warned:
        lines += ["", "## Imported with warnings", ""]
        for status in warned:
            lines.append(f"- `{status['file']}`: " + "; ".join(markdown_cell(text) for text in status["warnings"]))
    if tof_lines:
        lines += ["", "## Time of flight", "", *tof_lines]
    lines += ["", "## Plots", ""]
    lines += [f"![{plot}]({plot})" for plot in plots]
    return "\n".join(lines) + "\n"


def save_figure(figure: Any, target: Path) -> None:
    partial = atomic_files.partial_path(target)
    figure.savefig(partial, format="png", dpi=100, metadata=PNG_METADATA)
    plt.close(figure)
    atomic_files.publish(partial, target)


def plot_pulse_shape(counts: np.ndarray, edges_s: np.ndarray, outside: dict[str, int], n_files: int,
                     target: Path) -> None:
    figure, axes = plt.subplots(figsize=(8, 5))
    filled = np.flatnonzero(counts)
    if filled.size:
        first, last = int(filled[0]), int(filled[-1]) + 1
        axes.stairs(counts[first:last], edges_s[first : last + 1] * 1e9, fill=True, color="tab:blue")
        axes.set_xscale("log")
    else:
        axes.text(0.5, 0.5, "no events with more than one photon", ha="center", va="center",
                  transform=axes.transAxes)
    axes.set_xlabel("pulse-shape value (ns)")
    axes.set_ylabel("events per bin (50 bins per decade)")
    axes.set_title(f"Pulse-shape value of events with more than one photon, {format_count(n_files, 'file')}")
    left_out = {key: value for key, value in outside.items() if value}
    if left_out:
        note = ", ".join(f"{key.replace('_', ' ')}: {value}" for key, value in sorted(left_out.items()))
        axes.text(0.99, 0.98, f"not shown: {note}", ha="right", va="top", transform=axes.transAxes, fontsize=8)
    save_figure(figure, target)


def plot_event_map(event_map: np.ndarray, n_files: int, target: Path) -> None:
    size = event_map.shape[0]
    figure, axes = plt.subplots(figsize=(7, 6))
    largest = int(event_map.max()) if event_map.size else 0
    masked = np.ma.masked_equal(event_map, 0)
    # Empty pixels are black; the colour scale starts at a blue that stands out from them.
    colours = matplotlib.colormaps["plasma"].with_extremes(bad="black")
    image = axes.imshow(masked, origin="upper", extent=(0, size, size, 0), interpolation="nearest",
                        cmap=colours, norm=LogNorm(vmin=1, vmax=max(largest, 2)))
    axes.set_xlabel("x (pixel)")
    axes.set_ylabel("y (pixel)")
    axes.set_title(f"Event positions, {format_count(n_files, 'file')}")
    figure.colorbar(image, ax=axes, label="events per pixel")
    save_figure(figure, target)


def read_spectrum(path: Path) -> tuple[np.ndarray, np.ndarray]:
    """Counts and edges (ticks) of a spectrum CSV of kovra_inspect."""
    with open(path, newline="", encoding="utf-8") as stream:
        rows = list(csv.DictReader(stream))
    edges = np.array([int(row["tof_lo"]) for row in rows] + [int(rows[-1]["tof_hi"])], dtype=np.uint64)
    return np.array([int(row["events"]) for row in rows], dtype=np.int64), edges


def plot_spectra(spectra: dict[str, tuple[np.ndarray, np.ndarray]], tick_s: float, target: Path) -> None:
    figure, axes = plt.subplots(figsize=(8, 5))
    for name, (counts, edges) in spectra.items():
        axes.stairs(counts, edges.astype(np.float64) * tick_s * 1e6, label=f"{name} ({int(counts.sum())})")
    if spectra:
        axes.set_xlabel("time of flight since the latest trigger (µs)")
        axes.set_ylabel("events per bin")
        if len(spectra) <= 12:
            axes.legend(fontsize=8)
    else:
        axes.text(0.5, 0.5, "no file with triggers", ha="center", va="center", transform=axes.transAxes)
    axes.set_title(f"Time-of-flight spectra, {format_count(len(spectra), 'file')}")
    save_figure(figure, target)


def sum_stacks(stack_paths: dict[str, Path], target: Path) -> tuple[list[str], list[str]]:
    """Adds the stacks of equal bins and cells (those of the first file); returns the files summed and those left
    out. Written as /stack (unsigned 64-bit [bins, rows, columns]), /tof_edges (ticks) and the names in "files"."""
    summed: np.ndarray | None = None
    edges: np.ndarray | None = None
    cell_px = 0.0
    used: list[str] = []
    other: list[str] = []
    for name, path in stack_paths.items():
        with h5py.File(path, "r") as h5:
            stack, file_edges = h5["stack"][:], h5["tof_edges"][:]
            if summed is None:
                summed, edges, cell_px = stack.astype(np.uint64), file_edges, float(h5["stack"].attrs["cell_px"])
            elif stack.shape == summed.shape and np.array_equal(file_edges, edges):
                summed += stack
            else:
                other.append(name)
                continue
        used.append(name)
    partial = atomic_files.partial_path(target)
    with h5py.File(partial, "w") as h5:
        h5.attrs["files"] = ",".join(used)
        if summed is not None and edges is not None:
            h5.create_dataset("stack", data=summed, chunks=(1, *summed.shape[1:]), compression="gzip", shuffle=True)
            h5["stack"].attrs.update({"axes": "tof,y,x", "unit": "events per cell", "cell_px": cell_px})
            h5.create_dataset("tof_edges", data=edges)
            h5["tof_edges"].attrs.update({"unit": "s", "scale": 1.5625e-9})
    atomic_files.publish(partial, target)
    return used, other


def write_report(status_paths: Sequence[Path], csv_path: Path, markdown_path: Path, pulse_shape_png: Path,
                 event_map_png: Path, map_size_px: int, tof_png: Path, stack_h5: Path) -> list[dict[str, Any]]:
    pairs = sorted(((read_status(path), path) for path in status_paths), key=lambda pair: str(pair[0]["file"]))
    statuses = [status for status, _ in pairs]
    event_map = np.zeros((map_size_px, map_size_px), dtype=np.int64)
    psd_counts: np.ndarray | None = None
    psd_edges: np.ndarray | None = None
    outside: dict[str, int] = {}
    good = [(status, path) for status, path in pairs if status["status"] == "ok"]
    for status, path in good:
        with np.load(path.with_suffix(".npz")) as histograms:
            if histograms["event_map"].shape != event_map.shape:
                raise ValueError(f"{path}: event map of another size; re-run with --forcerun process_file")
            event_map += histograms["event_map"]
            psd_counts = histograms["psd_counts"].copy() if psd_counts is None else psd_counts + histograms["psd_counts"]
            psd_edges = histograms["psd_edges_s"].copy()
        for key, value in status.get("psd_outside_bins", {}).items():
            outside[key] = outside.get(key, 0) + int(value)
    if psd_counts is None or psd_edges is None:
        psd_edges = PSD_EDGES_S
        psd_counts = np.zeros(len(psd_edges) - 1, dtype=np.int64)

    plot_pulse_shape(psd_counts, psd_edges, outside, len(good), pulse_shape_png)
    plot_event_map(event_map, len(good), event_map_png)

    # Each file's spectrum and stack lie beside its event file, one folder above its status file.
    stem = {status["file"]: get_stem(status["file"]) for status, _ in good}
    with_tof = [(status, path) for status, path in good if status.get("tof") == "ok"]
    spectra = {stem[s["file"]]: read_spectrum(p.parent.parent / f"{stem[s['file']]}.tof.csv") for s, p in with_tof}
    plot_spectra(spectra, 1.5625e-9, tof_png)
    summed, other = sum_stacks({stem[s["file"]]: p.parent.parent / f"{stem[s['file']]}.stack.h5" for s, p in with_tof},
                               stack_h5)
    tof_lines = [f"- `{stem[s['file']]}.tof.csv`" if s.get("tof") == "ok"
                 else f"- `{markdown_cell(s['file'])}`: no spectrum ({markdown_cell(s.get('tof_message', ''))})"
                 for s, _ in good]
    tof_lines += ["", f"`{stack_h5.name}`: the stacks of {format_count(len(summed), 'file')} summed"
                  + (f"; left out, other bins or cells: {', '.join(other)}" if other else "") + "."]
    atomic_files.write_text(csv_path, csv_text(statuses))
    atomic_files.write_text(markdown_path, markdown_text(statuses, [pulse_shape_png.name, event_map_png.name,
                                                                    tof_png.name], tof_lines))
    return statuses


def main(snakemake: Any) -> None:
    statuses = write_report(
        status_paths=[Path(path) for path in snakemake.input.statuses],
        csv_path=Path(snakemake.output.csv),
        markdown_path=Path(snakemake.output.markdown),
        pulse_shape_png=Path(snakemake.output.pulse_shape),
        event_map_png=Path(snakemake.output.event_map),
        map_size_px=int(snakemake.params.map_size_px),
        tof_png=Path(snakemake.output.tof),
        stack_h5=Path(snakemake.output.stack),
    )
    failed = [status for status in statuses if status["status"] != "ok"]
    print(f"campaign report: {format_count(len(statuses), 'file')}, {len(failed)} failed", file=sys.stderr)
    for status in failed:
        print(f"  {status['file']}: {status['message']}", file=sys.stderr)


if "snakemake" in globals():
    main(globals()["snakemake"])
