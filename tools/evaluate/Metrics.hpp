#pragma once

// How well one reconstruction found the true flashes: efficiency, splits, merges, fakes, purity, completeness,
// overlap, centroid and time errors, and the pulse-shape figure of merit of the two most common classes.

#include <algorithm>
#include <array>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <numeric>
#include <vector>

#include "evaluate/Truth.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace kovra::evaluate {

using kovra::tpx3spidr::Event;

/// The event(s) each photon went into: at most two (a ghost photon belongs to two events). A membership sink
/// for the reconstruction algorithms.
class Photon_Memberships {
 public:
  static constexpr std::uint64_t none = std::numeric_limits<std::uint64_t>::max();

  explicit Photon_Memberships(std::size_t nPhotons) : first(nPhotons, none), second(nPhotons, none) {}

  void reset() {
    std::fill(first.begin(), first.end(), none);
    std::fill(second.begin(), second.end(), none);
  }

  void operator()(std::uint64_t eventIndex, std::uint64_t photonIndex) {
    assert(second[photonIndex] == none);
    auto& slot = first[photonIndex] == none ? first[photonIndex] : second[photonIndex];
    slot = eventIndex;
  }

  std::size_t size() const { return first.size(); }

  std::vector<std::uint64_t> first;
  std::vector<std::uint64_t> second;
};

/// The figures of one reconstruction. Rates are shares (0 to 1); NaN where nothing was there to measure.
struct Reconstruction_Metrics {
  std::uint64_t nFlashes = 0;  ///< flashes with at least one photon in the file
  std::uint64_t nEvents = 0;
  double efficiency = 0;    ///< flashes with more than half of their photons in one event
  double split_rate = 0;    ///< flashes whose photons went into two or more events
  double merge_rate = 0;    ///< events holding photons of two or more flashes, of all events
  double fake_rate = 0;     ///< events of dark counts only, of all events
  double purity = 0;        ///< photons in events that belong to their event's main flash
  double completeness = 0;  ///< photons of flashes that went into their flash's main event
  double iou = 0;           ///< mean over flashes of |flash ∩ main event| / |flash ∪ main event|
  double centroid_rms_px = 0;
  double centroid_p95_px = 0;
  double time_mean_ns = 0;  ///< the bias of the time error
  double time_rms_ns = 0;
  double time_p95_ns = 0;
  double fom = 0;
  std::uint64_t fomEvents = 0;  ///< events of the two classes that entered the figure of merit
};

/// An event's class for the pulse-shape plots: the class of the flash that gave more than half of its photons,
/// or -1 (mixed or dark).
struct Event_Class {
  double psd_s;
  std::uint64_t nPhotons;
  int classIndex;
};

namespace metrics_detail {

/// The q-quantile (0..1) by nearest rank; NaN for no values. Reorders `values`.
inline double get_quantile(std::vector<double>& values, double q) {
  if (values.empty()) return std::numeric_limits<double>::quiet_NaN();
  const auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(values.size())));
  const auto nth = values.begin() + static_cast<std::ptrdiff_t>(std::clamp<std::size_t>(rank, 1, values.size()) - 1);
  std::nth_element(values.begin(), nth, values.end());
  return *nth;
}

inline double get_rms(const std::vector<double>& values) {
  if (values.empty()) return std::numeric_limits<double>::quiet_NaN();
  double sum = 0;
  for (const double v : values) sum += v * v;
  return std::sqrt(sum / static_cast<double>(values.size()));
}

/// Peak position and full width at half maximum of a distribution, estimated robustly: the median, and
/// 2 sqrt(2 ln 2) x 1.4826 x the median absolute deviation. Both equal a Gaussian's mean and FWHM; tails and
/// stray events barely move them.
struct Peak {
  double position;
  double fwhm;
};
inline Peak get_peak(std::vector<double> values) {
  const double median = get_quantile(values, 0.5);
  for (double& v : values) v = std::abs(v - median);
  return {median, 2.3548200450309493 * 1.482602218505602 * get_quantile(values, 0.5)};
}

/// The most frequent value of a sorted list, among those `counts` accepts: how many distinct accepted values it
/// holds, the longest run and its value (`none` when no value is accepted).
template <typename Value_Type>
struct Main_Value {
  std::size_t distinct = 0;
  std::size_t run = 0;
  Value_Type value;
};
template <typename Value_Type, typename Counts_Type>
Main_Value<Value_Type> find_mainValue(const std::vector<Value_Type>& sorted, Value_Type none, Counts_Type&& counts) {
  Main_Value<Value_Type> main{0, 0, none};
  for (std::size_t k = 0; k < sorted.size();) {
    std::size_t run = 1;
    while (k + run < sorted.size() && sorted[k + run] == sorted[k]) ++run;
    if (counts(sorted[k])) {
      ++main.distinct;
      if (run > main.run) main.run = run, main.value = sorted[k];
    }
    k += run;
  }
  return main;
}

/// The photons of every event, grouped by event: those of event e are items[begin[e] .. begin[e + 1]).
struct Event_Members {
  std::vector<std::size_t> begin;
  std::vector<std::size_t> items;
};

}  // namespace metrics_detail

/// FoM = |peak_1 - peak_2| / (FWHM_1 + FWHM_2) of two samples; NaN with fewer than two values in either.
inline double get_figureOfMerit(const std::vector<double>& a, const std::vector<double>& b) {
  if (a.size() < 2 || b.size() < 2) return std::numeric_limits<double>::quiet_NaN();
  const auto pa = metrics_detail::get_peak(a);
  const auto pb = metrics_detail::get_peak(b);
  return std::abs(pa.position - pb.position) / (pa.fwhm + pb.fwhm);
}

/// When a flash counts as found.
enum class Found_Rule {
  mainEvent,  ///< its main event holds more than half of its photons
  ownEvent    ///< ... and more than half of that event's photons are its own: a merge finds at most one flash
};

/// Scores reconstructions of one photon file against its truth. Holds the photons of each flash, found once.
class Evaluator {
 public:
  explicit Evaluator(const Truth& truth_, Found_Rule foundRule_ = Found_Rule::mainEvent)
      : truth(truth_), foundRule(foundRule_), flashBegin(truth_.flashes.size() + 1, 0) {
    for (const std::int64_t f : truth.flashOfPhoton) {
      if (f >= 0) ++flashBegin[static_cast<std::size_t>(f) + 1];
    }
    for (std::size_t f = 0; f < truth.flashes.size(); ++f) flashBegin[f + 1] += flashBegin[f];
    flashPhotons.resize(flashBegin.back());
    std::vector<std::size_t> next(flashBegin.begin(), flashBegin.end() - 1);
    for (std::size_t i = 0; i < truth.flashOfPhoton.size(); ++i) {
      const std::int64_t f = truth.flashOfPhoton[i];
      if (f >= 0) flashPhotons[next[static_cast<std::size_t>(f)]++] = i;
    }
    // The two classes with the most flashes, the earlier named first on a tie.
    std::vector<std::size_t> flashesOfClass(truth.classNames.size(), 0);
    for (const auto& flash : truth.flashes) ++flashesOfClass[flash.classIndex];
    std::vector<std::size_t> order(flashesOfClass.size());
    for (std::size_t c = 0; c < order.size(); ++c) order[c] = c;
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return flashesOfClass[a] > flashesOfClass[b]; });
    fomClasses[0] = order.size() > 0 ? static_cast<int>(order[0]) : -1;
    fomClasses[1] = order.size() > 1 ? static_cast<int>(order[1]) : -1;
  }

  /// The classes compared by the figure of merit (-1 where there is none).
  std::array<int, 2> get_fomClasses() const { return fomClasses; }

  /// Scores `events` with the memberships the algorithm reported. Events with at least `fomMinPhotons` photons
  /// enter the figure of merit. `eventClasses`, when given, receives every event's class.
  Reconstruction_Metrics evaluate(const std::vector<Event>& events, const Photon_Memberships& memberships,
                                  std::uint64_t fomMinPhotons, std::vector<Event_Class>* eventClasses = nullptr) const {
    const metrics_detail::Event_Members members = group_byEvent(events.size(), memberships);
    Tally tally;
    score_events(events, members, fomMinPhotons, eventClasses, tally);
    score_flashes(events, memberships, members, tally);
    return finish(events.size(), members.items.size(), tally);
  }

 private:
  /// What the two walks count, before it becomes shares.
  struct Tally {
    std::uint64_t nFlashes = 0;
    std::uint64_t nMerged = 0;
    std::uint64_t nFake = 0;
    std::uint64_t nPure = 0;
    std::uint64_t nFound = 0;
    std::uint64_t nSplit = 0;
    std::uint64_t nFlashPhotons = 0;
    std::uint64_t nComplete = 0;
    double iouSum = 0;
    std::array<std::vector<double>, 2> psd;  ///< pulse-shape samples of the two classes
    std::vector<double> centroidErrors;
    std::vector<double> timeErrors;
  };

  static metrics_detail::Event_Members group_byEvent(std::size_t nEvents, const Photon_Memberships& memberships) {
    metrics_detail::Event_Members members{std::vector<std::size_t>(nEvents + 1, 0), {}};
    auto& begin = members.begin;
    for (const auto* slots : {&memberships.first, &memberships.second}) {
      for (const std::uint64_t e : *slots) {
        if (e != Photon_Memberships::none) ++begin[e + 1];
      }
    }
    for (std::size_t e = 0; e < nEvents; ++e) begin[e + 1] += begin[e];
    members.items.resize(begin.back());
    std::vector<std::size_t> next(begin.begin(), begin.end() - 1);
    for (std::size_t i = 0; i < memberships.size(); ++i) {
      for (const std::uint64_t e : {memberships.first[i], memberships.second[i]}) {
        if (e != Photon_Memberships::none) members.items[next[e]++] = i;
      }
    }
    return members;
  }

  /// Events: their main flash, merges, fakes, purity, and the pulse-shape samples of the two classes.
  void score_events(const std::vector<Event>& events, const metrics_detail::Event_Members& members,
                    std::uint64_t fomMinPhotons, std::vector<Event_Class>* eventClasses, Tally& tally) const {
    std::vector<std::int64_t> flashes;
    for (std::size_t e = 0; e < events.size(); ++e) {
      flashes.clear();
      for (std::size_t k = members.begin[e]; k < members.begin[e + 1]; ++k) {
        flashes.push_back(truth.flashOfPhoton[members.items[k]]);
      }
      std::sort(flashes.begin(), flashes.end());
      const auto main =
          metrics_detail::find_mainValue<std::int64_t>(flashes, -1, [](std::int64_t f) { return f >= 0; });
      tally.nMerged += main.distinct >= 2;
      tally.nFake += main.distinct == 0;
      tally.nPure += main.run;
      int classIndex = -1;
      if (2 * main.run > flashes.size()) {
        classIndex = static_cast<int>(truth.flashes[static_cast<std::size_t>(main.value)].classIndex);
      }
      if (eventClasses) eventClasses->push_back({events[e].psd, events[e].nPhotons, classIndex});
      if (classIndex >= 0 && events[e].nPhotons >= fomMinPhotons) {
        for (std::size_t c = 0; c < 2; ++c) {
          if (classIndex == fomClasses[c]) tally.psd[c].push_back(events[e].psd);
        }
      }
    }
  }

  /// Flashes: their main event, efficiency, splits, completeness, overlap and the errors of found flashes.
  void score_flashes(const std::vector<Event>& events, const Photon_Memberships& memberships,
                     const metrics_detail::Event_Members& members, Tally& tally) const {
    std::vector<std::uint64_t> eventsOfFlash;
    for (std::size_t f = 0; f < truth.flashes.size(); ++f) {
      const std::size_t nPhotons = flashBegin[f + 1] - flashBegin[f];
      if (nPhotons == 0) continue;
      ++tally.nFlashes;
      eventsOfFlash.clear();
      for (std::size_t k = flashBegin[f]; k < flashBegin[f + 1]; ++k) {
        for (const std::uint64_t e : {memberships.first[flashPhotons[k]], memberships.second[flashPhotons[k]]}) {
          if (e != Photon_Memberships::none) eventsOfFlash.push_back(e);
        }
      }
      std::sort(eventsOfFlash.begin(), eventsOfFlash.end());
      const auto main = metrics_detail::find_mainValue<std::uint64_t>(eventsOfFlash, Photon_Memberships::none,
                                                                      [](std::uint64_t) { return true; });
      tally.nSplit += main.distinct >= 2;
      tally.nFlashPhotons += nPhotons;
      tally.nComplete += main.run;
      if (main.value == Photon_Memberships::none) continue;  // only when the algorithm reported nothing
      const std::size_t eventSize = members.begin[main.value + 1] - members.begin[main.value];
      tally.iouSum += static_cast<double>(main.run) / static_cast<double>(nPhotons + eventSize - main.run);
      if (2 * main.run > nPhotons && (foundRule == Found_Rule::mainEvent || 2 * main.run > eventSize)) {
        ++tally.nFound;
        const auto& flash = truth.flashes[f];
        const Event& event = events[main.value];
        tally.centroidErrors.push_back(
            std::hypot(event.x.get_pixels() - flash.x_px, event.y.get_pixels() - flash.y_px));
        tally.timeErrors.push_back((event.t.get_seconds() - flash.t_s) * 1e9);
      }
    }
  }

  static Reconstruction_Metrics finish(std::uint64_t nEvents, std::uint64_t nMembers, Tally& tally) {
    const auto share = [](std::uint64_t part, std::uint64_t whole) {
      return whole == 0 ? std::numeric_limits<double>::quiet_NaN()
                        : static_cast<double>(part) / static_cast<double>(whole);
    };
    Reconstruction_Metrics m;
    m.nEvents = nEvents;
    m.nFlashes = tally.nFlashes;
    m.efficiency = share(tally.nFound, m.nFlashes);
    m.split_rate = share(tally.nSplit, m.nFlashes);
    m.merge_rate = share(tally.nMerged, m.nEvents);
    m.fake_rate = share(tally.nFake, m.nEvents);
    m.purity = share(tally.nPure, nMembers);
    m.completeness = share(tally.nComplete, tally.nFlashPhotons);
    m.iou = m.nFlashes == 0 ? std::numeric_limits<double>::quiet_NaN() : tally.iouSum / static_cast<double>(m.nFlashes);
    m.centroid_rms_px = metrics_detail::get_rms(tally.centroidErrors);
    m.centroid_p95_px = metrics_detail::get_quantile(tally.centroidErrors, 0.95);
    m.time_rms_ns = metrics_detail::get_rms(tally.timeErrors);
    m.time_mean_ns = tally.timeErrors.empty() ? std::numeric_limits<double>::quiet_NaN()
                                              : std::accumulate(tally.timeErrors.begin(), tally.timeErrors.end(), 0.0) /
                                                    static_cast<double>(tally.timeErrors.size());
    for (double& t : tally.timeErrors) t = std::abs(t);
    m.time_p95_ns = metrics_detail::get_quantile(tally.timeErrors, 0.95);
    m.fom = get_figureOfMerit(tally.psd[0], tally.psd[1]);
    m.fomEvents = tally.psd[0].size() + tally.psd[1].size();
    return m;
  }

  const Truth& truth;
  const Found_Rule foundRule;
  std::vector<std::size_t> flashBegin;  ///< photons of flash f: flashPhotons[flashBegin[f] .. flashBegin[f + 1])
  std::vector<std::size_t> flashPhotons;
  std::array<int, 2> fomClasses{-1, -1};
};

}  // namespace kovra::evaluate
