#pragma once

// The output of one run of a parallel reconstruction (see Piece_Runs.hpp): it collects the run's events in blocks
// for the writer and finds the run's own cuts as the algorithm goes.
//
// Seed by seed (no-branch, ghost-photon and full chains): every chain is complete before the next seed is
// looked at, and its photons lie between its seed and its last photon. So with `furthest` the last photon any
// chain took so far, a free seed q is an own cut exactly when furthest < q. (A taken seed never is one: the chain
// that took it reached it.)
//
// Photon by photon (forward chain): a photon joins the chain of an earlier photon at most dTime before it, so
// whether q is an own cut (no photon from q on joins a chain opened before q) is known once the run is at a
// photon more than dTime after photon q - 1. Until then q waits among the candidates; a photon from q on that
// joins a chain opened before q strikes it out. The chains opened before a confirmed cut have all been written
// by then: each one's last photon is before q, at least dTime before the current photon, where the forward chain
// writes its complete chains.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

#include "kovra/reconstruction/Piece_Runs.hpp"

namespace kovra::detail {

template <typename Event_Type, typename Time_Type>
class Piece_Output {
 public:
  using Run = Piece_Run<Event_Type>;

  /// Events handed to the writer at a time: 4096 events are 128 KiB.
  static constexpr std::size_t blockEvents = 4096;
  /// Hooks between two looks at whether the run should give up (taken over, or the whole run failed); a power
  /// of two.
  static constexpr std::uint64_t hooksBetweenLooks = 4096;

  Piece_Output(Piece_Schedule<Event_Type>& schedule_, Run& run_, Time_Type dTime_)
      : schedule(schedule_), run(run_), dTime(dTime_), furthest(run_.begin) {
    block.reserve(blockEvents);
  }

  void append(const Event_Type& event) {
    block.push_back(event);
    ++appended;
    if (block.size() == blockEvents) hand_over();
  }

  std::uint64_t size() const { return appended; }

  /// Never called: a part does not start over (see run_pass).
  void restart() {}

  /// Whether the pass stopped before the end of the list (it agreed, or gave up).
  bool has_stopped() const { return stopped; }

  /// Hands the last events over; `reachedEnd`: the pass went to the end of the list.
  void finish(bool reachedEnd) { schedule.finish(run, std::move(block), appended, reachedEnd); }

  // Between its agreement zone and the end of what it covers a run has nothing to find or compare: the hooks
  // there only count, and look now and then whether the run should give up (the quiet stretch).

  bool stops_before_seed(std::size_t i) {
    if (i < quietEnd && (++hooks & (hooksBetweenLooks - 1)) != 0) return false;
    return look_beforeSeed(run.begin + i);
  }

  void note_chainEnd(std::size_t last) { furthest = std::max(furthest, run.begin + last); }

  bool stops_before_photon(std::size_t i, Time_Type t) {
    if (i < quietEnd && (++hooks & (hooksBetweenLooks - 1)) != 0) return false;
    return look_beforePhoton(run.begin + i, i == 0, t);
  }

  void note_chainOf(std::size_t i, std::size_t opener) {
    if (opener == i) {
      ++opened;
      return;
    }
    // Photon i strikes out the candidates between the chain's first photon and itself.
    const std::uint64_t from = run.begin + opener;
    while (!candidates.empty() && candidates.back().cut.at > from) candidates.pop_back();
  }

 private:
  struct Candidate {
    Own_Cut cut;
    Time_Type before;  // the time of the photon before it
  };

  [[gnu::noinline]] bool look_beforeSeed(std::uint64_t q) {
    lastLook = ++hooks;
    if (should_stop()) return true;
    if (stopAt != notYet) return false;  // agreed: only the events before the cut are still to come
    const bool ownCut = furthest < q || q == run.begin;
    if (!pastZone) {
      if (q < run.zoneEnd) {
        if (ownCut) run.cuts.add({q, appended});
        run.progress.store(q + 1, std::memory_order_release);
      } else {
        leave_zone();
      }
    }
    if (q < run.coveredEnd) {
      safeEvents = appended;
    } else {
      auto verdict = schedule.reach(run, q, appended);
      if (!verdict.stop && ownCut) verdict = schedule.offer_cut(run, {q, appended}, cursor);
      if (stop_at(verdict)) return true;
    }
    update_quietEnd();
    return false;
  }

  [[gnu::noinline]] bool look_beforePhoton(std::uint64_t q, bool first, Time_Type t) {
    const bool afterLook = hooks == lastLook;  // the photon before was looked at too
    lastLook = ++hooks;
    if (should_stop()) return true;
    if (stopAt != notYet) return false;  // agreed: only the events before the cut are still to come
    if (q >= run.coveredEnd && stop_at(schedule.reach(run, q, opened))) return true;
    // Candidates more than dTime before this photon are confirmed.
    while (!candidates.empty() && t - candidates.front().before > dTime) {
      const Own_Cut cut = candidates.front().cut;
      candidates.pop_front();
      if (offer(cut)) return true;
    }
    // Candidates are needed only where cuts are published or compared, and need the time of the photon before
    // (not kept in the quiet stretch: the first photon after it is no candidate).
    if (first) {
      if (offer({q, 0})) return true;  // nothing was opened before the run's first photon
    } else if (afterLook && (q < run.zoneEnd || q >= run.coveredEnd)) {
      candidates.push_back({{q, opened}, lastTime});
    }
    lastTime = t;
    if (!pastZone) {
      const std::uint64_t settled = candidates.empty() ? q + 1 : candidates.front().cut.at;
      if (settled >= run.zoneEnd) {
        leave_zone();
      } else {
        run.progress.store(settled, std::memory_order_release);
      }
    }
    if (q < run.coveredEnd) safeEvents = opened;
    update_quietEnd();
    return false;
  }

  /// An own cut found (and settled) at `cut.at`: published in the zone, compared past what the run covers.
  bool offer(Own_Cut cut) {
    if (!pastZone && cut.at < run.zoneEnd) run.cuts.add(cut);
    if (cut.at < run.coveredEnd) return false;
    return stop_at(schedule.offer_cut(run, cut, cursor));
  }

  /// Takes the schedule's verdict: stop now (giving up), or once every event before the agreed cut is emitted.
  bool stop_at(typename Piece_Schedule<Event_Type>::Verdict verdict) {
    if (!verdict.stop) return false;
    if (verdict.endEvents == notYet) return stopped = true;
    stopAt = verdict.endEvents;
    return should_stop();
  }

  /// Whether the pass stops now: it agreed and has emitted every event before the cut, or it gives up. Once it
  /// agreed, the schedule is not asked again, and the pass only goes on until it has emitted those events.
  bool should_stop() {
    if (stopped) return true;
    if (stopAt != notYet) return stopped = appended >= stopAt;
    if (schedule.gives_up(run)) return stopped = true;
    return false;
  }

  /// The quiet stretch: past the zone, with no candidate pending, up to the end of what the run covers (counted
  /// from the run's first photon).
  void update_quietEnd() {
    quietEnd = pastZone && candidates.empty() && stopAt == notYet ? run.coveredEnd - run.begin : 0;
  }

  void leave_zone() {
    pastZone = true;
    run.progress.store(notYet, std::memory_order_release);
  }

  void hand_over() {
    // In the quiet stretch every event so far comes from before the end of what the run covers: for the chains
    // seed by seed, the current seed is in it; photon by photon, the chains written were opened before the
    // current photon, which is at most that end.
    if (hooks != lastLook) safeEvents = appended;
    schedule.hand_over(run, std::move(block), safeEvents, pastZone);
    block = {};
    block.reserve(blockEvents);
  }

  Piece_Schedule<Event_Type>& schedule;
  Run& run;
  Time_Type dTime;
  std::vector<Event_Type> block;
  std::uint64_t appended = 0;
  std::uint64_t safeEvents = 0;
  std::uint64_t furthest;         // seed by seed: the last photon a chain took so far
  std::uint64_t opened = 0;       // photon by photon: chains opened so far
  std::uint64_t stopAt = notYet;  // agreed: stop once this many events are emitted
  std::uint64_t quietEnd = 0;
  std::uint64_t hooks = 0;
  std::uint64_t lastLook = 0;  // the hook count at the last look (quiet hooks only count)
  bool pastZone = false;
  bool stopped = false;
  Cut_Cursor<Event_Type> cursor;
  std::deque<Candidate> candidates;  // photon by photon: possible own cuts not yet settled, in order
  Time_Type lastTime{};
};

}  // namespace kovra::detail
