"""Photon and event files of kovra_brantel as NumPy arrays, and its event reconstruction.

Positions and times stay in the files' raw integer units (1/65536 pixel, 1.5625 ns ticks); `to_pixels` and
`to_seconds` convert them. Reading maps a file into memory instead of copying it, writing gives the bytes the
command-line tool writes, and `reconstruct` runs the tool's algorithms. Every malformed file and every bad
setting the tool rejects raises ValueError with the tool's message; a file that cannot be written (a missing
folder, a full disk) raises OSError with the system's reason and leaves nothing at its path.
"""

from __future__ import annotations

import os
import struct
from typing import NamedTuple, Optional

try:
    import numpy as np
    import numpy.typing as npt
except ImportError as missing:  # e.g. an interpreter other than the one python3-numpy is installed for
    raise ImportError("kovra needs NumPy: use Debian's Python (/usr/bin/python3, package python3-numpy) or a "
                      "virtual environment made from it with --system-site-packages; see docs/python.md") from missing

from . import _kovra

__all__ = [
    "PHOTON_DTYPE", "EVENT_DTYPE", "TRIGGER_DTYPE", "UNITS_PER_PIXEL", "TICK_SECONDS",
    "CHARGE_DTYPE", "read_charges", "PhotonData", "EventData", "Membership", "read_photons", "read_events",
    "write_photons", "write_events", "reconstruct",
    "make_photons", "to_pixels", "to_seconds", "from_pixels", "from_seconds",
    "Spectrum", "Stack", "time_of_flight", "tof_spectrum", "tof_stack",
]

#: One photon record as stored: position in 1/65536 pixel, time of arrival in ticks.
PHOTON_DTYPE = np.dtype([("x", "<i4"), ("y", "<i4"), ("toa", "<i8")])
#: One event record as stored: integer centroid, time of the first photon, photon count, pulse-shape value (s).
EVENT_DTYPE = np.dtype([("x", "<i4"), ("y", "<i4"), ("t", "<i8"), ("nPhotons", "<u8"), ("psd", "<f8")])
#: One external trigger time in ticks.
TRIGGER_DTYPE = np.dtype("<i8")
#: The charge of one imported photon (kovra_import --charge): summed ToT of its hits in steps of 25 ns, hit count.
CHARGE_DTYPE = np.dtype([("tot", "<u4"), ("hits", "<u4")])
_CHARGE_HEADER = 32

UNITS_PER_PIXEL: int = _kovra.UNITS_PER_PIXEL
TICK_SECONDS: float = _kovra.TICK_SECONDS

assert PHOTON_DTYPE.itemsize == _kovra.PHOTON_BYTES and EVENT_DTYPE.itemsize == _kovra.EVENT_BYTES


class PhotonData(NamedTuple):
    """The content of a photon file: its photons and its trigger times (None when the file has no trigger list,
    an empty array when it has an empty one)."""

    photons: np.ndarray
    triggers: Optional[np.ndarray]


class EventData(NamedTuple):
    """The content of an event file, or the result of `reconstruct`: events and trigger times (None or array, as
    in `PhotonData`)."""

    events: np.ndarray
    triggers: Optional[np.ndarray]


class Membership(NamedTuple):
    """Which photons each event of a reconstruction took, as pairs: photon `photon[i]` is in event `event[i]`,
    ordered by photon, then event (int64 indexes into the photon and event arrays). Every photon is in at least one
    event; only the default algorithm (the ghost-photon chain) puts a photon into two, so for the others `photon`
    is 0, 1, 2, ... and `event` is each photon's event."""

    photon: np.ndarray
    event: np.ndarray


def _map(path: str, block: tuple[int, int], dtype: np.dtype) -> np.ndarray:
    offset, count = block
    if count == 0:  # mmap cannot map nothing
        return np.empty(0, dtype=dtype)
    return np.memmap(path, dtype=dtype, mode="r", offset=offset, shape=(count,))


def read_photons(path: str | os.PathLike[str]) -> PhotonData:
    """Reads a photon file (.kovraphot). The arrays are read-only maps of the file, not copies."""
    name = os.fspath(path)
    records, triggers = _kovra.locate_photons(name)
    return PhotonData(_map(name, records, PHOTON_DTYPE),
                      None if triggers is None else _map(name, triggers, TRIGGER_DTYPE))


def read_events(path: str | os.PathLike[str]) -> EventData:
    """Reads an event file (.kovraevent). The arrays are read-only maps of the file, not copies."""
    name = os.fspath(path)
    records, triggers = _kovra.locate_events(name)
    return EventData(_map(name, records, EVENT_DTYPE),
                     None if triggers is None else _map(name, triggers, TRIGGER_DTYPE))


def read_charges(path: str | os.PathLike[str], photons: Optional[np.ndarray] = None) -> np.ndarray:
    """Reads the charge file kovra_import --charge writes beside a photon file: for each photon, in the photon
    file's order, the summed ToT of its hits (`tot`, steps of 25 ns) and their number (`hits`). `path` is the
    charge file (.kovracharge) or the photon file beside it. With `photons` (the photon file's array), refuses a
    charge file made for another number of photons. The array is a read-only map of the file, not a copy."""
    name = os.fspath(path)
    if name.endswith(".kovraphot"):
        name = name[: -len(".kovraphot")] + ".kovracharge"
    with open(name, "rb") as f:
        header = f.read(_CHARGE_HEADER)
    where = f"charge file '{name}': "
    if len(header) < _CHARGE_HEADER or header[:8] != b"KOVRACHG":
        raise ValueError(where + "not a charge file")
    version, width, count, _fingerprint = struct.unpack("<IIQQ", header[8:])
    if version != 1:
        raise ValueError(where + "unknown version")
    if width != CHARGE_DTYPE.itemsize:
        raise ValueError(where + "bad record size")
    if os.path.getsize(name) != _CHARGE_HEADER + width * count:
        raise ValueError(where + "truncated or overlong")
    if photons is not None and len(photons) != count:
        raise ValueError(where + f"made for {count} photons, the photon file has {len(photons)}")
    return _map(name, (_CHARGE_HEADER, count), CHARGE_DTYPE)


def _check_fits(values: np.ndarray, target: np.dtype, what: str) -> None:
    """Refuses values that would change when stored as `target`: floats for integers, integers out of range."""
    if values.size == 0 or np.can_cast(values.dtype, target, casting="safe"):
        return
    if values.dtype.kind in "iu" and target.kind in "iu":
        limits = np.iinfo(target)
        # As Python integers: NumPy compares uint64 with int64 as floats, which cannot tell 2**63 from 2**63 - 1.
        if int(values.min()) >= limits.min and int(values.max()) <= limits.max:
            return
    raise TypeError(f"{what}: {values.dtype} values do not fit {target}")


def _as_records(values: npt.ArrayLike, dtype: np.dtype, what: str) -> np.ndarray:
    """`values` as a contiguous 1-D array of `dtype`, converted field by field where no value changes."""
    array = np.asarray(values)
    if array.ndim != 1:
        raise TypeError(f"{what} must be a one-dimensional array, not {array.ndim}-dimensional")
    if array.dtype == dtype:
        return np.ascontiguousarray(array)
    if dtype.names is None:
        _check_fits(array, dtype, what)
        return array.astype(dtype)
    if array.dtype.names is None or set(array.dtype.names) != set(dtype.names):
        raise TypeError(f"{what} need exactly the fields {', '.join(dtype.names)}")
    converted = np.empty(array.shape, dtype=dtype)
    for field in dtype.names:
        _check_fits(array[field], dtype.fields[field][0], f"{what}, field {field}")
        converted[field] = array[field]
    return converted


def _as_triggers(triggers: Optional[npt.ArrayLike]) -> Optional[np.ndarray]:
    return None if triggers is None else _as_records(triggers, TRIGGER_DTYPE, "triggers")


def _check_extension(path: str | os.PathLike[str], extension: str, message: str) -> None:
    """Refuses a name the tools would refuse, with their message: the name must end in `extension` (case matters)."""
    if not os.fspath(path).endswith(extension):
        raise ValueError(message)


def write_photons(path: str | os.PathLike[str], photons: npt.ArrayLike,
                  triggers: Optional[npt.ArrayLike] = None) -> None:
    """Writes a photon file with the library's writer. `photons` has the fields x, y, toa (see `make_photons`);
    `triggers` None writes no trigger list, an empty array an empty one. The name must end in .kovraphot
    (ValueError otherwise, with kovra_simulate's message). The file appears whole or not at all: a write that
    fails raises OSError with the system's reason and leaves an earlier file at the path as it was."""
    _check_extension(path, ".kovraphot", f'output file "{os.fspath(path)}" must end in .kovraphot')
    records = _as_records(photons, PHOTON_DTYPE, "photons")
    times = _as_triggers(triggers)
    _kovra.write_photons(os.fspath(path), records, times)


def write_events(path: str | os.PathLike[str], events: npt.ArrayLike,
                 triggers: Optional[npt.ArrayLike] = None) -> None:
    """Writes an event file with the library's writer; `triggers` as for `write_photons`. The name must end in
    .kovraevent (ValueError otherwise, with kovra_brantel's message)."""
    _check_extension(path, ".kovraevent", "Output file must be a .kovraevent file!")
    records = _as_records(events, EVENT_DTYPE, "events")
    times = _as_triggers(triggers)
    _kovra.write_events(os.fspath(path), records, times)


def reconstruct(photons: npt.ArrayLike, d_space_px: float, d_time_s: float, d_time_ext: Optional[float] = None,
                duration_max_s: Optional[float] = None, algorithm: str = "default",
                triggers: Optional[npt.ArrayLike] = None,
                membership: bool = False, threads: Optional[int] = None) -> EventData | tuple[EventData, Membership]:
    """Groups photons into events exactly as `kovra_brantel -s d_space_px -t d_time_s [--dTime_ext d_time_ext]
    [-D duration_max_s] --algorithm algorithm` does (None: the option left out). The photons must be in
    non-decreasing time of arrival. The triggers are carried over to the result unchanged, as the tool does.
    With `membership=True` the result is `(EventData, Membership)`: also which photons each event took.
    `threads`: how many threads to use; None uses as many as the tool would (the cores this process may run on,
    or KOVRA_THREADS). The events are the same for every count. A run with `membership=True` uses one thread.
    """
    records = _as_records(photons, PHOTON_DTYPE, "photons")
    limit = float("inf") if duration_max_s is None else float(duration_max_s)
    ext = None if d_time_ext is None else float(d_time_ext)
    if threads is not None and (isinstance(threads, bool) or not isinstance(threads, int) or not 1 <= threads <= 1024):
        raise ValueError(f"threads must be a whole number from 1 to 1024 or None, not {threads!r}")
    events, times, members = _kovra.reconstruct(records, float(d_space_px), float(d_time_s), ext, limit, algorithm,
                                                _as_triggers(triggers), bool(membership), threads)
    result = EventData(events.view(EVENT_DTYPE), None if times is None else times.view(TRIGGER_DTYPE))
    if not membership:
        return result
    photon, event = members
    return result, Membership(photon.view(np.int64), event.view(np.int64))


class Spectrum(NamedTuple):
    """A time-of-flight spectrum: `counts[i]` records with `edges[i] <= tof < edges[i + 1]` (edges in ticks,
    uint64, one more than the bins), and `tally`, a dict of how many records were seen, counted and left out (by
    the selection, before the first trigger, outside the range; for a stack also outside its cells)."""

    counts: np.ndarray
    edges: np.ndarray
    tally: dict


class Stack(NamedTuple):
    """An image per time-of-flight bin: `counts[bin, row, column]` (uint32), row along y and column along x, cells
    of `cell_px` pixels from (0, 0); `edges` and `tally` as in `Spectrum`."""

    counts: np.ndarray
    edges: np.ndarray
    cell_px: float
    tally: dict


def _record_times(records: npt.ArrayLike) -> np.ndarray:
    array = np.asarray(records)
    names = array.dtype.names or ()
    if "t" in names or "toa" in names:
        array = array["t" if "t" in names else "toa"]
    return _as_records(array, TRIGGER_DTYPE, "times")


def _triggers_for_tof(triggers: Optional[npt.ArrayLike]) -> np.ndarray:
    if triggers is None:
        raise ValueError("no time of flight: the trigger list is absent")
    return _as_records(triggers, TRIGGER_DTYPE, "triggers")


def time_of_flight(records: npt.ArrayLike, triggers: Optional[npt.ArrayLike]) -> np.ndarray:
    """Each record's time of flight in ticks: its time minus the latest trigger at or before it, as int64, -1 for a
    record earlier than the first trigger (every record, for an empty trigger list). `records` are events, photons
    or raw times; `triggers` must not decrease (ValueError with the place where they do)."""
    times = _record_times(records)
    return _kovra.time_of_flight(times, _triggers_for_tof(triggers)).view(np.int64)


def _tof_histogram(records: npt.ArrayLike, triggers: Optional[npt.ArrayLike], bins: int, tof_min_s: float,
                   tof_max_s: Optional[float], log: bool, psd_min_s: Optional[float], psd_max_s: Optional[float],
                   photons_min: Optional[int], photons_max: Optional[int],
                   region_px: Optional[tuple[float, float, float, float]],
                   stack: Optional[tuple[float, float]]) -> tuple:
    array = np.asarray(records)
    events = array.dtype.names is not None and "nPhotons" in array.dtype.names
    data = _as_records(array, EVENT_DTYPE if events else PHOTON_DTYPE, "records")
    if not events and (psd_min_s, psd_max_s, photons_min, photons_max) != (None,) * 4:
        raise ValueError("the selections by pulse-shape value and photon count need events")
    if not tof_min_s >= 0 or (tof_max_s is not None and not tof_max_s > tof_min_s):
        raise ValueError("tof_min_s must be 0 or more and tof_max_s larger than tof_min_s")
    if log and not tof_min_s > 0:
        raise ValueError("logarithmic bins need tof_min_s above 0")
    settings = _kovra.TimeOfFlightSettings(int(bins), float(tof_min_s), tof_max_s, bool(log), psd_min_s, psd_max_s,
                                           photons_min, photons_max, region_px, stack)
    histogram = _kovra.tof_histogram_events if events else _kovra.tof_histogram_photons
    return histogram(data, _triggers_for_tof(triggers), settings)


def tof_spectrum(records: npt.ArrayLike, triggers: Optional[npt.ArrayLike], bins: int = 100, tof_min_s: float = 0.0,
                 tof_max_s: Optional[float] = None, log: bool = False, psd_min_s: Optional[float] = None,
                 psd_max_s: Optional[float] = None, photons_min: Optional[int] = None,
                 photons_max: Optional[int] = None,
                 region_px: Optional[tuple[float, float, float, float]] = None) -> Spectrum:
    """The time-of-flight spectrum `kovra_inspect --spectrum` writes for the same settings: `bins` bins from
    `tof_min_s` to `tof_max_s` (default: the longest interval between consecutive triggers), equal or, with
    `log=True`, logarithmic, of the records that pass the selection (pulse-shape value and photon count within the
    given bounds, inclusive, for events; position in [x0, x1) x [y0, y1) pixels)."""
    counts, edges, _, _, tally = _tof_histogram(records, triggers, bins, tof_min_s, tof_max_s, log, psd_min_s,
                                                psd_max_s, photons_min, photons_max, region_px, None)
    return Spectrum(counts.view(np.uint64), edges.view(np.uint64), tally)


def tof_stack(records: npt.ArrayLike, triggers: Optional[npt.ArrayLike], bins: int = 100, tof_min_s: float = 0.0,
              tof_max_s: Optional[float] = None, log: bool = False, psd_min_s: Optional[float] = None,
              psd_max_s: Optional[float] = None, photons_min: Optional[int] = None,
              photons_max: Optional[int] = None, region_px: Optional[tuple[float, float, float, float]] = None,
              size_px: float = 256, binning_px: float = 1.0) -> Stack:
    """The image stack `kovra_inspect --stack-hdf5` writes for the same settings: the bins and selection of
    `tof_spectrum`, cells of `binning_px` pixels over the square of `size_px` pixels from (0, 0). Summed over its
    first axis it is the map of the records the spectrum counts (those inside the square)."""
    counts, edges, stack, side, tally = _tof_histogram(records, triggers, bins, tof_min_s, tof_max_s, log, psd_min_s,
                                                       psd_max_s, photons_min, photons_max, region_px,
                                                       (float(size_px), float(binning_px)))
    cell_px = float(_kovra.from_pixels(binning_px)) / UNITS_PER_PIXEL
    return Stack(stack.view(np.uint32).reshape(len(counts) // 8, side, side), edges.view(np.uint64), cell_px, tally)


def make_photons(x: npt.ArrayLike, y: npt.ArrayLike, toa: npt.ArrayLike) -> np.ndarray:
    """A photon array from three columns of raw integers (see `from_pixels`, `from_seconds`)."""
    columns = {"x": np.asarray(x), "y": np.asarray(y), "toa": np.asarray(toa)}
    shapes = {column.shape for column in columns.values()}
    if len(shapes) != 1 or len(next(iter(shapes))) != 1:
        raise TypeError("x, y and toa must be one-dimensional and of one length")
    photons = np.empty(columns["x"].shape, dtype=PHOTON_DTYPE)
    for field, column in columns.items():
        _check_fits(column, PHOTON_DTYPE.fields[field][0], field)
        photons[field] = column
    return photons


def to_pixels(raw: npt.ArrayLike) -> np.ndarray:
    """Raw positions (1/65536 pixel) to pixels, as the library computes them."""
    return np.asarray(raw).astype(np.float64) / float(UNITS_PER_PIXEL)


def to_seconds(raw: npt.ArrayLike) -> np.ndarray:
    """Raw times (ticks) to seconds, as the library computes them."""
    return np.asarray(raw).astype(np.float64) * TICK_SECONDS


def from_pixels(pixels: npt.ArrayLike) -> np.ndarray:
    """Pixels to raw positions with the library's rounding (halves away from zero)."""
    return np.asarray(_kovra.from_pixels(pixels), dtype=np.int32)


def from_seconds(seconds: npt.ArrayLike) -> np.ndarray:
    """Seconds to raw times with the library's rounding; ValueError beyond the library's range."""
    return np.asarray(_kovra.from_seconds(seconds), dtype=np.int64)
