// _kovra: the compiled half of the Python package. Thin on purpose: it finds where the records of a file lie
// (with the library's own checks), hands NumPy buffers to the library's writers and algorithms, and gives their
// results back as NumPy-owned memory. Every std::invalid_argument from below reaches Python as ValueError with
// its message unchanged, a write that fails as OSError with the system's reason. The package's Python half
// (kovra/__init__.py) checks dtypes and shapes first.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kovra/ContainerFile_Writer.hpp"
#include "kovra/Histogram_TimeOfFlight.hpp"
#include "kovra/OutputFile_Atomic.hpp"
#include "kovra/Reconstruction_Parallel.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace py = pybind11;
namespace tpx = kovra::tpx3spidr;

namespace {

/// (offset, count) of a block's content, or None for a trigger block the file does not have.
py::object to_python(const std::optional<kovra::Block_Location>& block) {
  if (!block) return py::none();
  return py::make_tuple(block->offset, block->count);
}

/// Opens a photon or event file with the library's checks and returns where its records and triggers lie:
/// ((offset, count), (offset, count) or None).
template <typename FileHandler_Type>
py::tuple locate_blocks(const std::string& path) {
  const kovra::File_Layout layout = FileHandler_Type::read_layout(path);
  return py::make_tuple(to_python(layout.records), to_python(layout.extTriggers));
}

/// Copies a one-dimensional, contiguous buffer of `Entry_Type`-sized items (checked in Python to be the
/// record dtype) into a vector.
template <typename Entry_Type>
std::vector<Entry_Type> to_vector(const py::buffer& buffer) {
  const py::buffer_info info = buffer.request();
  if (info.ndim != 1 || info.itemsize != static_cast<py::ssize_t>(sizeof(Entry_Type)) ||
      (info.size > 1 && info.strides[0] != info.itemsize)) {
    throw std::invalid_argument("expected a contiguous one-dimensional array of " + std::to_string(sizeof(Entry_Type)) +
                                "-byte records");
  }
  std::vector<Entry_Type> entries(static_cast<std::size_t>(info.size));
  if (!entries.empty()) std::memcpy(entries.data(), info.ptr, entries.size() * sizeof(Entry_Type));
  return entries;
}

std::optional<std::vector<tpx::Time>> to_triggers(const std::optional<py::buffer>& triggers) {
  if (!triggers) return std::nullopt;
  return to_vector<tpx::Time>(*triggers);
}

/// Hands a vector to NumPy without copying: a flat uint8 array over its bytes that owns the vector (the
/// Python half views it with the record dtype).
template <typename Entry_Type>
py::array_t<std::uint8_t> to_bytes(std::vector<Entry_Type>&& entries) {
  auto* owned = new std::vector<Entry_Type>(std::move(entries));
  py::capsule owner(owned, [](void* p) { delete static_cast<std::vector<Entry_Type>*>(p); });
  return py::array_t<std::uint8_t>({static_cast<py::ssize_t>(owned->size() * sizeof(Entry_Type))},
                                   reinterpret_cast<const std::uint8_t*>(owned->data()), owner);
}

py::object to_bytes(std::optional<std::vector<tpx::Time>>&& entries) {
  if (!entries) return py::none();
  return to_bytes(std::move(*entries));
}

/// Writes the file FileHandler's save_file writes, byte for byte, through the library's streaming writer, which
/// lets a failed write be seen before the size check that would stop the interpreter. Returns the system's error
/// number of a write that failed, 0 when the file is in place; throws std::runtime_error when the finished file
/// cannot be moved there.
template <typename FileHandler_Type, typename Record_Type>
int write_container(const std::string& path, std::uint64_t recordsIdentifier, const std::vector<Record_Type>& records,
                    const std::optional<std::vector<tpx::Time>>& triggers) {
  {
    kovra::OutputFile_Atomic probe(path);
    if (!probe.stream()) return probe.get_error();
  }
  kovra::ContainerFile_Writer<FileHandler_Type::file_type_index> writer(path);
  const auto write_block = [&writer](std::uint64_t identifier, const auto& entries) {
    writer.begin_block(identifier);
    writer.append(std::span(entries));
    writer.flush();
    if (!writer.good()) return false;
    writer.end_block();
    return writer.good();
  };
  if (!write_block(recordsIdentifier, records)) return writer.get_error();
  if (triggers && !write_block(kovra::detail::make_identifier("extTrigs"), *triggers)) return writer.get_error();
  writer.commit();
  return 0;
}

/// Runs `write` (see write_container) without the GIL; a failure raises OSError with the system's reason, by its
/// number (FileNotFoundError, PermissionError, ...) where there is one.
template <typename Write_Type>
void write_orRaise(const std::string& path, Write_Type&& write) {
  int error = 0;
  std::string failure;
  {
    py::gil_scoped_release unlocked;
    try {
      error = write();
    } catch (const std::runtime_error& e) {
      failure = e.what();
    }
  }
  if (error != 0) {
    errno = error;
    PyErr_SetFromErrnoWithFilename(PyExc_OSError, path.c_str());
    throw py::error_already_set();
  }
  if (!failure.empty()) {
    PyErr_SetString(PyExc_OSError, failure.c_str());
    throw py::error_already_set();
  }
}

void write_photons(const std::string& path, const py::buffer& photons, const std::optional<py::buffer>& triggers) {
  const std::vector<tpx::PhotonEvent> records = to_vector<tpx::PhotonEvent>(photons);
  const std::optional<std::vector<tpx::Time>> times = to_triggers(triggers);
  using Handler = tpx::FileHandler_PhotonEvents;
  write_orRaise(path, [&] { return write_container<Handler>(path, Handler::IO_Photons::identifier, records, times); });
}

void write_events(const std::string& path, const py::buffer& events, const std::optional<py::buffer>& triggers) {
  const std::vector<tpx::Event> records = to_vector<tpx::Event>(events);
  const std::optional<std::vector<tpx::Time>> times = to_triggers(triggers);
  using Handler = tpx::FileHandler_Events;
  write_orRaise(path, [&] { return write_container<Handler>(path, Handler::IO_Events::identifier, records, times); });
}

/// Collects the algorithms' membership reports: photon `photons[i]` belongs to event `events[i]`.
struct Membership_Pairs {
  std::vector<std::int64_t> events;
  std::vector<std::int64_t> photons;

  void operator()(std::uint64_t eventIndex, std::uint64_t photonIndex) {
    events.push_back(static_cast<std::int64_t>(eventIndex));
    photons.push_back(static_cast<std::int64_t>(photonIndex));
  }

  /// The pairs by photon, then by event (the algorithms promise no order). A counting sort: one pass to count each
  /// photon's events, one to place them, then each photon's few events in order.
  Membership_Pairs ordered(std::size_t nPhotons) const {
    std::vector<std::size_t> start(nPhotons + 1, 0);
    for (const std::int64_t photon : photons) ++start[static_cast<std::size_t>(photon) + 1];
    for (std::size_t i = 0; i < nPhotons; ++i) start[i + 1] += start[i];
    Membership_Pairs result;
    result.events.resize(events.size());
    result.photons.resize(photons.size());
    std::vector<std::size_t> next(start.begin(), start.end() - 1);
    for (std::size_t i = 0; i < photons.size(); ++i) {
      const std::size_t at = next[static_cast<std::size_t>(photons[i])]++;
      result.events[at] = events[i];
      result.photons[at] = photons[i];
    }
    for (std::size_t photon = 0; photon < nPhotons; ++photon) {
      std::sort(result.events.begin() + static_cast<std::ptrdiff_t>(start[photon]),
                result.events.begin() + static_cast<std::ptrdiff_t>(start[photon + 1]));
    }
    return result;
  }
};

/// The tool's run on photons in memory: the same conversions in the same order (time distance, space distance,
/// longest duration), the same algorithm switch, and the same threads (`threads`, else as many as the tool would
/// use; a run that reports membership uses one). Returns (event bytes, trigger bytes or None, membership), the
/// membership, when asked for, as (photon indexes, event indexes) by photon, else None.
py::tuple reconstruct(const py::buffer& photons, double d_space_px, double d_time_s, std::optional<double> d_time_ext,
                      double duration_max_s, const std::string& algorithm, const std::optional<py::buffer>& triggers,
                      bool membership, std::optional<unsigned> threads) {
  const tpx::Time dTime = tpx::Time::make_from_seconds<true>(d_time_s);
  const tpx::Length dSpace = tpx::Length::from_pixels(d_space_px);
  // The tool asserts this of its settings; here it is a caller's value, so it is an error instead.
  if (!(duration_max_s >= 0)) throw std::invalid_argument("duration_max_s must be zero or more");
  // Warnings are collected during the run and printed afterwards to sys.stdout, where a notebook shows them.
  std::vector<std::string> warnings;
  const tpx::Reconstruction_Events reconstruction{dSpace, dTime, d_time_ext, tpx::convert_durationMax(duration_max_s),
                                                  [&warnings](const std::string& w) { warnings.push_back(w); }};

  const tpx::Data_PhotonEvents input{to_vector<tpx::PhotonEvent>(photons), to_triggers(triggers)};
  // Out of order, a photon that would join an event starting after it stops the algorithms on an assertion;
  // in a Python session that would end the interpreter, so such lists are refused whole.
  const auto& list = input.photonEvents;
  if (!std::is_sorted(list.begin(), list.end(), [](const auto& a, const auto& b) { return a.toa < b.toa; })) {
    throw std::invalid_argument("photons must be in non-decreasing time of arrival");
  }

  std::optional<tpx::Data_Events> output;
  Membership_Pairs pairs;
  const auto run = [&] {
    py::gil_scoped_release unlocked;
    if (membership) {
      pairs.events.reserve(input.size());  // every photon is in at least one event
      pairs.photons.reserve(input.size());
      output.emplace(reconstructEvents_switchAlgorithm(reconstruction, input, algorithm, pairs));
      pairs = pairs.ordered(input.size());
    } else {
      const kovra::Algorithm chosen = kovra::find_algorithm(algorithm);
      const kovra::Parallel_Settings parallel{
          threads ? *threads : kovra::get_threadCount(),
          kovra::read_countVariable("KOVRA_PIECE_PHOTONS", 1, kovra::max_piecePhotons)
              .value_or(kovra::default_piecePhotons)};
      kovra::EventList<tpx::Event> events;
      events.reserve(list.size());
      kovra::reconstruct_parallel(reconstruction, chosen,
                                  kovra::make_photonList(std::span<const tpx::PhotonEvent>(list)), parallel, events);
      std::optional<std::vector<tpx::Time>> extTriggers(input.extTriggers);
      output.emplace(std::move(events.events), std::move(extTriggers));
    }
  };
  run();
  for (const std::string& warning : warnings) py::print("WARNING: " + warning, py::arg("flush") = true);
  py::object members = py::none();
  if (membership) members = py::make_tuple(to_bytes(std::move(pairs.photons)), to_bytes(std::move(pairs.events)));
  return py::make_tuple(to_bytes(std::move(output->events)), to_bytes(std::move(output->extTriggers)), members);
}

/// A one-dimensional, contiguous buffer of `Entry_Type`-sized items viewed in place, without a copy.
template <typename Entry_Type>
std::span<const Entry_Type> view_of(const py::buffer_info& info) {
  if (info.ndim != 1 || info.itemsize != static_cast<py::ssize_t>(sizeof(Entry_Type)) ||
      (info.size > 1 && info.strides[0] != info.itemsize)) {
    throw std::invalid_argument("expected a contiguous one-dimensional array of " + std::to_string(sizeof(Entry_Type)) +
                                "-byte records");
  }
  return {static_cast<const Entry_Type*>(info.ptr), static_cast<std::size_t>(info.size)};
}

/// The library's check of a trigger list: in order, else its message.
kovra::TriggerList_Check<tpx::Time> check_triggers(std::span<const tpx::Time> triggers) {
  kovra::TriggerList_Check<tpx::Time> check;
  check.add(triggers);
  return check;
}

/// Times of flight of raw times over raw triggers, as int64 with -1 for a time before the first trigger.
py::array_t<std::uint8_t> time_of_flight(const py::buffer& times, const py::buffer& triggers) {
  const py::buffer_info timeInfo = times.request(), triggerInfo = triggers.request();
  const auto t = view_of<tpx::Time>(timeInfo);
  const auto list = view_of<tpx::Time>(triggerInfo);
  std::vector<std::int64_t> result(t.size());
  {
    py::gil_scoped_release unlocked;
    check_triggers(list);
    kovra::TimeOfFlight_Clock<tpx::Time> clock(list);
    for (std::size_t i = 0; i < t.size(); ++i) {
      const auto tof = clock.get(t[i]);
      if (tof && *tof > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        throw std::invalid_argument("the time of flight of record " + std::to_string(i) + " is " +
                                    std::to_string(*tof) + " ticks, beyond int64");
      }
      result[i] = tof ? static_cast<std::int64_t>(*tof) : -1;
    }
  }
  return to_bytes(std::move(result));
}

/// The settings of a histogram of time of flight as the tool takes them: seconds and pixels, converted with the
/// library's rounding in the tool's order.
struct TimeOfFlight_Settings {
  std::size_t bins;
  double tofMin_s;
  std::optional<double> tofMax_s;
  bool logarithmic;
  std::optional<double> psdMin_s, psdMax_s;
  std::optional<std::uint64_t> photonsMin, photonsMax;
  std::optional<std::array<double, 4>> region_px;
  std::optional<std::pair<double, double>> stack;  ///< size and cell, pixels
};

/// Spectrum and, when asked for, stack of `records` (events or photons) over `triggers`: (spectrum, edges, stack or
/// None, stack side, tally) with the arrays as bytes.
template <typename Record_Type>
py::tuple tof_histogram(const py::buffer& records, const py::buffer& triggers, const TimeOfFlight_Settings& s) {
  const py::buffer_info recordInfo = records.request(), triggerInfo = triggers.request();
  const auto list = view_of<tpx::Time>(triggerInfo);
  const auto all = view_of<Record_Type>(recordInfo);
  kovra::Record_Selection<tpx::Length> selection;
  selection.psdMin = s.psdMin_s;
  selection.psdMax = s.psdMax_s;
  selection.photonsMin = s.photonsMin;
  selection.photonsMax = s.photonsMax;
  const auto ticks = [](double seconds) {
    return static_cast<kovra::TimeOfFlight_Ticks>(tpx::Time::make_from_seconds<true>(seconds).value);
  };
  selection.tofMin = ticks(s.tofMin_s);
  if (s.tofMax_s) selection.tofMax = ticks(*s.tofMax_s);
  if (s.region_px) {
    const auto& r = *s.region_px;
    const auto at = [](double px) { return tpx::Length::from_pixels(px); };
    selection.region = kovra::Detector_Region<tpx::Length>{at(r[0]), at(r[1]), at(r[2]), at(r[3])};
  }
  if (list.empty()) throw std::invalid_argument("no time of flight: the trigger list is empty");
  const kovra::TriggerList_Check<tpx::Time> check = check_triggers(list);
  const kovra::TimeOfFlight_Ticks longest = check.get_longestInterval();
  if (!selection.tofMax && longest == 0) {
    throw std::invalid_argument(
        "no time-of-flight range: the triggers give no interval between two of them; give "
        "tof_max_s");
  }
  if (!selection.tofMax && *selection.tofMin >= longest) {
    throw std::invalid_argument("tof_min_s is not below the longest interval between triggers, the default tof_max_s");
  }
  const kovra::TimeOfFlight_Bins bins(
      s.logarithmic ? kovra::TimeOfFlight_Bins::Spacing::logarithmic : kovra::TimeOfFlight_Bins::Spacing::linear,
      *selection.tofMin, selection.tofMax.value_or(longest), s.bins);
  std::optional<kovra::Position_Binning<tpx::Length>> grid;
  if (s.stack) grid = kovra::Position_Binning<tpx::Length>::make(s.stack->first, s.stack->second);
  kovra::Histogram_TimeOfFlight<tpx::Length> histogram(bins, selection, grid);
  {
    py::gil_scoped_release unlocked;
    kovra::TimeOfFlight_Clock<tpx::Time> clock(list);
    histogram.add_records(all, clock);
  }
  const kovra::TimeOfFlight_Tally& t = histogram.get_tally();
  py::dict tally;
  tally["seen"] = t.seen;
  tally["counted"] = t.counted;
  tally["deselected"] = t.deselected;
  tally["before_first_trigger"] = t.beforeFirstTrigger;
  tally["outside_range"] = t.outsideRange;
  tally["outside_stack"] = t.outsideStack;
  py::object stack = py::none();
  if (grid) stack = to_bytes(std::vector<std::uint32_t>(histogram.take_stack()));
  return py::make_tuple(to_bytes(std::vector<std::uint64_t>(histogram.get_spectrum())),
                        to_bytes(std::vector<std::uint64_t>(histogram.get_bins().get_edges())), stack,
                        grid ? grid->side : 0, tally);
}

}  // namespace

PYBIND11_MODULE(_kovra, m) {
  m.doc() = "Compiled part of the kovra package; use the functions of `kovra` instead.";

  m.attr("UNITS_PER_PIXEL") = tpx::Length::units_per_pixel;
  m.attr("TICK_SECONDS") = tpx::Time::tick_seconds;
  m.attr("PHOTON_BYTES") = sizeof(tpx::PhotonEvent);
  m.attr("EVENT_BYTES") = sizeof(tpx::Event);

  m.def("locate_photons", &locate_blocks<tpx::FileHandler_PhotonEvents>, py::arg("path"));
  m.def("locate_events", &locate_blocks<tpx::FileHandler_Events>, py::arg("path"));
  m.def("write_photons", &write_photons, py::arg("path"), py::arg("photons"), py::arg("triggers"));
  m.def("write_events", &write_events, py::arg("path"), py::arg("events"), py::arg("triggers"));
  m.def("reconstruct", &reconstruct, py::arg("photons"), py::arg("d_space_px"), py::arg("d_time_s"),
        py::arg("d_time_ext"), py::arg("duration_max_s"), py::arg("algorithm"), py::arg("triggers"),
        py::arg("membership"), py::arg("threads"));

  m.def("time_of_flight", &time_of_flight, py::arg("times"), py::arg("triggers"));
  py::class_<TimeOfFlight_Settings>(m, "TimeOfFlightSettings")
      .def(py::init<std::size_t, double, std::optional<double>, bool, std::optional<double>, std::optional<double>,
                    std::optional<std::uint64_t>, std::optional<std::uint64_t>, std::optional<std::array<double, 4>>,
                    std::optional<std::pair<double, double>>>());
  m.def("tof_histogram_events", &tof_histogram<tpx::Event>, py::arg("records"), py::arg("triggers"),
        py::arg("settings"));
  m.def("tof_histogram_photons", &tof_histogram<tpx::PhotonEvent>, py::arg("records"), py::arg("triggers"),
        py::arg("settings"));

  // The library's own conversions, element by element: rounding halves away from zero, unlike numpy.round.
  m.def("from_pixels", py::vectorize([](double pixels) { return tpx::Length::from_pixels(pixels).value; }),
        py::arg("pixels"));
  m.def("from_seconds", py::vectorize([](double seconds) { return tpx::Time::make_from_seconds<true>(seconds).value; }),
        py::arg("seconds"));
}
