// Throughput of the container-file layer against plain buffered I/O of the same bytes.
//
//   file_io_bench [photons=20000000] [directory=.]
//
// Writes a photon file, loads it, writes an event file with as many events, and copies each file with
// fread/fwrite in 1 MiB blocks. Files are in the page cache when read, so this measures the library's own cost.

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using namespace kovra::tpx3spidr;
using Clock = std::chrono::steady_clock;

namespace {

template <typename F>
double seconds_of(F&& f) {
  const auto start = Clock::now();
  f();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// The limit: read a file and write its bytes elsewhere with plain buffered I/O in large blocks.
void plain_copy(const std::string& from, const std::string& to) {
  std::FILE* in = std::fopen(from.c_str(), "rb");
  std::FILE* out = std::fopen(to.c_str(), "wb");
  if (in == nullptr || out == nullptr) std::abort();
  std::vector<char> buffer(std::size_t{1} << 20);
  for (std::size_t n; (n = std::fread(buffer.data(), 1, buffer.size(), in)) > 0;) {
    if (std::fwrite(buffer.data(), 1, n, out) != n) std::abort();
  }
  std::fclose(in);
  std::fclose(out);
}

void report(const char* what, double bytes, double seconds) {
  std::printf("| %-34s | %10.1f | %8.3f | %9.0f |\n", what, bytes / 1e6, seconds, bytes / 1e6 / seconds);
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t n = argc > 1 ? std::stoul(argv[1]) : 20000000;
  const std::filesystem::path dir = argc > 2 ? argv[2] : ".";
  const std::string photon_file = (dir / "bench_io.kovraphot").string();
  const std::string event_file = (dir / "bench_io.kovraevent").string();
  const std::string copy_file = (dir / "bench_io.copy").string();

  Data_PhotonEvents photons;
  photons.photonEvents.reserve(n);
  for (std::size_t i = 0; i < n; ++i) {
    photons.photonEvents.push_back({Length{static_cast<int>(i * 2654435761u % 16777216u)},
                                    Length{static_cast<int>(i * 40503u % 16777216u)}, Time{static_cast<long>(i) * 64}});
  }
  photons.extTriggers = std::vector<Time>{Time{0}, Time{static_cast<long>(n) * 64}};

  std::printf("%zu photons, %zu events\n\n", n, n);
  std::printf("| %-34s | %10s | %8s | %9s |\n", "operation", "MB", "s", "MB/s");
  std::printf("|%s|%s|%s|%s|\n", std::string(36, '-').c_str(), std::string(12, '-').c_str(),
              std::string(10, '-').c_str(), std::string(11, '-').c_str());

  const double write_photons_s = seconds_of([&] { FileHandler_PhotonEvents::save_file(photon_file, photons); });
  const double photon_bytes = static_cast<double>(std::filesystem::file_size(photon_file));
  report("write photon file (save_file)", photon_bytes, write_photons_s);

  photons = Data_PhotonEvents{};
  Data_PhotonEvents loaded;
  const double load_s = seconds_of([&] { loaded = FileHandler_PhotonEvents().load_file(photon_file); });
  if (loaded.size() != n) std::abort();
  report("load photon file (load_file)", photon_bytes, load_s);
  report("plain copy of the photon file", photon_bytes, seconds_of([&] { plain_copy(photon_file, copy_file); }));

  std::vector<Event> events;
  events.reserve(n);
  for (const auto& p : loaded.photonEvents) events.push_back({p.x, p.y, p.toa, 1, 0.0});
  loaded = Data_PhotonEvents{};
  const Data_Events event_data(std::move(events), std::nullopt);
  const double write_events_s = seconds_of([&] { FileHandler_Events::save_file(event_file, event_data); });
  const double event_bytes = static_cast<double>(std::filesystem::file_size(event_file));
  report("write event file (save_file)", event_bytes, write_events_s);
  report("plain copy of the event file", event_bytes, seconds_of([&] { plain_copy(event_file, copy_file); }));

  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("\npeak resident memory: %.0f MB\n", static_cast<double>(usage.ru_maxrss) / 1024.0);

  for (const auto& f : {photon_file, event_file, copy_file}) std::filesystem::remove(f);
  return 0;
}
