// Where the time of a kovra_brantel run goes, on one thread and on several: the steps the tool takes (the photon
// file's layout, the reconstruction writing its events, the trigger block and the move into place), each timed,
// and what runs on the calling thread alone while no worker can run (before the first piece starts, after the
// last events are written), which bounds what more cores can give.
//
//   parallel_phases_bench INPUT.kovraphot OUTPUT.kovraevent ALGORITHM THREADS [DSPACE_PX DTIME_S DURATIONMAX_S]
//
// The settings default to the benchmark's (-s 5 -t 5e-7 -D 2e-6). Prints one line of key=value figures
// (seconds; processor seconds of the whole process), for bench/run_benchmarks.sh.

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>

#include "kovra/Reconstruction_Parallel.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

namespace tpx = kovra::tpx3spidr;
using Clock = std::chrono::steady_clock;

namespace {

double seconds_since(Clock::time_point start, Clock::time_point t) {
  return std::chrono::duration<double>(t - start).count();
}

double processor_seconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto s = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6; };
  return s(usage.ru_utime) + s(usage.ru_stime);
}

/// The event file writer, timing the calling thread's work in it.
struct Timed_Writer {
  tpx::EventFile_Writer& writer;
  double busy = 0;
  Clock::time_point lastEnd{};

  void append(const tpx::Event& event) { writer.append(event); }
  void append(std::span<const tpx::Event> events) {
    const auto start = Clock::now();
    writer.append(events);
    lastEnd = Clock::now();
    busy += std::chrono::duration<double>(lastEnd - start).count();
  }
  std::uint64_t size() const { return writer.size(); }
  void restart() { writer.restart(); }
  void start_writeBackAsWritten() { writer.start_writeBackAsWritten(); }
};

}  // namespace

int main(int argc, char* argv[]) {
  if (argc != 5 && argc != 8) {
    std::fprintf(stderr,
                 "Usage: parallel_phases_bench INPUT OUTPUT ALGORITHM THREADS [DSPACE_PX DTIME_S DURATIONMAX_S]\n");
    return 2;
  }
  const std::string input = argv[1], output = argv[2];
  const kovra::Algorithm algorithm = kovra::find_algorithm(argv[3]);
  const auto threads = static_cast<unsigned>(kovra::parse_count("THREADS", argv[4], 1, kovra::max_threads));
  const double dSpace = argc == 8 ? std::atof(argv[5]) : 5;
  const double dTime = argc == 8 ? std::atof(argv[6]) : 5e-7;
  const double durationMax = argc == 8 ? std::atof(argv[7]) : 2e-6;
  const tpx::Reconstruction_Events reconstruction{tpx::Length::from_pixels(dSpace),
                                                  tpx::Time::make_from_seconds<true>(dTime), std::nullopt,
                                                  tpx::convert_durationMax(durationMax)};

  const auto start = Clock::now();
  const kovra::File_Layout layout = tpx::FileHandler_PhotonEvents::read_layout(input);
  const auto laidOut = Clock::now();

  // The photon list as the tool opens it, noting when the first piece's run starts reading.
  auto photons = kovra::make_photonList<tpx::PhotonEvent>(input, layout.records);
  Clock::time_point firstPiece{};
  std::atomic<bool> pieceSeen{false};
  const auto openPiece = photons.open_from;
  photons.open_from = [&](std::uint64_t first, std::size_t capacity) {
    if (capacity == kovra::piece_windowCapacity && !pieceSeen.exchange(true)) firstPiece = Clock::now();
    return openPiece(first, capacity);
  };

  tpx::EventFile_Writer events(output);
  Timed_Writer timed{events};
  kovra::reconstruct_parallel(reconstruction, algorithm, photons,
                              kovra::Parallel_Settings{threads, kovra::default_piecePhotons}, timed);
  const auto reconstructed = Clock::now();
  events.finish(input, layout.extTriggers);
  const auto finished = Clock::now();

  const double total = seconds_since(start, finished);
  // Alone before the first piece: the layout, the order check of the first and last photon, starting threads.
  // Alone after the last events: joining the threads, the trigger block, flushing and moving the file in place.
  const double before = pieceSeen ? seconds_since(start, firstPiece) : seconds_since(start, reconstructed);
  const double after = seconds_since(timed.lastEnd == Clock::time_point{} ? reconstructed : timed.lastEnd, finished);
  std::printf(
      "threads=%u photons=%llu events=%llu total=%.4f layout=%.4f reconstruction=%.4f finish=%.4f "
      "alone_before=%.4f alone_after=%.4f writer_busy=%.4f processor=%.4f\n",
      threads, static_cast<unsigned long long>(layout.records.count), static_cast<unsigned long long>(events.size()),
      total, seconds_since(start, laidOut), seconds_since(laidOut, reconstructed),
      seconds_since(reconstructed, finished), before, after, timed.busy, processor_seconds());
  return 0;
}
