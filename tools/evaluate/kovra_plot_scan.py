#!/usr/bin/python3
"""Plots of a kovra_evaluate scan: heat maps of efficiency, merge rate and figure of merit over the grid of
search distances, with the best setting marked, and the pulse-shape histograms of the classes at that setting.
A scan of the import's grouping (a raw file) gets the same heat maps over radius and window, the third one
showing the spread of the photons' time errors; it has no pulse shapes.

A fitted time-walk table (DIR/time_walk.csv) becomes DIR/time_walk.png: the median delay by ToT with the band
of the 16th to 84th percentile.

Usage: kovra_plot_scan.py DIR
reads DIR/scan.csv and DIR/psd_best.csv (written by kovra_evaluate --plots DIR) and writes DIR/heatmaps.png
and DIR/psd_best.png (only DIR/heatmaps.png for a grouping scan), and DIR/time_walk.png when DIR/time_walk.csv
is there, each whole or not at all; when one cannot be written, it says why on standard error and ends with
status 1. Needs Debian's python3-matplotlib (run it with /usr/bin/python3).
"""

from __future__ import annotations

import csv
import math
import os
import sys
import tempfile
from dataclasses import dataclass

import matplotlib

matplotlib.use("Agg")
import matplotlib.patheffects as patheffects  # noqa: E402
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

Row = dict[str, str]


@dataclass(frozen=True)
class Scan_Kind:
    """What a scan varies and what its heat maps show."""
    x: str  # column across
    y: str  # column up
    plane: tuple[str, ...]  # columns that must equal the best row's for a row to be drawn
    panels: tuple[tuple[str, str, str], ...]  # column, title, colour map
    x_label: str
    y_label: str


RECONSTRUCTION = Scan_Kind("dSpace_px", "dTime_s", ("algorithm", "durationMax_s", "dTime_ext"),
                           (("efficiency", "efficiency", "viridis"), ("merge_rate", "merge rate", "magma_r"),
                            ("fom", "figure of merit", "viridis")),
                           "dSpace (pixels)", "dTime (ns)")
GROUPING = Scan_Kind("radius_px", "window_s", ("photon_time",),
                     (("efficiency", "efficiency", "viridis"), ("merge_rate", "merge rate", "magma_r"),
                      ("time_sd_ns", "spread of time errors (ns)", "viridis_r")),
                     "radius (pixels)", "window (ns)")


def scan_kind(rows: list[Row]) -> Scan_Kind:
    return GROUPING if rows and "radius_px" in rows[0] else RECONSTRUCTION


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


def same_slice(row: Row, best: Row, kind: Scan_Kind = RECONSTRUCTION) -> bool:
    """Rows of the best row's algorithm, maximum duration and extension factor (photon time for a grouping
    scan): the plane that is plotted."""
    return all(row[k] == best[k] for k in kind.plane)


def plane_grid(rows: list[Row], best: Row, column: str) -> tuple[list[float], list[float], np.ndarray]:
    """The distances in space and time of the best row's plane, and `column` over them: grid[time][space], NaN
    where the plane has no row."""
    kind = scan_kind(rows)
    plane = [r for r in rows if same_slice(r, best, kind)]
    spaces = sorted({number(r[kind.x]) for r in plane})
    times = sorted({number(r[kind.y]) for r in plane})
    grid = np.full((len(times), len(spaces)), np.nan)
    for r in plane:
        grid[times.index(number(r[kind.y])), spaces.index(number(r[kind.x]))] = number(r[column])
    return spaces, times, grid


def heat_maps(rows: list[Row], out_path: str) -> None:
    best = next(r for r in rows if r["best"] == "1")
    kind = scan_kind(rows)
    fig, axes = plt.subplots(1, 3, figsize=(15, 4.8), constrained_layout=True)
    for ax, (column, title, cmap) in zip(axes, kind.panels):
        spaces, times, grid = plane_grid(rows, best, column)
        image = ax.imshow(grid, origin="lower", aspect="auto", cmap=cmap)
        fig.colorbar(image, ax=ax, shrink=0.9)
        if len(spaces) * len(times) <= 100:
            for (ti, si), value in np.ndenumerate(grid):
                if not math.isnan(value):
                    ax.text(si, ti, f"{value:.3g}", ha="center", va="center", fontsize=7, color="white",
                            path_effects=[patheffects.withStroke(linewidth=1.5, foreground="black")])
        bx = spaces.index(number(best[kind.x]))
        by = times.index(number(best[kind.y]))
        ax.add_patch(plt.Rectangle((bx - 0.5, by - 0.5), 1, 1, fill=False, edgecolor="red", linewidth=2.5))
        ax.set_xticks(range(len(spaces)), [f"{s:g}" for s in spaces], rotation=45)
        ax.set_yticks(range(len(times)), [f"{t * 1e9:g}" for t in times])
        ax.set_xlabel(kind.x_label)
        ax.set_ylabel(kind.y_label)
        ax.set_title(title)
    if kind is GROUPING:
        fig.suptitle(f"kovra_import grouping, --photon-time {best['photon_time']}; red: best setting "
                     f"(--radius {best['radius_px']} --window {best['window_s']})")
    else:
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


def time_walk(points: list[Row], out_path: str) -> None:
    tot = np.array([number(p["tot_ns"]) for p in points])
    tick_ns = 1.5625
    median, low, high = (np.array([number(p[c]) for p in points]) * tick_ns
                         for c in ("delay_ticks", "p16_ticks", "p84_ticks"))
    fig, ax = plt.subplots(figsize=(7.5, 4.8), constrained_layout=True)
    ax.fill_between(tot, low, high, step="mid", alpha=0.3, label="16th to 84th percentile of the hits' delays")
    ax.plot(tot, median, drawstyle="steps-mid", linewidth=1.8, label="table: median delay")
    ax.set_xscale("log")
    ax.set_xlabel("time over threshold (ns)")
    ax.set_ylabel("delay of the hit (ns)")
    ax.set_title(f"time walk fitted from {sum(int(p['hits']) for p in points)} hits")
    ax.legend()
    save_whole(fig, out_path)
    plt.close(fig)


def main(argv: list[str]) -> int:
    if len(argv) != 2:
        print("usage: kovra_plot_scan.py DIR", file=sys.stderr)
        return 2
    directory = argv[1]
    walk_path = os.path.join(directory, "time_walk.csv")
    if os.path.exists(walk_path):
        try:
            time_walk(read_rows(walk_path), os.path.join(directory, "time_walk.png"))
        except OSError as error:
            print(f"kovra_plot_scan.py: cannot write '{error.filename}': {error.strerror}", file=sys.stderr)
            return 1
        if not os.path.exists(os.path.join(directory, "scan.csv")):
            return 0
    rows = read_rows(os.path.join(directory, "scan.csv"))
    if not any(r["best"] == "1" for r in rows):
        print(f"kovra_plot_scan.py: {directory}/scan.csv marks no best setting", file=sys.stderr)
        return 1
    grouping = scan_kind(rows) is GROUPING  # a grouping scan has no pulse shapes
    psd_rows = [] if grouping else read_rows(os.path.join(directory, "psd_best.csv"))
    try:
        heat_maps(rows, os.path.join(directory, "heatmaps.png"))
        if not grouping:
            psd_histograms(rows, psd_rows, os.path.join(directory, "psd_best.png"))
    except OSError as error:
        print(f"kovra_plot_scan.py: cannot write '{error.filename}': {error.strerror}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
