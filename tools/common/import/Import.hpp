#pragma once

// One import run: raw packets through the clock, the reorder window and (unless hits are photons) the hit
// grouping, into a photon file. docs/raw-data.md describes every step and the summary it reports. With more
// than one thread, what the window releases goes to the pieces of Piece_Pipeline; the photons are the same.

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "common/import/ClockFollower.hpp"
#include "common/import/HitGrouping.hpp"
#include "common/import/ImportOptions.hpp"
#include "common/import/ParallelImport.hpp"
#include "common/import/RawReader.hpp"
#include "common/import/ReorderWindow.hpp"
#include "kovra/tpx3spidr/Tpx3Packets.hpp"

namespace kovra::import {

using namespace kovra::tpx3spidr::raw;  // the packet layout

/// A raw file that ended inside a chunk: its name (empty when it is the run's only file) and where it ended.
struct Ended_Early {
  std::string file;
  Unfinished_End end;
};

/// What a run read, dropped and wrote: the summary's figures.
struct Import_Summary {
  std::array<std::uint64_t, packet_kinds> packets{};  ///< by Packet_Kind
  std::uint64_t chunks = 0;
  std::uint64_t droppedTot = 0;     ///< hits below --min-tot
  std::uint64_t droppedLate = 0;    ///< hits older than the reorder window allows
  std::uint64_t droppedMasked = 0;  ///< hits of pixels the mask names
  std::uint64_t tdcRepeats = 0;     ///< TDC packets that repeat an edge already read (one per further chip)
  std::uint64_t lateTriggers = 0;   ///< trigger edges older than the reorder window allows
  std::uint64_t triggers = 0;
  std::uint64_t photons = 0;
  std::uint64_t rollovers = 0;     ///< of the hits' 26.8 s counter, followed by the clock
  std::optional<Ticks> firstTime;  ///< of the clock, when any time-carrying packet came
  Ticks lastTime = 0;
  std::size_t mostHeld = 0;                ///< largest number of items the reorder window held
  std::optional<Parallel_Stats> parallel;  ///< when the hits were grouped on several threads
  std::vector<Ended_Early> endedEarly;     ///< the files that ended inside a chunk
  std::uint64_t skippedStretches = 0;      ///< damaged stretches skipped (--skip-damaged)
  std::uint64_t skippedBytes = 0;
};

/// What a run reports while it reads; by default nothing.
class Import_Observer {
 public:
  virtual ~Import_Observer() = default;
  /// After each block read, and now and then while a followed file is waited for: the bytes read, the file's
  /// size as far as known, and the hits read.
  virtual void on_progress(std::uint64_t /*bytesRead*/, std::uint64_t /*fileBytes*/, std::uint64_t /*hits*/) {}
  /// A stretch of damaged bytes skipped, as soon as it is.
  virtual void on_skipped(const Skipped_Stretch& /*stretch*/) {}
};

namespace detail {

/// Where a chip's pixel (c, r) lands in the frame: x = xOffset + xSign c, y = yOffset + ySign r.
struct Chip_Placement {
  int xOffset, xSign, yOffset, ySign;

  constexpr int get_x(int c) const { return xOffset + xSign * c; }
  constexpr int get_y(int r) const { return yOffset + ySign * r; }
};

/// A single chip is the whole frame.
inline constexpr Chip_Placement single_placement{0, 1, 0, 1};

/// The 2 x 2 quad without gaps: chip 0 at the lower right, 1 upper right and 2 upper left (both turned half
/// round), 3 lower left.
inline constexpr std::array<Chip_Placement, 4> quad_placements = {
    {{256, 1, 0, 1}, {511, -1, 511, -1}, {255, -1, 511, -1}, {0, 1, 0, 1}}};

/// Where chip `chip` (0 to 3 in a quad) lands in the frame.
constexpr Chip_Placement get_placement(bool quad, unsigned chip) {
  return quad ? quad_placements[chip] : single_placement;
}

/// Recognises a TDC packet the readout repeats once per chip: the same 64-bit word as one of the latest 4096
/// distinct edges (a word holds the edge's 35-bit time and 12-bit counter, so two edges never share one).
class Tdc_Repeats {
 public:
  static constexpr std::size_t kept = 4096;

  bool is_repeat(std::uint64_t word) {
    if (!seen.insert(word).second) return true;
    order.push_back(word);
    if (order.size() > kept) {
      seen.erase(order.front());
      order.pop_front();
    }
    return false;
  }

 private:
  std::unordered_set<std::uint64_t> seen;
  std::deque<std::uint64_t> order;  ///< the words in `seen`, oldest first
};

}  // namespace detail

/// A run's raw files read as one stream through the clock and the reorder window, what the window releases going
/// to the sink (sorted items, or whole buckets where the sink takes them: Reorder_Window::push). Counts packets,
/// chunks, drops and skipped damage in the summary and tells the observer as it goes. Damage it stops at and
/// settings a file does not fit throw std::invalid_argument.
template <typename Sink_Type>
class Raw_Import {
 public:
  Raw_Import(const Import_Options& options_, Import_Summary& summary_, Sink_Type& sink_, Import_Observer& observer_)
      : options(options_),
        summary(summary_),
        sink(sink_),
        observer(observer_),
        window(options.reorderWindow),
        minTot(get_minTotSteps(options.minTot_ns)) {}

  /// Reads every file, one after the other: the clock, the window and the repeated TDCs carry on from one to the
  /// next. With several files, messages name the file they are about.
  void read_all() {
    const std::vector<std::string> files =
        options.inputFiles.empty() ? std::vector{options.inputFile} : options.inputFiles;
    std::uint64_t bytesAfter = 0;
    for (const auto& file : files) bytesAfter += get_fileSize(file);
    std::uint64_t bytesBefore = 0;
    for (const auto& file : files) {
      const std::string named = files.size() > 1 ? file + ": " : "";
      const bool last = &file == &files.back();
      bytesAfter -= get_fileSize(file);
      try {
        bytesBefore += read_file(file, named, last, bytesBefore, bytesAfter);
      } catch (const std::invalid_argument& e) {
        if (named.empty()) throw;
        throw std::invalid_argument(named + e.what());
      }
    }
    window.finish(sink);
    if (clock.is_started()) summary.firstTime = clock.get_start();
    summary.rollovers = clock.get_hitRollovers();
    summary.lastTime = clock.get_latest();
    summary.mostHeld = window.get_mostHeld();
  }

 private:
  /// Hits below the threshold are dropped: ToT counts 25 ns steps, so the threshold is a whole step count.
  static std::uint64_t get_minTotSteps(double minTot_ns) {
    const double steps = std::ceil(minTot_ns / 25.0);
    return steps > 1024.0 ? 1024 : static_cast<std::uint64_t>(steps);
  }

  static std::uint64_t get_fileSize(const std::string& file) {
    std::error_code error;
    const auto size = std::filesystem::file_size(file, error);
    return error ? 0 : size;
  }

  /// Reads one file; returns its size as read. `named` prefixes what is said of it. Only the run's last file may
  /// end early or be followed as it grows: the end of any other is damage (a file cut short by a copy, say), to be
  /// skipped like any other damage.
  std::uint64_t read_file(const std::string& file, const std::string& named, bool last, std::uint64_t bytesBefore,
                          std::uint64_t bytesAfter) {
    Raw_Reader reader(file, Raw_Reading{options.damage, last ? options.followSeconds : std::nullopt},
                      [this](unsigned chip) { return fits_chip(chip); });
    const auto on_chunk = [this](unsigned chip, std::uint64_t offset) { place_chunk(chip, offset); };
    const auto on_packets = [this](const std::uint64_t* words, std::size_t count) { take_packets(words, count); };
    const auto on_read = [&](std::uint64_t bytesRead, std::uint64_t fileBytes) {
      observer.on_progress(bytesBefore + bytesRead, bytesBefore + fileBytes + bytesAfter,
                           summary.packets[static_cast<std::size_t>(Packet_Kind::hit)]);
    };
    const auto on_skipped = [&](const Skipped_Stretch& stretch) {
      ++summary.skippedStretches;
      summary.skippedBytes += stretch.bytes;
      observer.on_skipped(Skipped_Stretch{stretch.at, stretch.bytes, named + stretch.cause});
    };
    if (const auto end = reader.read_all(on_chunk, on_packets, on_read, on_skipped)) {
      if (!last && options.damage == Damage_Policy::stop) {
        throw std::invalid_argument("the file ends inside a chunk (at byte offset " + std::to_string(end->at) +
                                    "), and only the last file of a run may end early; --skip-damaged imports the "
                                    "rest");
      }
      summary.endedEarly.push_back({named.empty() ? std::string() : file, *end});
    }
    return reader.get_fileBytes();
  }

  /// Whether a chunk of `chip` fits the layout (and, for one chip, the chip of the chunks before).
  bool fits_chip(unsigned chip) const {
    return options.layout == Frame_Layout::quad ? chip <= 3 : !singleChip || *singleChip == chip;
  }

  /// A chunk's header: where its hits lie in the frame.
  void place_chunk(unsigned chip, std::uint64_t offset) {
    ++summary.chunks;
    if (options.layout == Frame_Layout::quad) {
      if (chip > 3) {
        throw std::invalid_argument("chunk at byte offset " + std::to_string(offset) + " is of chip " +
                                    std::to_string(chip) + ", but a quad has chips 0 to 3");
      }
      placement = detail::quad_placements[chip];
    } else if (!singleChip) {
      singleChip = chip;
    } else if (*singleChip != chip) {
      throw std::invalid_argument("chunk at byte offset " + std::to_string(offset) + " is of chip " +
                                  std::to_string(chip) + " after chunks of chip " + std::to_string(*singleChip) +
                                  ": the file holds several chips, which --layout single cannot place (try "
                                  "--layout quad)");
    }
  }

  /// A chunk's packets. Hits, nearly every packet, are counted here and added to the summary once per call.
  void take_packets(const std::uint64_t* words, std::size_t count) {
    std::uint64_t hits = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const std::uint64_t p = words[i];
      if (is_hit(p)) [[likely]] {
        ++hits;
        take_hit(p);
      } else {
        take_otherPacket(p);
      }
    }
    summary.packets[static_cast<std::size_t>(Packet_Kind::hit)] += hits;
  }

  [[gnu::always_inline]] void take_hit(std::uint64_t p) {
    const Ticks t = clock.place_hitClock(get_hitTicks(p));
    const unsigned tot = get_hitTot(p);
    if (tot < minTot) {
      ++summary.droppedTot;
      return;
    }
    const int c = static_cast<int>(get_hitColumn(p));
    const int r = static_cast<int>(get_hitRow(p));
    const auto x = static_cast<std::uint16_t>(placement.get_x(c));
    const auto y = static_cast<std::uint16_t>(placement.get_y(r));
    if (options.mask && options.mask->is_masked(x, y)) {
      ++summary.droppedMasked;
      return;
    }
    const Ticks corrected = options.timeWalk ? options.timeWalk->correct(t, tot) : t;
    const Timed_Item item{corrected, x, y, static_cast<std::uint16_t>(tot), Timed_Item::hit_kind};
    if (!window.push(item, clock.get_latest(), sink)) ++summary.droppedLate;
  }

  void take_otherPacket(std::uint64_t p) {
    const Packet_Kind kind = get_packetKind(p);
    ++summary.packets[static_cast<std::size_t>(kind)];
    if (kind == Packet_Kind::heartbeat) {
      clock.place_hitClock(get_heartbeatTicks(p));
    } else if (kind == Packet_Kind::tdc) {
      if (repeats.is_repeat(p)) {
        ++summary.tdcRepeats;
        return;
      }
      const Ticks t = clock.place_tdc(get_tdcTicks(p));
      const auto edge = static_cast<int>(get_tdcEdge(p));
      if (edge != options.triggerEdge) return;
      const Timed_Item item{t, 0, 0, 0, static_cast<std::uint16_t>(edge)};
      if (!window.push(item, clock.get_latest(), sink)) ++summary.lateTriggers;
    }
  }

  const Import_Options& options;
  Import_Summary& summary;
  Sink_Type& sink;
  Import_Observer& observer;
  Clock_Follower clock;
  detail::Tdc_Repeats repeats;
  Reorder_Window window;
  std::uint64_t minTot;
  detail::Chip_Placement placement = detail::single_placement;
  std::optional<unsigned> singleChip;
};

/// Reads the run's raw files into `sink`; see Raw_Import.
template <typename Sink_Type>
void read_raw(const Import_Options& options, Import_Summary& summary, Sink_Type&& sink, Import_Observer& observer) {
  Raw_Import<std::remove_reference_t<Sink_Type>> reading(options, summary, sink, observer);
  reading.read_all();
}

/// Imports `options.inputFile` into `output`, which takes `add_photons(const Photon*, count)` and
/// `add_trigger(Ticks)`; `observer` follows the reading. Damage it stops at and settings the file does not fit
/// throw std::invalid_argument. The photons and triggers written are the same for every options.threads and
/// options.pieceItems.
template <typename Output_Type>
Import_Summary run_import(const Import_Options& options, Output_Type& output, Import_Observer& observer) {
  using Photon = Hit_Grouping::Photon;
  Import_Summary summary;
  if (options.threads > 1) {
    Piece_Pipeline<Output_Type> pipeline(options, output, options.threads, options.pieceItems);
    read_raw(options, summary, pipeline, observer);
    summary.parallel = pipeline.finish(summary.photons, summary.triggers);
    return summary;
  }

  const unsigned frameSize = get_frameSide(options.layout);
  Hit_Grouping grouping(frameSize, frameSize, options.radius_px, options.window, options.photonTime);
  std::vector<Photon> photons;
  std::vector<Photon_Charge> charges;  // of the photons in `photons`
  photons.reserve(1 << 16);
  const auto flush_photons = [&] {
    output.add_photons(static_cast<const Photon*>(photons.data()), photons.size());
    if constexpr (requires { output.add_charges(charges.data(), charges.size()); }) {
      output.add_charges(static_cast<const Photon_Charge*>(charges.data()), charges.size());
    }
    summary.photons += photons.size();
    photons.clear();
    charges.clear();
  };
  const auto take_photon = [&](const Photon& photon, std::uint64_t /*firstHit*/, const Photon_Charge& charge) {
    photons.push_back(photon);
    charges.push_back(charge);
    if (photons.size() == photons.capacity()) flush_photons();
  };
  std::uint64_t released = 0;  // items the window has let go: hits are numbered by it
  const auto on_released = [&](const Timed_Item* items, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      const Timed_Item& item = items[i];
      if (item.is_trigger()) {
        output.add_trigger(item.time);
        ++summary.triggers;
      } else if (options.hitsAsPhotons) {
        take_photon(Photon{{item.x * 65536}, {item.y * 65536}, {item.time}}, 0, Photon_Charge{item.tot, 1});
      }
    }
    if (!options.hitsAsPhotons) grouping.add_hits({items, count}, released, take_photon);
    released += count;
  };
  read_raw(options, summary, on_released, observer);
  grouping.finish(take_photon);
  flush_photons();
  return summary;
}

}  // namespace kovra::import
