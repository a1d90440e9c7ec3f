// kovra_grouping_bench: the hit grouping of kovra_import alone, on one core. Reads the hits of a raw Timepix3
// file into memory in time order (decoded, placed on the clock and reordered as kovra_import does, triggers
// left out), then groups them into photons several times and prints the fastest run in nanoseconds per hit,
// with the photon count and a checksum of the photons (equal checksums: equal photons, in the same order).
//
// Usage: kovra_grouping_bench RAW [--quad] [--radius PX] [--window TICKS] [--earliest] [--hits N] [--repeat K]
//   --hits N    the first N hits only (default 20 000 000: 320 MB of hits in memory)
//   --repeat K  runs, the fastest counts (default 5)

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/import/ClockFollower.hpp"
#include "common/import/HitGrouping.hpp"
#include "common/import/RawReader.hpp"
#include "common/import/ReorderWindow.hpp"

namespace {

using namespace kovra::import;

struct Settings {
  const char* raw = nullptr;
  bool quad = false;
  unsigned radius = 1;
  Ticks window = 160;
  Photon_Time photonTime = Photon_Time::strongest;
  std::size_t hits = 20000000;
  int repeat = 5;
};

Settings parse(int argc, char* argv[]) {
  Settings s;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const bool more = i + 1 < argc;
    if (a == "--quad") {
      s.quad = true;
    } else if (a == "--earliest") {
      s.photonTime = Photon_Time::earliest;
    } else if (a == "--radius" && more) {
      s.radius = static_cast<unsigned>(std::atoi(argv[++i]));
    } else if (a == "--window" && more) {
      s.window = std::atoll(argv[++i]);
    } else if (a == "--hits" && more) {
      s.hits = static_cast<std::size_t>(std::atoll(argv[++i]));
    } else if (a == "--repeat" && more) {
      s.repeat = std::atoi(argv[++i]);
    } else if (s.raw == nullptr && a[0] != '-') {
      s.raw = argv[i];
    } else {
      std::fprintf(stderr, "kovra_grouping_bench: unknown argument '%s'\n", argv[i]);
      std::exit(2);
    }
  }
  if (s.raw == nullptr) {
    std::fprintf(stderr,
                 "Usage: kovra_grouping_bench RAW [--quad] [--radius PX] [--window TICKS] [--earliest] "
                 "[--hits N] [--repeat K]\n");
    std::exit(2);
  }
  return s;
}

/// The file's hits in the order kovra_import groups them (quad placement as in docs/raw-data.md).
std::vector<Timed_Item> read_hits(const Settings& s) {
  constexpr int placements[4][4] = {{256, 1, 0, 1}, {511, -1, 511, -1}, {255, -1, 511, -1}, {0, 1, 0, 1}};
  std::vector<Timed_Item> hits;
  Raw_Reader reader(s.raw);
  Clock_Follower clock;
  Reorder_Window window(3200000);
  const int* place = placements[3];
  const auto keep = [&](const Timed_Item* items, std::size_t n) {
    for (std::size_t i = 0; i < n && hits.size() < s.hits; ++i) hits.push_back(items[i]);
  };
  reader.read_all([&](unsigned chip, std::uint64_t) { place = placements[s.quad ? chip & 3 : 3]; },
                  [&](const std::uint64_t* words, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
      const std::uint64_t p = words[i];
      if (is_hit(p)) {
        const Ticks t = clock.place_hitClock(get_hitTicks(p));
        const int c = static_cast<int>(get_hitColumn(p));
        const int r = static_cast<int>(get_hitRow(p));
        const Timed_Item item{t, static_cast<std::uint16_t>(place[0] + place[1] * c),
                              static_cast<std::uint16_t>(place[2] + place[3] * r),
                              static_cast<std::uint16_t>(get_hitTot(p)), 0};
        window.push(item, clock.get_latest(), keep);
      } else if (get_packetKind(p) == Packet_Kind::heartbeat) {
        clock.place_hitClock(get_heartbeatTicks(p));
      } else if (get_packetKind(p) == Packet_Kind::tdc) {
        clock.place_tdc(get_tdcTicks(p));
      }
    }
  },
                  [](std::uint64_t, std::uint64_t) {}, [](const Skipped_Stretch&) {});
  window.finish(keep);
  return hits;
}

/// The photons of one grouping run: count and checksum. Not inlined, so that a profiler can count it alone
/// (valgrind --tool=callgrind --toggle-collect='*group_all*').
struct Grouped {
  std::uint64_t photons = 0;
  std::uint64_t checksum = 0;
};
[[gnu::noinline]] Grouped group_all(const Settings& s, const std::vector<Timed_Item>& hits) {
  const unsigned side = s.quad ? 512 : 256;
  Hit_Grouping grouping(side, side, s.radius, s.window, s.photonTime);
  Grouped out;
  const auto sink = [&](const Hit_Grouping::Photon& p, auto...) {
    ++out.photons;
    out.checksum = out.checksum * 1000003 + static_cast<std::uint64_t>(p.x.value) * 31 +
                   static_cast<std::uint64_t>(p.y.value) * 17 + static_cast<std::uint64_t>(p.toa.value);
  };
  grouping.add_hits(hits, 0, sink);
  grouping.finish(sink);
  return out;
}

}  // namespace

int main(int argc, char* argv[]) {
  const Settings s = parse(argc, argv);
  const std::vector<Timed_Item> hits = read_hits(s);
  double best = 1e300;
  Grouped grouped;
  for (int run = 0; run < s.repeat; ++run) {
    const auto start = std::chrono::steady_clock::now();
    grouped = group_all(s, hits);
    best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  const std::uint64_t photons = grouped.photons;
  const std::uint64_t checksum = grouped.checksum;
  std::printf("%zu hits, %llu photons (checksum %016llx): %.2f ns per hit, fastest of %d\n", hits.size(),
              static_cast<unsigned long long>(photons), static_cast<unsigned long long>(checksum),
              best * 1e9 / static_cast<double>(hits.size()), s.repeat);
  return 0;
}
