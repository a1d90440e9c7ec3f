#!/usr/bin/python3
"""Plots of a kovra_evaluate scan: heat maps of efficiency, merge rate and figure of merit over the grid of
search distances, with the best setting marked, and the pulse-shape histograms of the classes at that setting.

Usage: kovra_plot_scan.py DIR
reads DIR/scan.csv and DIR/psd_best.csv (written by kovra_evaluate --plots DIR) and writes DIR/heatmaps.png
and DIR/psd_best.png, each whole or not at all; when one cannot be written, it says why on standard error and
ends with status 1. Needs Debian's python3-matplotlib (run it with /usr/bin/python3).
"""

from __future__ import annotations

import csv
import math
import os
import sys
import tempfile

import matplotlib

matplotlib.use("Agg")
import matplotlib.patheffects as patheffects  # noqa: E402
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

Row = dict[str, str]


def save_whole(fig, path: str) -> None:
    """Saves the figure as PNG under a hidden name beside `path`, makes it durable and renames it over `path`: a
    reader finds the earlier file or the whole new one, never a part. When that fails, the hidden file goes and
    the OSError names `path`."""
    directory, name = os.path.split(path)
    temporary = None
    try:
        descriptor, temporary = tempfile.mkstemp(prefix=f".{name}.", suffix=".partial", dir=directory or ".")
        with os.fdopen(descriptor, "wb") as f:
            fig.savefig(f, format="png", dpi=110)
            f.flush()
            os.fsync(f.fileno())
        mask = os.umask(0)
        os.umask(mask)
        os.chmod(temporary, 0o666 & ~mask)  # mkstemp makes it readable by its owner only
        os.replace(temporary, path)
    except OSError as error:
        raise OSError(error.errno, error.strerror, path) from error
    finally:
        if temporary is not None and os.path.lexists(temporary):
            os.unlink(temporary)


def read_rows(path: str) -> list[Row]:
    with open(path, newline="") as f:
        return list(csv.DictReader(f))


def number(text: str) -> float:
    return float(text) if text not in ("", "nan") else math.nan


def same_slice(row: Row, best: Row) -> bool:
    """Rows of the best row's algorithm, maximum duration and extension factor: the plane that is plotted."""
    return all(row[k] == best[k] for k in ("algorithm", "durationMax_s", "dTime_ext"))


def plane_grid(rows: list[Row], best: Row, column: str) -> tuple[list[float], list[float], np.ndarray]:
    """The distances in space and time of the best row's plane, and `column` over them: grid[time][space], NaN
    where the plane has no row."""
    plane = [r for r in rows if same_slice(r, best)]
    spaces = sorted({number(r["dSpace_px"]) for r in plane})
    times = sorted({number(r["dTime_s"]) for r in plane})
    grid = np.full((len(times), len(spaces)), np.nan)
    for r in plane:
        grid[times.index(number(r["dTime_s"])), spaces.index(number(r["dSpace_px"]))] = number(r[column])
    return spaces, times, grid


def heat_maps(rows: list[Row], out_path: str) -> None:
    best = next(r for r in rows if r["best"] == "1")
    panels = [("efficiency", "efficiency", "viridis"), ("merge_rate", "merge rate", "magma_r"),
              ("fom", "figure of merit", "viridis")]
    fig, axes = plt.subplots(1, 3, figsize=(15, 4.8), constrained_layout=True)
    for ax, (column, title, cmap) in zip(axes, panels):
        spaces, times, grid = plane_grid(rows, best, column)
        image = ax.imshow(grid, origin="lower", aspect="auto", cmap=cmap)
        fig.colorbar(image, ax=ax, shrink=0.9)
        if len(spaces) * len(times) <= 100:
            for (ti, si), value in np.ndenumerate(grid):
                if not math.isnan(value):
                    ax.text(si, ti, f"{value:.3g}", ha="center", va="center", fontsize=7, color="white",
                            path_effects=[patheffects.withStroke(linewidth=1.5, foreground="black")])
        bx = spaces.index(number(best["dSpace_px"]))
        by = times.index(number(best["dTime_s"]))
        ax.add_patch(plt.Rectangle((bx - 0.5, by - 0.5), 1, 1, fill=False, edgecolor="red", linewidth=2.5))
        ax.set_xticks(range(len(spaces)), [f"{s:g}" for s in spaces], rotation=45)
        ax.set_yticks(range(len(times)), [f"{t * 1e9:g}" for t in times])
        ax.set_xlabel("dSpace (pixels)")
        ax.set_ylabel("dTime (ns)")
        ax.set_title(title)
    duration = number(best["durationMax_s"])
    fig.suptitle(f"algorithm {best['algorithm']}, durationMax "
                 f"{'unlimited' if math.isinf(duration) else f'{duration:g} s'}; "
                 f"red: best setting (-s {best['dSpace_px']} -t {best['dTime_s']})")
    save_whole(fig, out_path)
    plt.close(fig)


def psd_histograms(rows: list[Row], psd_rows: list[Row], out_path: str) -> None:
    best = next(r for r in rows if r["best"] == "1")
    classes: dict[str, list[float]] = {}
    for r in psd_rows:
        classes.setdefault(r["class"], []).append(float(r["psd_ns"]))
    values = [v for vs in classes.values() for v in vs]
    fig, ax = plt.subplots(figsize=(7.5, 4.8), constrained_layout=True)
    if values:
        high = float(np.quantile(values, 0.995))
        bins = np.linspace(0.0, high if high > 0 else 1.0, 80)
        for name, vs in sorted(classes.items(), key=lambda item: -len(item[1])):
            ax.hist(vs, bins=bins, histtype="step", linewidth=1.8, label=f"{name} ({len(vs)} events)")
        ax.legend()
    ax.set_xlabel("pulse-shape value: mean delay of an event's photons after its first (ns)")
    ax.set_ylabel("events")
    ax.set_title(f"-s {best['dSpace_px']} -t {best['dTime_s']} --algorithm {best['algorithm']}: "
                 f"FoM {number(best['fom']):.3g}")
    save_whole(fig, out_path)
    plt.close(fig)


def main(argv: list[str]) -> int:
    if len(argv) != 2:
        print("usage: kovra_plot_scan.py DIR", file=sys.stderr)
        return 2
    directory = argv[1]
    rows = read_rows(os.path.join(directory, "scan.csv"))
    if not any(r["best"] == "1" for r in rows):
        print(f"kovra_plot_scan.py: {directory}/scan.csv marks no best setting", file=sys.stderr)
        return 1
    psd_rows = read_rows(os.path.join(directory, "psd_best.csv"))
    try:
        heat_maps(rows, os.path.join(directory, "heatmaps.png"))
        psd_histograms(rows, psd_rows, os.path.join(directory, "psd_best.png"))
    except OSError as error:
        print(f"kovra_plot_scan.py: cannot write '{error.filename}': {error.strerror}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
