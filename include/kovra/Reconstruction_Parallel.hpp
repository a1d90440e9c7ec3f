#pragma once

// Reconstruction on several threads with the bytes of one: the photon list is cut into pieces where no chain
// crosses (kovra/reconstruction/Piece_Cuts.hpp, Piece_Runs.hpp), workers reconstruct the pieces, each reading
// its own range through the streaming window it has alone, and the calling thread writes their events in piece
// order. Nothing depends on the number of threads or on timing: every cut is exact, and where none is found a
// run simply goes on.
//
// Photons out of time order are found by the windows, which check the order of what they read; every pair of
// neighbouring photons is read by some run whose events are used, and the first and last photon are compared up
// front (a list spanning 2^63 ticks or more is not in order for the algorithms). Then the whole list runs on one
// thread from the start, exactly as a one-thread run does, with its message, its path and its failures.

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kovra/PhotonSource.hpp"
#include "kovra/PhotonWindow.hpp"
#include "kovra/Reconstruction_Switch.hpp"
#include "kovra/Worker_Pool.hpp"
#include "kovra/reconstruction/Piece_Cuts.hpp"
#include "kovra/reconstruction/Piece_Output.hpp"
#include "kovra/reconstruction/Piece_Runs.hpp"
#include "kovra/reconstruction/Reconstruction_Pass.hpp"

namespace kovra {

/// Photons a piece holds unless told otherwise (KOVRA_PIECE_PHOTONS). Each piece costs a source, a window and a
/// few hundred photons run twice where neighbours agree (on the dense benchmark data); much smaller pieces make
/// that show, much larger ones hold more events in memory and balance the workers worse.
inline constexpr std::uint64_t default_piecePhotons = std::uint64_t{1} << 18;

/// The most photons per piece one can ask for (KOVRA_PIECE_PHOTONS): more than any list holds.
inline constexpr std::uint64_t max_piecePhotons = std::uint64_t{1} << 62;

/// Photons a window over a piece holds at first: 2^16 photons are 1 MiB, and a window read half at a time from a
/// piece of 2^18 photons makes eight reads.
inline constexpr std::size_t piece_windowCapacity = std::size_t{1} << 16;

/// How a run is shared out: workers, and photons per piece.
struct Parallel_Settings {
  unsigned threads = 1;
  std::uint64_t piecePhotons = default_piecePhotons;
  detail::Piece_Tuning tuning = {};
};

/// The photons of a run: their number; the source a one-thread run reads; and sources over them from a given
/// photon on, whose windows should hold `windowCapacity` photons at first and check the order of what they read.
template <typename PhotonEvent_Type>
struct Photon_List {
  using Source_Type = PhotonSource<PhotonEvent_Type>;

  std::uint64_t size;
  std::function<std::unique_ptr<Source_Type>()> open_whole;
  std::function<std::unique_ptr<Source_Type>(std::uint64_t first, std::size_t windowCapacity)> open_from;
};

/// The photons of a photon file, whose photon block lies at `photons`: every source reads on its own.
template <typename PhotonEvent_Type>
Photon_List<PhotonEvent_Type> make_photonList(const std::string& fileName, Block_Location photons) {
  return {photons.count,
          [fileName, photons] { return std::make_unique<PhotonSource_File<PhotonEvent_Type>>(fileName, photons); },
          [fileName, photons](std::uint64_t first, std::size_t windowCapacity) {
    const Block_Location part{photons.offset + first * sizeof(PhotonEvent_Type), photons.count - first};
    return std::make_unique<PhotonSource_File<PhotonEvent_Type>>(fileName, part, windowCapacity);
          }};
}

/// The photons of a list in memory, which must outlive the run.
template <typename PhotonEvent_Type>
Photon_List<PhotonEvent_Type> make_photonList(std::span<const PhotonEvent_Type> photons) {
  return {photons.size(), [photons] { return std::make_unique<PhotonSource_Memory<PhotonEvent_Type>>(photons); },
          [photons](std::uint64_t first, std::size_t windowCapacity) {
    return std::make_unique<PhotonSource_Memory<PhotonEvent_Type>>(photons.subspan(static_cast<std::size_t>(first)),
                                                                   windowCapacity, Order_Known::whenRead);
          }};
}

namespace detail {

/// Appends `n` events to `out`, in one call where it takes a span.
template <typename Out_Type, typename Event_Type>
void append_events(Out_Type& out, const Event_Type* events, std::size_t n) {
  if constexpr (requires { out.append(std::span<const Event_Type>(events, n)); }) {
    out.append(std::span<const Event_Type>(events, n));
  } else {
    for (std::size_t k = 0; k < n; ++k) out.append(events[k]);
  }
}

/// `count` photons of `photons` from `first` on (fewer at the end of the list).
template <typename PhotonEvent_Type>
std::vector<PhotonEvent_Type> read_photons(const Photon_List<PhotonEvent_Type>& photons, std::uint64_t first,
                                           std::uint64_t count) {
  count = std::min(count, photons.size - first);
  std::vector<PhotonEvent_Type> read(static_cast<std::size_t>(count));
  auto source = photons.open_from(first, 128);
  std::size_t got = 0;
  while (got < read.size()) {
    const std::size_t n = source->read(read.data() + got, read.size() - got);
    if (n == 0) throw std::invalid_argument("Read Error!");
    got += n;
  }
  return read;
}

/// Whether the first and the last photon allow the list to be in time order: the last not earlier, and less than
/// 2^63 ticks later (TimeOrder_Check).
template <typename PhotonEvent_Type>
bool may_beOrdered(const Photon_List<PhotonEvent_Type>& photons) {
  using Time_Type = typename PhotonEvent_Type::time_type;
  const auto first = read_photons(photons, 0, 1);
  const auto last = read_photons(photons, photons.size - 1, 1);
  TimeOrder_Check<Time_Type> check;
  return check.accept(std::span<const PhotonEvent_Type>(first)) &&
         check.accept(std::span<const PhotonEvent_Type>(last));
}

/// Where the run of `piece` starts: at the first static cut among the photons after the piece's start (within its
/// first piece), else at the start itself.
template <typename PhotonEvent_Type>
std::pair<std::uint64_t, bool> find_pieceBegin(const Photon_List<PhotonEvent_Type>& photons, const Piece_Plan& plan,
                                               std::uint64_t piece, std::optional<std::int64_t> bound,
                                               std::uint64_t searched) {
  const std::uint64_t start = plan.begin_of(piece);
  if (piece == 0 || !bound) return {start, false};
  const std::uint64_t end = std::min(plan.end_of(piece), start + searched);
  const auto near = read_photons(photons, start - 1, end - start + 1);
  for (std::size_t k = 1; k < near.size(); ++k) {
    if (is_staticCut((near[k].toa - near[k - 1].toa).value, *bound)) return {start - 1 + k, true};
  }
  return {start, false};
}

/// The pieces: workers run them, the calling thread writes their events to `out` in order.
template <typename Reconstruction_Type, typename PhotonEvent_Type, typename Out_Type>
void run_pieces(const Reconstruction_Type& part, Algorithm algorithm, const Photon_List<PhotonEvent_Type>& photons,
                const Piece_Plan& plan, const Parallel_Settings& parallel, Out_Type& out) {
  using Event_Type = typename Reconstruction_Type::Event_Type;
  using Time_Type = typename PhotonEvent_Type::time_type;
  static_assert(Output_Part<Piece_Output<Event_Type, Time_Type>, Time_Type>, "the hooks of the algorithms");
  // Pieces taken beyond the one being written: one more than the workers, so that none idles behind a slow piece
  // while the events waiting for the writer stay few (a run holds at most its first piece's events and 1 MiB).
  Piece_Schedule<Event_Type> schedule(plan, std::uint64_t{parallel.threads} + 1, parallel.tuning);
  const auto bound = find_staticCutBound(part, algorithm);
  Worker_Pool pool(
      parallel.threads,
      [&](unsigned) {
    while (auto* run = schedule.take_piece()) {
      const auto [begin, atCut] =
          find_pieceBegin(photons, plan, run->firstPiece, bound, parallel.tuning.staticSearchPhotons);
      schedule.start(*run, begin, atCut);
      try {
        Piece_Output<Event_Type, Time_Type> runOut(schedule, *run, part.dTime);
        auto source = photons.open_from(begin, piece_windowCapacity);
        run_algorithm(part, algorithm, *source, runOut);
        runOut.finish(!runOut.has_stopped());
      } catch (const Part_GivenUp&) {
        // Taken over, or the whole run stops: nothing of this run is used.
      }
      schedule.release(*run);
    }
      },
      [&] { schedule.stop(); });
  // The calling thread only writes: it may as well start the file's way to the disk as it goes, which leaves the
  // final fsync little to wait for.
  if constexpr (requires { out.start_writeBackAsWritten(); }) out.start_writeBackAsWritten();
  const bool complete =
      schedule.write_all([&](const Event_Type* events, std::size_t n) { append_events(out, events, n); });
  pool.join();  // a worker's failure comes out here
  assert(complete);
}

}  // namespace detail

/// Runs `algorithm` over `photons` with the settings of `reconstruction` on `parallel.threads` workers, appending
/// the events to `out` (which offers append, size and restart, like EventList and EventFile_Writer) in the order
/// of a one-thread run, with the same bytes. One thread, or a list of one piece, is the one-thread run itself.
template <typename Reconstruction_Type, typename PhotonEvent_Type, typename Out_Type>
void reconstruct_parallel(const Reconstruction_Type& reconstruction, Algorithm algorithm,
                          const Photon_List<PhotonEvent_Type>& photons, const Parallel_Settings& parallel,
                          Out_Type& out) {
  const auto run_alone = [&](const Reconstruction_Type& settings) {
    auto source = photons.open_whole();
    run_algorithm(settings, algorithm, *source, out);
  };
  const detail::Piece_Plan plan{
      photons.size, std::clamp<std::uint64_t>(parallel.piecePhotons, 1, std::max<std::uint64_t>(photons.size, 1))};
  if (parallel.threads <= 1 || plan.count() <= 1 || !detail::may_beOrdered(photons)) return run_alone(reconstruction);

  // The warning about a setting the algorithm ignores is given once, here, for the whole run.
  const bool ignoresFactor = algorithm == Algorithm::fullChain || algorithm == Algorithm::forwardChain;
  if (reconstruction.dTime_ext && ignoresFactor && reconstruction.warn)
    reconstruction.warn(extensionFactor_notSupported);
  Reconstruction_Type quiet = reconstruction;
  quiet.warn = {};
  Reconstruction_Type part = quiet;
  part.inform = {};
  try {
    detail::run_pieces(part, algorithm, photons, plan, parallel, out);
  } catch (const PhotonWindow_OrderBroken&) {
    // Not in time order: the events written are dropped, and the list runs on one thread as it would alone.
    out.restart();
    run_alone(quiet);
  }
}

}  // namespace kovra
