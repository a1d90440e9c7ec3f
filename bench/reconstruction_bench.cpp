// Throughput and peak memory of the four reconstruction algorithms on generated photon lists.
//
//   reconstruction_bench [photons [density [algorithm]]]
//
// photons defaults to 10,000,000; density is sparse, nominal or dense (all three by default); algorithm is one of
// the names the tool accepts (all four by default). Each algorithm runs in a forked child, so that its peak
// resident memory is its own: the child resets the peak (Linux clear_refs) before the run, and the figure
// therefore holds the input photons plus what the algorithm allocates. The time is the best of up to three runs
// of the algorithm call (result built, not yet released), stopping early once a second has been spent: wall
// clock (Mph/s) and, since the machine may be shared, the thread's processor time (Mph/cpu).

#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "kovra/detail/RecordIO.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using kovra::tpx3spidr::Data_PhotonEvents;
using kovra::tpx3spidr::Length;
using kovra::tpx3spidr::PhotonEvent;
using kovra::tpx3spidr::Reconstruction_Events;
using kovra::tpx3spidr::Time;

namespace {

constexpr long dTimeTicks = 64;  // 100 ns

struct Density {
  const char* name;
  double meanEventGapTicks;  // mean time between event starts
};
const Density densities[] = {
    {"sparse", 100.0 * dTimeTicks},  // events far apart
    {"nominal", dTimeTicks / 3.0},   // about three events start within one dTime
    {"dense", dTimeTicks / 16.0},    // about sixteen events (some 70 photons) within one dTime
};
const char* const algorithmNames[] = {"noBranchChain_ghostPhoton_direct", "noBranchChain_direct",
                                      "forwardChain_photonBuildup", "fullChain_direct"};

/// splitmix64: small, fast and the same on every platform.
struct Random {
  std::uint64_t state;
  std::uint64_t next() {
    std::uint64_t z = (state += 0x9E3779B97F4A7C15u);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
  }
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }  // [0, 1)
  int below(int bound) { return static_cast<int>(next() % static_cast<std::uint64_t>(bound)); }
  double exponential(double mean) { return -mean * std::log1p(-uniform()); }
};

/// Events of 1 to 8 photons on a 256 x 256 pixel detector; photons scatter one pixel around the event's centre
/// and follow its start by an exponential delay of mean dTime / 4. The list is sorted by time of arrival.
Data_PhotonEvents generate(std::size_t nPhotons, double meanEventGapTicks) {
  Random random{20261122};
  std::vector<PhotonEvent> photons;
  kovra::detail::reserve_records(photons, nPhotons);  // as the photon file reader does
  double start = 0.0;
  while (photons.size() < nPhotons) {
    start += random.exponential(meanEventGapTicks);
    const int cx = (8 + random.below(240)) * 65536;
    const int cy = (8 + random.below(240)) * 65536;
    const int n = 1 + random.below(8);
    for (int k = 0; k < n && photons.size() < nPhotons; ++k) {
      const auto t = static_cast<long>(start + random.exponential(dTimeTicks / 4.0));
      photons.push_back(PhotonEvent{Length{cx + random.below(2 * 65536) - 65536},
                                    Length{cy + random.below(2 * 65536) - 65536}, Time{t}});
    }
  }
  std::sort(photons.begin(), photons.end(), [](const PhotonEvent& a, const PhotonEvent& b) { return a.toa < b.toa; });
  return Data_PhotonEvents{std::move(photons), std::vector<Time>{}};
}

/// Mean number of photons in (t, t + dTime] after each photon: what a window of the no-branch chains holds.
double mean_window(const Data_PhotonEvents& photons) {
  const auto& p = photons.photonEvents;
  double sum = 0.0;
  std::size_t end = 0;
  for (std::size_t i = 0; i < p.size(); ++i) {
    end = std::max(end, i + 1);
    while (end < p.size() && p[end].toa.value <= p[i].toa.value + dTimeTicks) ++end;
    sum += static_cast<double>(end - i - 1);
  }
  return p.empty() ? 0.0 : sum / static_cast<double>(p.size());
}

double thread_cpu_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// A field of /proc/self/status in kB, or -1.
long status_kB(const std::string& field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field + ":", 0) == 0) return std::atol(line.c_str() + field.size() + 1);
  }
  return -1;
}

/// Runs one algorithm in this (child) process and prints one table row.
void run_one(const Data_PhotonEvents& photons, const char* density, const char* algorithm) {
  const Reconstruction_Events settings{Length::from_pixels(2.0), Time{dTimeTicks}, std::nullopt, Time{640}};
  const bool peakReset = static_cast<bool>(std::ofstream("/proc/self/clear_refs") << "5");
  double best = 1e300;
  double bestCpu = 1e300;
  double spent = 0.0;
  std::size_t nEvents = 0;
  std::uint64_t photonSum = 0;
  for (int rep = 0; rep < 3 && spent < 1.0; ++rep) {
    const double cpuBegin = thread_cpu_seconds();
    const auto begin = std::chrono::steady_clock::now();
    const auto events = reconstructEvents_switchAlgorithm(settings, photons, algorithm);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    bestCpu = std::min(bestCpu, thread_cpu_seconds() - cpuBegin);
    best = std::min(best, seconds);
    spent += seconds;
    nEvents = events.size();
    photonSum = 0;
    for (const auto& e : events.events) photonSum += e.nPhotons;
  }
  const double inputMB = static_cast<double>(photons.size() * sizeof(PhotonEvent)) / 1e6;
  std::printf("%-8s %-33s %10zu %10zu %12llu %8.3f %8.1f %8.1f %9.1f %9.1f%s\n", density, algorithm, photons.size(),
              nEvents, static_cast<unsigned long long>(photonSum), best,
              static_cast<double>(photons.size()) / best / 1e6, static_cast<double>(photons.size()) / bestCpu / 1e6,
              inputMB, static_cast<double>(status_kB("VmHWM")) * 1024.0 / 1e6, peakReset ? "" : " (peak not reset)");
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t nPhotons = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 10'000'000;
  const std::string onlyDensity = argc > 2 ? argv[2] : "";
  const std::string onlyAlgorithm = argc > 3 ? argv[3] : "";

  std::printf("%-8s %-33s %10s %10s %12s %8s %8s %8s %9s %9s\n", "density", "algorithm", "photons", "events",
              "photon sum", "best s", "Mph/s", "Mph/cpu", "input MB", "peak MB");
  for (const auto& density : densities) {
    if (!onlyDensity.empty() && onlyDensity != density.name) continue;
    const auto photons = generate(nPhotons, density.meanEventGapTicks);
    std::printf("# %s: %.2f photons within dTime after each photon\n", density.name, mean_window(photons));
    for (const char* algorithm : algorithmNames) {
      if (!onlyAlgorithm.empty() && onlyAlgorithm != algorithm) continue;
      std::fflush(stdout);
      const pid_t child = fork();
      if (child < 0) return 1;
      if (child == 0) {
        run_one(photons, density.name, algorithm);
        std::_Exit(0);
      }
      int status = 0;
      waitpid(child, &status, 0);
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::printf("%-8s %-33s failed\n", density.name, algorithm);
        return 1;
      }
    }
  }
  return 0;
}
