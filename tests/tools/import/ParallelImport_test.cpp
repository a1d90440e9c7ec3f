// The import on several threads against the import on one: the same photons in the same order, the same
// triggers and the same summary, for every thread count from 2 to 8 and pieces down to a single bucket, on
// crowded simulated raw data and on data where neighbouring runs never agree; and the same failures.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "ImportRuns.hpp"
#include "RawBytes.hpp"
#include "TempDir.hpp"
#include "common/import/ChargeSidecar.hpp"
#include "common/import/Import.hpp"
#include "simulate/PhotonSimulation.hpp"
#include "simulate/RawExport.hpp"

namespace {

using namespace kovra::import;
using import_runs::Imported, import_runs::import_file, import_runs::Kept_Output;

/// Everything a run reports, the trace's reorder-window figure included.
auto get_counts(const Import_Summary& s) {
  return std::tuple(s.packets, s.chunks, s.droppedTot, s.droppedLate, s.droppedMasked, s.tdcRepeats, s.lateTriggers,
                    s.triggers, s.photons, s.rollovers, s.firstTime, s.lastTime, s.mostHeld);
}

/// Imports at one thread, then at 2 to 8 threads with pieces from a single bucket up, and compares. Returns the
/// statistics of the runs on several threads, added up.
Parallel_Stats expect_sameOnEveryThreadCount(const Import_Options& options) {
  const Imported one = import_file(options, 1, Import_Options::default_pieceItems);
  EXPECT_FALSE(one.summary.parallel);
  // Every hit that was kept is in exactly one photon's charge.
  EXPECT_EQ(one.output.charges.size(), one.output.photons.size());
  std::uint64_t hits = 0;
  for (const auto& [tot, n] : one.output.charges) hits += n;
  const auto& s = one.summary;
  EXPECT_EQ(hits,
            s.packets[static_cast<std::size_t>(Packet_Kind::hit)] - s.droppedTot - s.droppedLate - s.droppedMasked);
  Parallel_Stats total;
  const std::pair<unsigned, std::size_t> runs[] = {
      {2, Import_Options::default_pieceItems}, {2, 1}, {3, 7}, {4, 1}, {5, 997}, {6, 1}, {7, 7}, {8, 1}};
  for (const auto& [threads, pieceItems] : runs) {
    SCOPED_TRACE(testing::Message() << threads << " threads, pieces of " << pieceItems << " items");
    const Imported many = import_file(options, threads, pieceItems);
    EXPECT_EQ(many.output.photons, one.output.photons);
    EXPECT_EQ(many.output.charges, one.output.charges);
    EXPECT_EQ(many.output.triggers, one.output.triggers);
    EXPECT_EQ(get_counts(many.summary), get_counts(one.summary));
    if (!many.summary.parallel) {
      ADD_FAILURE() << "no statistics of the run on several threads";
      continue;
    }
    total.pieces += many.summary.parallel->pieces;
    total.cuts += many.summary.parallel->cuts;
    total.takenOn += many.summary.parallel->takenOn;
  }
  return total;
}

/// Crowded flashes (20 photons each, all within a pixel or two and tens of nanoseconds, on a small frame) as
/// the simulator's raw output, shifted in time to cross a roll-over of the hit counter; then a chunk of late
/// packets: hits a few milliseconds behind (kept, far out of order) and beyond the reorder window (dropped).
void write_crowdedRaw(const std::string& name, int side, double flashRate, std::uint64_t seed) {
  kovra::simulate::Simulation_Settings settings;
  settings.duration_s = 0.012, settings.eventRate_Hz = flashRate, settings.photonsPerEvent = 20;
  settings.width_px = settings.height_px = side;
  settings.seed = seed;
  settings.triggerMode = kovra::simulate::Trigger_Mode::periodic;
  settings.triggerFrequency_Hz = 2e4;
  auto simulated = kovra::simulate::simulate_photonEvents(settings, [](const auto&) {});
  const long shift = (1L << 34) - 2560000;  // the hit counter rolls over 4 ms in
  for (auto& p : simulated.photons.photonEvents) p.toa.value += shift;
  for (auto& t : *simulated.photons.extTriggers) t.value += shift;
  RawBytes raw;
  kovra::simulate::Raw_Writer writer(
      side, side, seed, [&](const std::uint64_t* w, std::size_t n) { raw.words(w, n); },
      [&, next = std::size_t{0}](kovra::tpx3spidr::Time& t) mutable {
    if (next == simulated.photons.extTriggers->size()) return false;
    t = (*simulated.photons.extTriggers)[next++];
    return true;
      },
      [](const kovra::simulate::Raw_Hit&) {});
  for (const auto& p : simulated.photons.photonEvents) writer.add_photon(p);
  writer.finish();
  const long end = shift + 7680000;  // 12 ms
  raw.chunk(0, {make_hitPacket(3, 3, 20, static_cast<std::uint64_t>(end - 2000000)),
                make_hitPacket(4, 3, 20, static_cast<std::uint64_t>(end - 2000000)),
                make_hitPacket(9, 9, 5, static_cast<std::uint64_t>(end - 4500000))});
  write_bytes(name, raw.data);
}

class ParallelImportTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = new TempDir;
    write_crowdedRaw(dir->file("single.tpx3"), 32, 2e5, 3);
    write_crowdedRaw(dir->file("quad.tpx3"), 300, 3e5, 4);
  }
  static void TearDownTestSuite() { delete dir; }

  static Import_Options options_for(const char* file, Frame_Layout layout) {
    Import_Options options;
    options.inputFile = dir->file(file);
    options.layout = layout;
    return options;
  }

  static TempDir* dir;
};
TempDir* ParallelImportTest::dir = nullptr;

TEST_F(ParallelImportTest, CrowdedFlashesComeOutAsOnOneThread) {
  // Radius, window (ticks), photon time, minimum ToT (ns), hits as photons, and whether a time-walk table (up to
  // 300 ticks: hits far out of order) and a pixel mask (a column of the frame's corner) apply. The window of
  // 0.3 ms is longer than a bucket: a piece of one bucket can hold no cut, and the run before takes the piece on.
  struct Setting {
    unsigned radius;
    Ticks window;
    Photon_Time time;
    double minTot;
    bool hitsAsPhotons, tables;
  };
  const Setting settings[] = {{1, 160, Photon_Time::strongest, 0, false, true},
                              {0, 50, Photon_Time::earliest, 0, false, false},
                              {2, 640, Photon_Time::strongest, 60, false, false},
                              {1, 192000, Photon_Time::earliest, 0, false, false},
                              {1, 160, Photon_Time::strongest, 0, true, false}};
  auto mask = std::make_shared<Pixel_Mask>(512);
  for (unsigned y = 0; y < 32; ++y) mask->add(10, y);
  for (const auto& [file, layout] :
       {std::pair{"single.tpx3", Frame_Layout::single}, {"quad.tpx3", Frame_Layout::quad}}) {
    for (const Setting& s : settings) {
      SCOPED_TRACE(testing::Message() << file << ": radius " << s.radius << ", window " << s.window << ", min-tot "
                                      << s.minTot << (s.hitsAsPhotons ? ", hits as photons" : "")
                                      << (s.tables ? ", time walk and mask" : ""));
      Import_Options options = options_for(file, layout);
      options.radius_px = s.radius, options.window = s.window, options.photonTime = s.time;
      options.minTot_ns = s.minTot, options.hitsAsPhotons = s.hitsAsPhotons;
      if (s.tables) {
        options.timeWalk = std::make_shared<const Time_Walk>(std::vector<Time_Walk::Row>{{25, 300}, {250, 0}});
        options.mask = mask;
        EXPECT_GT(import_file(options, 1, 1).summary.droppedMasked, 100u);
      }
      const Parallel_Stats stats = expect_sameOnEveryThreadCount(options);
      if (s.window > (Ticks{1} << Reorder_Window::bucket_bits)) {
        EXPECT_GT(stats.takenOn, 100u);
      } else {
        EXPECT_GT(stats.cuts, 100u);
      }
    }
  }
  // The data is what it is meant to be: crowded, late packets kept and dropped, a roll-over, repeated TDCs.
  const Imported quad = import_file(options_for("quad.tpx3", Frame_Layout::quad), 1, 1);
  EXPECT_GT(quad.summary.packets[0], 200000u);
  EXPECT_LT(quad.summary.photons * 10, quad.summary.packets[0]);
  EXPECT_EQ(quad.summary.droppedLate, 1u);
  EXPECT_EQ(quad.summary.rollovers, 1u);
  EXPECT_EQ(quad.summary.tdcRepeats, 3 * quad.summary.triggers);
}

TEST_F(ParallelImportTest, AStretchWhereRunsNeverAgreeIsGroupedAsOneThreadGroupsIt) {
  // A pixel firing every half window makes photons of three hits, each opening one and a half windows after
  // the one before; a run starting fresh at a hit of another phase makes other photons, and the two never agree
  // while the pixel fires. Beside it, flashes elsewhere; after it, a quiet stretch, where runs agree again.
  constexpr Ticks window = 160;
  RawBytes raw;
  for (Ticks slice = 0; slice < 120; ++slice) {
    std::vector<std::uint64_t> packets{make_heartbeatPacket(static_cast<std::uint64_t>(slice << 16))};
    for (Ticks t = ((slice << 16) + window / 2 - 1) / (window / 2) * (window / 2); t < (slice + 1) << 16;
         t += window / 2) {
      if (slice < 80) packets.push_back(make_hitPacket(7, 7, 3, static_cast<std::uint64_t>(t)));
      if (t % 4000 == 0) {
        for (unsigned k = 0; k < 5; ++k) {
          packets.push_back(make_hitPacket(100 + k % 2, 100, k, static_cast<std::uint64_t>(t + k)));
        }
      }
    }
    raw.chunk(0, packets);
  }
  write_bytes(dir->file("hot.tpx3"), raw.data);
  Import_Options options = options_for("hot.tpx3", Frame_Layout::single);
  options.window = window;
  const Parallel_Stats stats = expect_sameOnEveryThreadCount(options);
  EXPECT_GT(stats.takenOn, 100u);
  EXPECT_GT(stats.cuts, 100u);
}

TEST_F(ParallelImportTest, PhotonsOfTheRunBeforeACutMergeWithThoseAfterIt) {
  // In each bucket s from the second on, at T = s x 2^16 + 10: R opens just before the bucket (and a piece)
  // begins; P opens at T, in both runs; b, beside R, joins R in the run from before but opens a photon in the
  // fresh run: the cut comes after b. Q opens after the cut, at T + 2, before P's strongest hit at T + 100: the
  // photon of the run before the cut is written after one of the run after it.
  RawBytes raw;
  for (Ticks s = 0; s < 40; ++s) {
    const auto at = [](Ticks t) { return static_cast<std::uint64_t>(t); };
    const Ticks T = (s << 16) + 10;
    std::vector<std::uint64_t> packets{make_heartbeatPacket(at(s << 16))};
    if (s > 0) {
      packets.insert(packets.end(), {make_hitPacket(50, 50, 1, at(T)), make_hitPacket(11, 10, 5, at(T + 1)),
                                     make_hitPacket(90, 90, 5, at(T + 2)), make_hitPacket(51, 50, 9, at(T + 100)),
                                     make_hitPacket(200, 200, 5, at(T + 300))});
    }
    packets.push_back(make_hitPacket(10, 10, 5, at(((s + 1) << 16) - 40)));  // R, for the next bucket
    raw.chunk(0, packets);
  }
  write_bytes(dir->file("merge.tpx3"), raw.data);
  const Parallel_Stats stats = expect_sameOnEveryThreadCount(options_for("merge.tpx3", Frame_Layout::single));
  EXPECT_GT(stats.cuts, 100u);
}

TEST_F(ParallelImportTest, DamageEndsTheRunWithTheMessageOfOneThread) {
  // The damage comes after thousands of pieces went to the workers.
  const std::string valid = read_bytes(dir->file("single.tpx3"));
  const std::string cases[] = {RawBytes().word(make_chunkHeader(0, 12)).word(make_hitPacket(1, 1, 1, 5)).word(0).data,
                               RawBytes().word(make_hitPacket(1, 1, 1, 5)).data,
                               RawBytes().word(make_chunkHeader(2, 0)).data};
  for (const std::string& tail : cases) {
    write_bytes(dir->file("bad.tpx3"), valid + tail);
    const auto message_at = [&](unsigned threads) -> std::string {
      try {
        import_file(options_for("bad.tpx3", Frame_Layout::single), threads, 1);
      } catch (const std::invalid_argument& e) {
        return e.what();
      }
      return "no failure";
    };
    const std::string one = message_at(1);
    EXPECT_NE(one, "no failure");
    for (const unsigned threads : {2U, 5U}) EXPECT_EQ(message_at(threads), one) << threads << " threads";
  }
}

/// An output that fails once it is given more than 1000 photons, as a full disk would.
struct Failing_Output : Kept_Output {
  void add_photons(const Hit_Grouping::Photon* p, std::size_t n) {
    if (photons.size() + n > 1000) throw Output_Failure("cannot write \"out.kovraphot\": No space left on device");
    Kept_Output::add_photons(p, n);
  }
};

TEST_F(ParallelImportTest, AFailedWriteEndsTheRunOnEveryThreadCount) {
  // On several threads, after many pieces were written, with the workers busy; they stop with the run.
  Import_Options options = options_for("single.tpx3", Frame_Layout::single);
  for (const auto& [threads, pieceItems] : {std::pair{1U, std::size_t{1}}, {2U, 1}, {5U, 7}}) {
    options.threads = threads, options.pieceItems = pieceItems;
    Failing_Output output;
    Import_Observer quiet;
    EXPECT_THAT([&] { run_import(options, output, quiet); },
                testing::ThrowsMessage<Output_Failure>(
                    testing::StrEq("cannot write \"out.kovraphot\": No space left on device")))
        << threads << " threads";
    if (threads > 1) {
      EXPECT_GT(output.photons.size(), 500u) << "photons of the pieces written before the failure";
    }
  }
}

}  // namespace
