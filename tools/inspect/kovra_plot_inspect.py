#!/usr/bin/python3
"""The figure of kovra_inspect --plot: where the events lie, how many photons they have, their pulse-shape value
and, when the file has triggers, their time-of-flight spectrum, on one page.

Usage: kovra_plot_inspect.py DATA.h5 OUT.png
DATA.h5 is the data file kovra_inspect writes for it (its layout: tools/inspect/PlotExport.hpp); OUT.png is
written as PNG whatever its name ends in. When OUT.png cannot be written, it says why on standard error and ends
with status 1. Needs Debian's python3-matplotlib and python3-h5py.
"""

from __future__ import annotations

import sys

import h5py
import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402
from matplotlib.colors import LogNorm, Normalize  # noqa: E402

# No software version in the PNG: the same data give the same bytes.
PNG_METADATA = {"Software": None}
TIME_UNITS = ((1.0, "s"), (1e-3, "ms"), (1e-6, "µs"), (1e-9, "ns"))


def text(value: object) -> str:
    return value.decode() if isinstance(value, bytes) else str(value)


def empty_panel(axes, message: str) -> None:
    axes.text(0.5, 0.5, message, ha="center", va="center", wrap=True, transform=axes.transAxes)
    axes.set_xticks([])
    axes.set_yticks([])


def draw_map(figure, axes, data: h5py.File) -> None:
    counts = data["map"][:]
    side_px = counts.shape[0] * float(data["map"].attrs["cell_px"])
    largest = int(counts.max()) if counts.size else 0
    # Empty cells are black; the colours start at a blue that stands out from them. Few counts read better on a
    # linear scale, many on a logarithmic one.
    colours = matplotlib.colormaps["plasma"].with_extremes(bad="black")
    norm = LogNorm(vmin=1, vmax=largest) if largest > 50 else Normalize(vmin=1, vmax=max(largest, 2))
    image = axes.imshow(np.ma.masked_equal(counts, 0), origin="upper", extent=(0, side_px, side_px, 0),
                        interpolation="nearest", cmap=colours, norm=norm)
    axes.set_xlabel("x (pixel)")
    axes.set_ylabel("y (pixel)")
    axes.set_title("Event positions (black: none)")
    cell = float(data["map"].attrs["cell_px"])
    figure.colorbar(image, ax=axes, label=f"events per {cell:g} x {cell:g} pixel cell")


def draw_photons(axes, data: h5py.File) -> None:
    n = data["photons_n"][:]
    events = data["photons_events"][:]
    if n.size == 0:
        empty_panel(axes, "no events")
        return
    axes.bar(n, events, width=1.0, color="tab:blue")
    axes.set_yscale("log")
    axes.set_xlim(0, max(int(n.max()) + 1, 10))
    axes.set_xlabel("photons per event")
    axes.set_ylabel("events")
    axes.set_title(f"Photons per event (mean {np.average(n, weights=events):.3g})")


def draw_pulse_shape(axes, data: h5py.File) -> None:
    counts = data["psd_counts"][:]
    edges_ns = data["psd_edges_s"][:] * 1e9
    attrs = data["psd_counts"].attrs
    filled = np.flatnonzero(counts)
    if filled.size == 0:
        empty_panel(axes, "no events with more than one photon")
    else:
        first, last = int(filled[0]), int(filled[-1]) + 1
        axes.stairs(counts[first:last], edges_ns[first : last + 1], fill=True, color="tab:purple")
        axes.set_xscale("log")
        axes.set_xlabel("pulse-shape value: mean delay of the photons after the first (ns)")
        axes.set_ylabel("events per bin (50 per decade)")
    axes.set_title("Pulse shape of events with more than one photon")
    left_out = {"zero": int(attrs["psd_zero"]), "not a number": int(attrs["psd_not_finite"]),
                "beyond 10 ps .. 1 ms": int(attrs["psd_outside"])}
    note = ", ".join(f"{key}: {value}" for key, value in left_out.items() if value)
    if note:
        axes.text(0.99, 0.98, f"not shown: {note}", ha="right", va="top", transform=axes.transAxes, fontsize=8)


def draw_spectrum(axes, data: h5py.File) -> None:
    if "tof_counts" not in data:
        empty_panel(axes, f"no time-of-flight spectrum:\n{text(data.attrs['note'])}")
        axes.set_title("Time of flight")
        return
    edges_s = data["tof_edges_s"][:]
    scale, unit = next(((s, u) for s, u in TIME_UNITS if edges_s[-1] >= 10 * s), TIME_UNITS[-1])
    counts = data["tof_counts"][:]
    axes.stairs(counts, edges_s / scale, fill=True, color="tab:green")
    if text(data["tof_edges_s"].attrs["spacing"]) == "log":
        axes.set_xscale("log")
    axes.set_xlim(edges_s[0] / scale, edges_s[-1] / scale)
    axes.set_xlabel(f"time of flight since the latest trigger ({unit})")
    axes.set_ylabel(f"events per bin ({len(counts)} bins)")
    axes.set_title(f"Time-of-flight spectrum, {int(counts.sum())} events")


def draw(data: h5py.File, target: str) -> None:
    figure, axes = plt.subplots(2, 2, figsize=(13, 10), constrained_layout=True)
    draw_map(figure, axes[0, 0], data)
    draw_spectrum(axes[0, 1], data)
    draw_photons(axes[1, 0], data)
    draw_pulse_shape(axes[1, 1], data)
    shown, total = int(data.attrs["events_shown"]), int(data.attrs["events"])
    selection = text(data.attrs["selection"])
    title = f"{text(data.attrs['title'])}: {shown} of {total} events"
    figure.suptitle(title + (f" ({selection})" if selection else ""), fontsize=14)
    figure.savefig(target, format="png", dpi=100, metadata=PNG_METADATA)
    plt.close(figure)


def main(argv: list[str]) -> int:
    if len(argv) != 3:
        print("usage: kovra_plot_inspect.py DATA.h5 OUT.png", file=sys.stderr)
        return 2
    with h5py.File(argv[1], "r") as data:
        try:
            draw(data, argv[2])
        except OSError as error:
            print(f"kovra_plot_inspect.py: cannot write {argv[2]!r}: {error.strerror or error}", file=sys.stderr)
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
