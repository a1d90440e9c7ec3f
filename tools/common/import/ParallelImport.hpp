#pragma once

// The import on several threads: the same photons, in the same order, as on one.
//
// The thread that reads, decodes and orders (the clock and the reorder window are sequential by nature and
// cheap) packs what the window releases into pieces of about `pieceItems` items and publishes them; worker
// threads sort and group the pieces (Piece_Worker), each run over a piece going on into the next piece up to
// the cut where the next piece's own run agrees with it (Cut_Search). The reading thread also writes the pieces
// in order (Chain_Writer). Where a run finds no cut in the next piece, the piece after that is grouped again,
// continuing that run's grouping. The reading thread counts as one of the threads: it groups pieces too when it
// would otherwise wait. It waits for a piece's runs only when the piece after it is published, so no run it
// waits for can wait for it.
//
// Bounded memory: at most pieces_perThread x threads + 2 pieces are in flight; while that many are, the reading
// thread writes, groups a piece no worker has taken, or waits. Nothing is global, and the photons depend on
// neither the thread count, nor the piece size, nor the timing.

#include <time.h>

#include <algorithm>
#include <cassert>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "common/import/ChainWriter.hpp"
#include "common/import/ImportPieces.hpp"
#include "kovra/Worker_Pool.hpp"

namespace kovra::import {

/// What the import on several threads did, for the trace line.
struct Parallel_Stats {
  std::uint64_t pieces = 0;
  std::uint64_t cuts = 0;     ///< runs that ended at a cut the next piece's run agreed with
  std::uint64_t takenOn = 0;  ///< pieces grouped again because no cut came in the piece before (see the top)
  double serialSeconds = 0;   ///< processor time of the reading and writing thread, its grouping of pieces left out
};

/// The pieces, the workers and the writer. `Output_Type` takes add_photons(const Photon*, count) and
/// add_trigger(Ticks), from the thread that constructs the pipeline only.
template <typename Output_Type>
class Piece_Pipeline {
 public:
  /// `threads`: the threads that work, this one included (at least 2).
  Piece_Pipeline(const Import_Options& options_, Output_Type& output_, unsigned threads, std::size_t pieceItems_)
      : options(options_),
        pieceItems(std::max<std::size_t>(pieceItems_, 1)),
        maxPieces(pieces_perThread * std::size_t{threads} + 2),
        startSeconds(get_threadSeconds()),
        writer(output_),
        filling(std::make_unique<Piece>()),
        pool(
            threads - 1, [this](unsigned) { work(); }, [this] { wake_all(); }) {
    filling->input.words.reserve(std::min(pieceItems, reserved_items));
  }

  /// The reorder window's sink. A piece takes whole buckets up to `pieceItems` items (more only when a single
  /// bucket holds more), so its buffer, reserved once, never grows.
  void operator()(const Packed_Bucket& bucket) {
    const std::size_t items = filling->input.words.size();
    if (items != 0 && items + bucket.count > pieceItems) publish(false);
    filling->input.add(bucket);
  }

  /// The end of the input: writes the rest and ends the workers. Adds the photons and triggers written to the
  /// counts given.
  Parallel_Stats finish(std::uint64_t& photons, std::uint64_t& triggers) {
    publish(true);
    allPublished = true;
    while (!pieces.empty()) catch_up();
    writer.finish();
    {
      const std::lock_guard lock(mutex);
      writerDone = true;
    }
    changed.notify_all();
    pool.join();
    photons += writer.get_photons();
    triggers += writer.get_triggers();
    stats.cuts = writer.get_cuts();
    stats.takenOn = writer.get_takenOn();
    stats.serialSeconds = get_threadSeconds() - startSeconds - helpSeconds;
    return stats;
  }

 private:
  enum class Job_State { waiting, claimed, done };
  struct Job {
    Job_State state = Job_State::waiting;
    std::unique_ptr<Hit_Grouping> start;  ///< for a piece grouped again: the grouping it continues
    Run_Output out;
  };
  struct Piece {
    std::uint64_t number = 0;
    Piece_Input input;
    Job fresh;                 ///< the piece's own run, from a fresh start
    std::optional<Job> again;  ///< the piece grouped again, when the chain of right runs needs it
  };

  static double get_threadSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
  }

  void wake_all() {
    { const std::lock_guard lock(mutex); }
    changed.notify_all();
  }

  Piece& get_piece(std::uint64_t number) { return *pieces[static_cast<std::size_t>(number - firstPiece)]; }

  // The reading thread's side.

  void publish(bool last) {
    filling->number = stats.pieces;
    filling->input.last = last;
    filling->input.first = nextItem;
    nextItem += filling->input.words.size();
    {
      const std::lock_guard lock(mutex);
      pieces.push_back(std::move(filling));
      if (againFor && againFor->first == firstPiece + pieces.size() - 1) {
        pieces.back()->again.emplace(Job{Job_State::waiting, std::move(againFor->second), {}});
        againFor.reset();
      }
    }
    changed.notify_all();
    ++stats.pieces;
    filling = spare.empty() ? std::make_unique<Piece>() : std::move(spare.back());
    if (!spare.empty()) spare.pop_back();
    filling->input.words.reserve(std::min(pieceItems, reserved_items));
    write_ready(false);
    while (pieces.size() >= maxPieces) catch_up();
  }

  /// Writes what is ready; then, while too many pieces are in flight (or all are published), groups a piece no
  /// worker has taken yet, or waits for the front one when there is none. Waiting needs the piece after the
  /// front one published: with a single piece in flight that one may still be filling.
  void catch_up() {
    write_ready(false);
    if (pieces.empty() || (!allPublished && pieces.size() < maxPieces)) return;
    Piece* piece = nullptr;
    Job* job = nullptr;
    {
      const std::lock_guard lock(mutex);
      std::tie(piece, job) = find_job(true);
      if (job != nullptr) job->state = Job_State::claimed;
    }
    if (job == nullptr) {
      write_ready(true, 1);
      return;
    }
    const double start = get_threadSeconds();
    if (!helper) helper.emplace(options);
    helper->run(
        piece->input, std::move(job->start), [&] { return wait_forNext(*piece); }, job->out);
    helpSeconds += get_threadSeconds() - start;
    {
      const std::lock_guard lock(mutex);
      job->state = Job_State::done;
    }
  }

  /// Writes the pieces at the front whose runs are done; with `block`, waits for (or does) their runs, for at
  /// most `most` pieces.
  void write_ready(bool block, std::size_t most = SIZE_MAX) {
    using Role = typename Chain_Writer<Output_Type>::Role;
    for (std::size_t written = 0; written < most && !pieces.empty(); ++written) {
      Piece& piece = *pieces.front();
      if (!settle(piece, piece.fresh, block)) return;
      const Role role = writer.get_role();
      Job* run = role == Role::own ? &piece.fresh : role == Role::again ? &*piece.again : nullptr;
      if (run != nullptr && !settle(piece, *run, block)) return;
      if (auto open = writer.write_piece(piece.fresh.out.triggers, run != nullptr ? &run->out : nullptr)) {
        group_again(piece.number + 2, std::move(open));
      }
      std::unique_ptr<Piece> done;
      {
        const std::lock_guard lock(mutex);
        done = std::move(pieces.front());
        pieces.pop_front();
        ++firstPiece;
      }
      recycle(std::move(done));
    }
  }

  /// Whether `job` is done; with `block`, makes it so, doing it here when no worker has taken it.
  bool settle(Piece& piece, Job& job, bool block) {
    std::unique_lock lock(mutex);
    if (job.state == Job_State::done) return true;
    if (!block) return false;
    if (job.state == Job_State::waiting) {
      job.state = Job_State::claimed;
      lock.unlock();
      const double start = get_threadSeconds();
      if (!helper) helper.emplace(options);
      helper->run(
          piece.input, std::move(job.start), [&] { return wait_forNext(piece); }, job.out);
      helpSeconds += get_threadSeconds() - start;
      lock.lock();
      job.state = Job_State::done;
      return true;
    }
    changed.wait(lock, [&] { return job.state == Job_State::done || pool.stop_requested(); });
    if (job.state != Job_State::done) {
      lock.unlock();
      pool.join();  // rethrows the worker's failure
    }
    return true;
  }

  /// Piece `number` is grouped again, continuing `grouping`: now, or once it is published.
  void group_again(std::uint64_t number, std::unique_ptr<Hit_Grouping> grouping) {
    {
      const std::lock_guard lock(mutex);
      if (number < firstPiece + pieces.size()) {
        get_piece(number).again.emplace(Job{Job_State::waiting, std::move(grouping), {}});
      } else {
        againFor.emplace(number, std::move(grouping));
      }
    }
    changed.notify_all();
  }

  void recycle(std::unique_ptr<Piece> piece) {
    piece->input.words.clear();
    piece->input.buckets.clear();
    piece->fresh.state = Job_State::waiting;
    piece->again.reset();
    if (spare.size() < maxPieces) spare.push_back(std::move(piece));
  }

  // The workers' side.

  /// The piece after `piece`, once published; nullptr when the workers are to stop.
  const Piece_Input* wait_forNext(const Piece& piece) {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return pool.stop_requested() || piece.number + 1 < firstPiece + pieces.size(); });
    return pool.stop_requested() ? nullptr : &get_piece(piece.number + 1).input;
  }

  void work() {
    Piece_Worker worker(options);
    std::unique_lock lock(mutex);
    for (;;) {
      Piece* piece = nullptr;
      Job* job = nullptr;
      changed.wait(lock, [&] {
        if (pool.stop_requested() || writerDone) return true;
        std::tie(piece, job) = find_job(false);
        return job != nullptr;
      });
      if (job == nullptr) return;
      job->state = Job_State::claimed;
      std::unique_ptr<Hit_Grouping> start = std::move(job->start);
      lock.unlock();
      worker.run(
          piece->input, std::move(start), [&] { return wait_forNext(*piece); }, job->out);
      lock.lock();
      if (pool.stop_requested()) return;
      job->state = Job_State::done;
      changed.notify_all();
    }
  }

  /// A job no one has taken (under the lock): a piece to group again first, else the earliest piece's own run.
  /// For the reading thread (`reader`), only one whose next piece is published: it publishes them itself.
  std::pair<Piece*, Job*> find_job(bool reader) {
    const auto ready = [&](const Piece& piece) {
      return !reader || piece.input.last || piece.number + 1 < firstPiece + pieces.size();
    };
    for (auto& piece : pieces) {
      if (piece->again && piece->again->state == Job_State::waiting && ready(*piece)) {
        return {piece.get(), &*piece->again};
      }
    }
    nextFresh = std::max(nextFresh, firstPiece);
    for (std::uint64_t n = nextFresh; n < firstPiece + pieces.size(); ++n) {
      Piece& piece = get_piece(n);
      if (piece.fresh.state != Job_State::waiting) {
        if (n == nextFresh) ++nextFresh;
        continue;
      }
      return ready(piece) ? std::pair{&piece, &piece.fresh} : std::pair<Piece*, Job*>{nullptr, nullptr};
    }
    return {nullptr, nullptr};
  }

  /// Pieces in flight per thread: enough that a worker finds one waiting while the front one is finished, few
  /// enough that 64 Ki-item pieces stay within 16 MiB per thread even when every hit is a photon (2 MiB each).
  /// On 2 threads the benchmark's camera (48.7 million hits) took 0.66 s with 4 and with 8, peak memory 22 and
  /// 27 MB (best of 7, interleaved, on a machine shared with other work).
  static constexpr std::size_t pieces_perThread = 4;
  /// The most items a piece's buffer is made ready for at once: a larger piece (only for tests) grows as it fills.
  static constexpr std::size_t reserved_items = std::size_t{1} << 20;

  const Import_Options& options;
  const std::size_t pieceItems;
  const std::size_t maxPieces;
  const double startSeconds;
  Chain_Writer<Output_Type> writer;

  // The reading and writing thread's own.
  std::unique_ptr<Piece> filling;
  std::vector<std::unique_ptr<Piece>> spare;
  std::uint64_t nextItem = 0;
  bool allPublished = false;
  std::optional<Piece_Worker> helper;
  double helpSeconds = 0;
  Parallel_Stats stats;

  // Shared, under the lock.
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<std::unique_ptr<Piece>> pieces;  ///< published and not yet written, in order
  std::uint64_t firstPiece = 0;               ///< the number of pieces.front()
  std::uint64_t nextFresh = 0;                ///< no piece before it has an own run waiting
  std::optional<std::pair<std::uint64_t, std::unique_ptr<Hit_Grouping>>> againFor;  ///< a piece not yet published
  bool writerDone = false;

  Worker_Pool pool;  ///< last: its threads end before anything they use goes
};

}  // namespace kovra::import
