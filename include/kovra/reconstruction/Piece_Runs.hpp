#pragma once

// The pieces of a parallel reconstruction and how neighbouring runs agree where one ends and the next begins.
//
// The list is split into pieces of a nominal size. A worker takes the next piece and runs the algorithm from
// the piece's start as if the list began there (a run), or, where a static cut (Piece_Cuts.hpp) lies near that
// start, from the cut. The run before it goes on past the piece's start until the two agree on a cut, then stops.
//
// Agreement. Call q an own cut of a run when no chain the run started before q takes a photon from q on (for the
// forward chain: no photon from q on joins a chain opened before q). At an own cut the run holds nothing about
// the photons from q on (all are free; no open chain reaches them), which is exactly the state of a run that
// starts at q. So when q is an own cut of both the run before, which has been the true run since its own start
// was agreed, and of the run of the piece, their states at q are the same, and from q on the run of the piece
// makes the true events. The run before writes its events up to q, the run of the piece its events from q on
// (the events of its seeds before q are dropped). A static cut needs no agreement: there the run before stops
// exactly at the cut where the run of the piece started.
//
// The run of a piece publishes its own cuts in the first photons of its piece (its agreement zone) as it finds
// them; the run before compares its own cuts past the piece's start with that list. Agreement usually comes
// within a few hundred photons. When it does not come within the zone, the run before takes the piece over (the
// other run is abandoned) and goes on to the next one: a stretch without any cut (a hot pixel firing faster than
// dTime with no durationMax) runs on one worker and stays exact. A piece no worker has taken yet when the run
// before reaches it is taken over the same way.
//
// Waiting never closes a circle. A run waits for the run after it only for its progress through its agreement
// zone (offer_cut), and a run inside its zone waits for nothing: reach() and the waits for room come only past
// its first piece, and chain_reached() never waits. (The forward chain may call reach() while its last
// candidates in the zone are unsettled, but a cut the run before settles at a photon in the zone is settled in
// that run too, so nobody waits for them.) A run waits for room for its events only past its first piece and
// only while it is not the one being written, and the one being written never waits for room.

#include <algorithm>
#include <atomic>
#include <cassert>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace kovra::detail {

/// Piece k holds the photons [k size, (k + 1) size) of a list of `photons`.
struct Piece_Plan {
  std::uint64_t photons;
  std::uint64_t size;

  std::uint64_t count() const { return photons / size + (photons % size != 0); }
  std::uint64_t begin_of(std::uint64_t k) const { return k * size; }
  std::uint64_t end_of(std::uint64_t k) const { return std::min(photons, begin_of(k) + size); }
};

/// An own cut of a run: the index of the photon (a seed, or for the forward chain any photon) before which it
/// lies, and how many events the run had emitted before it.
struct Own_Cut {
  std::uint64_t at;
  std::uint64_t eventsBefore;
};

/// The own cuts a run found in its first piece, in increasing order. Written by the run's thread only, read by
/// the run before it while both go on: entries live in chunks that never move, and `published` says how many
/// are complete.
class Own_Cut_List {
 public:
  explicit Own_Cut_List(std::uint64_t most) : chunks(static_cast<std::size_t>(most / chunkSize + 1)) {}

  void add(Own_Cut cut) {
    const std::uint64_t n = count.load(std::memory_order_relaxed);
    auto& chunk = chunks[static_cast<std::size_t>(n / chunkSize)];
    if (!chunk) chunk = std::make_unique<Own_Cut[]>(chunkSize);
    chunk[n % chunkSize] = cut;
    count.store(n + 1, std::memory_order_release);
  }

  std::uint64_t get_published() const { return count.load(std::memory_order_acquire); }
  const Own_Cut& operator[](std::uint64_t k) const {
    return chunks[static_cast<std::size_t>(k / chunkSize)][k % chunkSize];
  }

 private:
  static constexpr std::uint64_t chunkSize = 4096;
  std::vector<std::unique_ptr<Own_Cut[]>> chunks;
  std::atomic<std::uint64_t> count{0};
};

inline constexpr std::uint64_t notYet = std::numeric_limits<std::uint64_t>::max();

/// How the pieces of a parallel run are handled. Tests shrink these so that every path is taken on short lists;
/// no value changes a result.
struct Piece_Tuning {
  /// Photons at the start of a piece within which its run and the run before must agree on a cut. On the dense
  /// benchmark data (about 400 photons in any dTime window) agreement came after 1000 photons on average, 5445
  /// at most (74 cuts); three times that is left for harder data, and a run finds and publishes its own cuts only
  /// there.
  std::uint64_t zonePhotons = std::uint64_t{1} << 14;
  /// Events handed to the writer at a time: 4096 events are 128 KiB.
  std::size_t blockEvents = 4096;
  /// Blocks of events a run past its first piece may hold while it is not the one being written: 1 MiB.
  std::size_t blocksHeld = 8;
  /// Photons after a piece's start searched for a static cut (Piece_Cuts.hpp): 16 KiB read per piece.
  std::uint64_t staticSearchPhotons = 1024;
  /// Hooks of a run's algorithm between two looks at whether the run should give up (taken over, or the whole
  /// run failed); a power of two.
  std::uint64_t hooksBetweenLooks = 4096;
  /// Whether a run reaching a piece no worker has taken yet takes it over; otherwise it waits for a worker to
  /// take it (tests, so that every piece border is cut however the threads are scheduled).
  bool takeOverUntaken = true;
};

template <typename Event_Type>
struct Piece_Run;

/// Where a run stands in the own cuts of the run after it, from one comparison to the next.
template <typename Event_Type>
struct Cut_Cursor {
  const Piece_Run<Event_Type>* with = nullptr;
  std::uint64_t index = 0;
};

/// One run: the algorithm run by one worker from the start of a piece (or a static cut in it).
template <typename Event_Type>
struct Piece_Run {
  Piece_Run(const Piece_Plan& plan, std::uint64_t piece, std::uint64_t zonePhotons)
      : firstPiece(piece),
        firstPieceEnd(plan.end_of(piece)),
        cuts(std::min(plan.size, zonePhotons)),
        coveredEnd(firstPieceEnd) {}

  const std::uint64_t firstPiece;
  const std::uint64_t firstPieceEnd;

  // Set once, under the schedule's lock, before `started`.
  std::uint64_t begin = 0;    // the first photon it reads
  bool beginsAtCut = false;   // begin is a static cut: the run before stops exactly there
  std::uint64_t zoneEnd = 0;  // its own cuts before this photon are published (see Piece_Tuning::zonePhotons)
  bool started = false;

  // Published by the run's own thread.
  std::atomic<std::uint64_t> progress{0};  // its own cuts before this index are all in `cuts`
  Own_Cut_List cuts;
  std::atomic<bool> abandoned{false};  // taken over by the run before: its events are not used

  // Under the schedule's lock.
  std::uint64_t coveredEnd;  // the end of the last piece it covers; only its own thread changes it
  bool agreed = false;       // its end is known: events before endEvents, then `next` from nextSkips on
  bool finished = false;     // its thread has handed over its last events
  bool done = false;         // its thread has let go of it
  std::uint64_t endEvents = notYet;
  std::uint64_t safeEvents = 0;  // events before this count are the output's whatever the end
  Piece_Run* next = nullptr;
  std::uint64_t nextSkips = 0;
  std::deque<std::vector<Event_Type>> blocks;  // events not yet taken by the writer, in order
};

/// The shared state of a parallel run: which pieces are taken, the runs, their agreements and their events on
/// the way to the writer. One lock guards it; runs touch it once per block of events, at their piece borders and
/// while they compare cuts.
template <typename Event_Type>
class Piece_Schedule {
 public:
  using Run = Piece_Run<Event_Type>;

  /// `ahead`: pieces that may be taken beyond the one being written, which bounds the events held in memory.
  Piece_Schedule(Piece_Plan plan_, std::uint64_t ahead_, const Piece_Tuning& tuning_)
      : plan(plan_), ahead(ahead_), tuning(tuning_) {}

  const Piece_Plan& get_plan() const { return plan; }
  const Piece_Tuning& get_tuning() const { return tuning; }

  /// Wakes everyone; every wait then gives up, and runs stop at their next look.
  void stop() {
    {
      const std::lock_guard lock(mutex);
      stopping = true;
      stopRequested.store(true, std::memory_order_relaxed);
    }
    changed.notify_all();
    writerWakes.notify_all();
  }

  /// Whether the run should give up: the schedule stops, or the run was taken over.
  bool gives_up(const Run& run) const {
    return stopRequested.load(std::memory_order_relaxed) || run.abandoned.load(std::memory_order_relaxed);
  }

  // --- Workers ---

  /// The next piece for a new run, once it is near enough to the one being written; nullptr when no piece is
  /// left or the schedule stops.
  Run* take_piece() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return stopping || nextPiece >= plan.count() || nextPiece < limit_locked(); });
    if (stopping || nextPiece >= plan.count()) return nullptr;
    runs.push_back(std::make_unique<Run>(plan, nextPiece++, tuning.zonePhotons));
    if (!tuning.takeOverUntaken) changed.notify_all();  // a run may wait for this piece to be taken
    if (runs.size() == 1) writerWakes.notify_all();
    return runs.back().get();
  }

  /// Where the run starts; the runs before may now compare against it.
  void start(Run& run, std::uint64_t begin, bool beginsAtCut) {
    {
      const std::lock_guard lock(mutex);
      run.begin = begin;
      run.beginsAtCut = beginsAtCut;
      run.zoneEnd = beginsAtCut ? begin : std::min(run.firstPieceEnd, begin + tuning.zonePhotons);
      run.started = true;
      run.progress.store(begin, std::memory_order_release);
    }
    changed.notify_all();
  }

  /// What a run is to do at photon q (a seed, or any photon for the forward chain), asked only once q reaches
  /// the end of the pieces it covers: nothing (go on), or stop where it agreed with the run after it.
  struct Verdict {
    bool stop = false;
    std::uint64_t endEvents = notYet;  // with stop: the run's events before this count are the output's
  };

  /// The run is at photon q, past the pieces it covers: takes over pieces nobody runs and runs it passed
  /// without agreement, and stops at a static cut where the next run starts. `eventsBefore`: the run's events
  /// before q.
  Verdict reach(Run& run, std::uint64_t q, std::uint64_t eventsBefore) {
    std::unique_lock lock(mutex);
    while (!stopping && !run.abandoned.load(std::memory_order_relaxed) && q >= run.coveredEnd) {
      if (!tuning.takeOverUntaken && run.coveredEnd / plan.size >= nextPiece) {
        changed.wait(lock);
        continue;
      }
      Run* following = find_following_locked(run);
      if (following == nullptr) continue;  // taken over; look at the next piece
      if (!following->started) {
        changed.wait(lock);
        continue;
      }
      if (following->beginsAtCut) {
        if (q < following->begin) return {};
        if (q == following->begin) {
          agree_locked(run, *following, eventsBefore, 0);
          return {true, eventsBefore};
        }
        // A static cut is a free seed of the one-thread run, so a run that passes one without stopping there
        // holds another state: it started fresh and will never agree with the run before it, which will take its
        // pieces over. It stops here.
        return {true, notYet};
      }
      if (q < following->zoneEnd) return {};
      // Past the following run's agreement zone without agreement: take that run's pieces over.
      take_over_locked(run, *following);
    }
    if (stopping || run.abandoned.load(std::memory_order_relaxed)) return {true, notYet};
    return {};
  }

  /// The run has an own cut at q past the pieces it covers (call reach() first): compares it with the own cuts
  /// of the run after it, waiting for that run to get past q if need be. `cursor` is the caller's place in that
  /// run's list, kept from call to call.
  Verdict offer_cut(Run& run, Own_Cut cut, Cut_Cursor<Event_Type>& cursor) {
    std::unique_lock lock(mutex);
    if (stopping || run.abandoned.load(std::memory_order_relaxed)) return {true, notYet};
    if (cut.at < run.coveredEnd) return {};  // reach() took the piece over
    if (!tuning.takeOverUntaken && run.coveredEnd / plan.size >= nextPiece) return {};
    Run* following = find_following_locked(run);
    if (following == nullptr || !following->started || following->beginsAtCut || cut.at < following->begin ||
        cut.at >= following->zoneEnd) {
      return {};
    }
    if (cursor.with != following) cursor = {following, 0};
    // Wait until the following run has published its own cuts up to q (it never waits in its zone).
    while (following->progress.load(std::memory_order_acquire) <= cut.at) {
      if (stopping || run.abandoned.load(std::memory_order_relaxed) || following->abandoned.load()) return {};
      changed.wait_for(lock, std::chrono::microseconds(200));
    }
    const Own_Cut_List& theirs = following->cuts;
    const std::uint64_t published = theirs.get_published();
    std::uint64_t& k = cursor.index;
    while (k < published && theirs[k].at < cut.at) ++k;
    if (k == published || theirs[k].at != cut.at) return {};
    agree_locked(run, *following, cut.eventsBefore, theirs[k].eventsBefore);
    return {true, cut.eventsBefore};
  }

  /// A chain of the run took photon q, past the pieces the run covers: pieces nobody runs are taken over, and so
  /// are the pieces of a following run whose agreement zone the chain took a photon beyond (the run has no own cut
  /// between the chain's seed and that photon, and those before the seed were compared already). Returns the
  /// first photon at which a chain's photon means something new, or notYet when the run must give up: it was
  /// abandoned, or its chain took a photon at or beyond a static cut, which only a run whose start will not be
  /// agreed does.
  ///
  /// It never waits (the run may be inside its own agreement zone, where the run before may wait for it): where the
  /// next piece is not taken yet (and is not to be taken over) or its run has not started, it answers to look
  /// again at the next photon taken.
  std::uint64_t chain_reached(Run& run, std::uint64_t q) {
    const std::lock_guard lock(mutex);
    while (!stopping && !run.abandoned.load(std::memory_order_relaxed) && q >= run.coveredEnd) {
      if (!tuning.takeOverUntaken && run.coveredEnd / plan.size >= nextPiece) return q + 1;
      Run* following = find_following_locked(run);
      if (following == nullptr) continue;
      if (!following->started) return q + 1;
      if (following->beginsAtCut) return q < following->begin ? following->begin : notYet;
      if (q < following->zoneEnd) return following->zoneEnd;
      take_over_locked(run, *following);
    }
    if (stopping || run.abandoned.load(std::memory_order_relaxed)) return notYet;
    return run.coveredEnd;
  }

  /// Hands a block of the run's events to the writer; `safeEvents`: the run's events before this count belong to
  /// the output whatever its end. A run past its first piece that is not being written waits here while it holds
  /// tuning.blocksHeld blocks (within its first piece it never waits: the run before may wait for its cuts).
  void hand_over(Run& run, std::vector<Event_Type>&& block, std::uint64_t safeEvents, bool pastFirstPiece) {
    std::unique_lock lock(mutex);
    if (!block.empty()) run.blocks.push_back(std::move(block));
    run.safeEvents = std::max(run.safeEvents, safeEvents);
    if (&run == writing) writerWakes.notify_all();
    changed.wait(lock, [&] {
      return stopping || run.abandoned.load(std::memory_order_relaxed) || !pastFirstPiece || &run == writing ||
             run.blocks.size() < tuning.blocksHeld;
    });
  }

  /// The run ends: it stopped where it agreed, or it reached the end of the list (then it covers every piece
  /// after it, and every run after it is abandoned).
  void finish(Run& run, std::vector<Event_Type>&& last, std::uint64_t events, bool reachedEnd) {
    {
      const std::lock_guard lock(mutex);
      if (!last.empty()) run.blocks.push_back(std::move(last));
      run.progress.store(notYet, std::memory_order_release);
      if (reachedEnd && !run.agreed && !run.abandoned.load()) {
        nextPiece = plan.count();
        for (auto& r : runs) {
          if (r->firstPiece > run.firstPiece) abandon_locked(*r);
        }
        run.agreed = true;
        run.endEvents = events;
        run.next = nullptr;
        changed.notify_all();  // no piece is left to take
      }
      run.finished = true;
      if (&run == writing) writerWakes.notify_all();
    }
  }

  /// The worker lets go of the run (after finish(), or after giving up).
  void release(Run& run) {
    {
      const std::lock_guard lock(mutex);
      run.progress.store(notYet, std::memory_order_release);
      run.done = true;
      if (!run.finished || run.abandoned.load()) run.blocks.clear();
    }
  }

  // --- The writer ---

  /// The events of the output in order, handed to `write(events, count)` a block at a time; returns false when
  /// the schedule stopped first.
  template <typename Write_Type>
  bool write_all(Write_Type&& write) {
    std::unique_lock lock(mutex);
    writerWakes.wait(lock, [&] { return stopping || !runs.empty(); });
    if (stopping) return false;
    writing = runs.front().get();
    assert(writing->firstPiece == 0);
    changed.notify_all();        // a run waiting for room may be this one
    std::uint64_t skip = 0;      // events of the current run that belong to the run before
    std::uint64_t position = 0;  // events of the current run seen so far
    // Whether the first block not yet written may be written: all of it belongs to the output, or the run's end
    // is known.
    const auto writable = [&] {
      return !writing->blocks.empty() &&
             (writing->agreed || position + writing->blocks.front().size() <= writing->safeEvents);
    };
    for (;;) {
      writerWakes.wait(lock, [&] { return stopping || writable() || writing->finished; });
      if (stopping) return false;
      while (writable()) {
        const std::uint64_t limit = writing->agreed ? writing->endEvents : writing->safeEvents;
        std::vector<Event_Type> taken = std::move(writing->blocks.front());
        writing->blocks.pop_front();
        const std::uint64_t blockEnd = position + taken.size();
        const std::uint64_t from = std::clamp(skip, position, blockEnd) - position;
        const std::uint64_t to = std::clamp(limit, position, blockEnd) - position;
        position = blockEnd;
        if (to > from) {
          lock.unlock();
          write(taken.data() + from, static_cast<std::size_t>(to - from));
          lock.lock();
        }
      }
      if (writing->finished) {
        // A run being written has agreed on its end (or reached the end of the list) before it finished.
        assert(writing->agreed && writing->blocks.empty() && position >= writing->endEvents);
        Run* following = writing->next;
        if (following == nullptr) {
          writing = nullptr;
          changed.notify_all();
          return true;
        }
        skip = writing->nextSkips;
        position = 0;
        writing = following;
        drop_behind_locked();
        changed.notify_all();
      }
    }
  }

 private:
  /// The piece at the end of what `run` covers: the run that started there (nullptr after taking the piece over
  /// when nobody runs it, or its run was abandoned).
  Run* find_following_locked(Run& run) {
    const std::uint64_t piece = run.coveredEnd / plan.size;
    assert(piece < plan.count());
    if (piece >= nextPiece) {  // nobody took it: this run takes it
      nextPiece = piece + 1;
      cover_locked(run, plan.end_of(piece));
      return nullptr;
    }
    for (auto& r : runs) {
      if (r->firstPiece == piece && !r->abandoned.load(std::memory_order_relaxed)) return r.get();
    }
    cover_locked(run, plan.end_of(piece));  // its run was abandoned, or another run took it and was abandoned
    return nullptr;
  }

  /// The run covers the photons up to `end`; pieces further on may be taken now if it is being written.
  void cover_locked(Run& run, std::uint64_t end) {
    run.coveredEnd = end;
    if (&run == writing) changed.notify_all();
  }

  /// The run takes the pieces of `following` over; `following` is abandoned.
  void take_over_locked(Run& run, Run& following) {
    abandon_locked(following);
    cover_locked(run, following.firstPieceEnd);
  }

  void agree_locked(Run& run, Run& following, std::uint64_t endEvents, std::uint64_t nextSkips) {
    run.agreed = true;
    run.endEvents = endEvents;
    run.next = &following;
    run.nextSkips = nextSkips;
    if (&run == writing) writerWakes.notify_all();  // its events up to the cut may be written now
  }

  void abandon_locked(Run& run) {
    run.abandoned.store(true, std::memory_order_relaxed);
    changed.notify_all();
  }

  /// Pieces may be taken up to `ahead` beyond the last piece the run being written covers.
  std::uint64_t limit_locked() const {
    if (writing == nullptr) return ahead;
    return (writing->coveredEnd - 1) / plan.size + 1 + ahead;
  }

  /// Forgets the runs before the one being written whose threads have let go of them.
  void drop_behind_locked() {
    while (!runs.empty() && runs.front().get() != writing && runs.front()->done) runs.pop_front();
  }

  const Piece_Plan plan;
  const std::uint64_t ahead;
  const Piece_Tuning tuning;
  std::mutex mutex;
  std::condition_variable changed;      // workers wait here
  std::condition_variable writerWakes;  // the writer waits here
  bool stopping = false;
  std::atomic<bool> stopRequested{false};
  std::uint64_t nextPiece = 0;
  std::deque<std::unique_ptr<Run>> runs;  // in order of their first pieces
  Run* writing = nullptr;                 // the run whose events are being written
};

}  // namespace kovra::detail
