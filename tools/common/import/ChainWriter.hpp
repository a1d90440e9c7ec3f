#pragma once

// The writing side of the import on several threads: the pieces in order, and of each the photons of the run
// that is right for it, merged across the cuts into the order one thread writes.
//
// The chain of right runs: the first piece's own run is right from the start of the stream. A right run that
// ends at a cut hands over to the next piece's own run, right from the cut on (Cut_Search). A right run that
// found no cut through the next piece went through it (nothing is taken from that piece's own run) and leaves
// its grouping open: the piece after is grouped again continuing it, and that run is right where the first one
// stopped, with the same start. Of a right run the writer keeps the photons that opened from its start on and
// before its cut; together they are every photon once.
//
// The order: a run writes its photons in time, equal times by first hit, like one thread. Across a cut, the
// next run's photons all come at or after the cut's time and after every photon of the run before of the same
// time (those opened earlier); so the photons of the run before up to that time are written, and the later
// ones held back and merged with the next run's. A run continued in another piece writes after the run before
// it, as one thread would.

#include <cassert>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "common/import/ImportPieces.hpp"

namespace kovra::import {

/// Writes the pieces' triggers and the right runs' photons to `Output_Type`, which takes
/// add_photons(const Photon*, count) and add_trigger(Ticks), and the photons' charges, in the same order, where it
/// takes add_charges(const Photon_Charge*, count).
template <typename Output_Type>
class Chain_Writer {
 public:
  using Photon = Hit_Grouping::Photon;

  /// What the writer takes from the next piece: the photons of its own run, of the piece grouped again, or none.
  enum class Role { own, again, passed };

  explicit Chain_Writer(Output_Type& output_) : output(output_) {}

  Role get_role() const { return role; }

  /// Writes the next piece: its trigger edges, from its own run, and, unless get_role() is `passed`, the photons
  /// of `run`, the piece's run of that role. Returns the grouping to continue two pieces on when `run` found no
  /// cut; the piece after is then passed, and the one after that grouped again.
  std::unique_ptr<Hit_Grouping> write_piece(const std::vector<Ticks>& triggers, Run_Output* run) {
    for (const Ticks t : triggers) output.add_trigger(t);
    triggersWritten += triggers.size();
    if (role == Role::passed) {
      role = againNext ? Role::again : Role::passed;
      againNext = false;
      return nullptr;
    }
    assert(run != nullptr);
    write_photons(*run);
    switch (run->end) {
      case Run_End::input:
        role = Role::passed;
        return nullptr;
      case Run_End::cut:
        ++cuts;
        role = Role::own;
        firstKept = run->cut;
        return nullptr;
      case Run_End::open:
        break;
    }
    ++takenOn;
    role = Role::passed;
    againNext = true;
    return std::move(run->grouping);
  }

  /// After the last piece: nothing may be held back.
  void finish() const { assert(pending.empty()); }

  std::uint64_t get_photons() const { return photonsWritten; }
  std::uint64_t get_triggers() const { return triggersWritten; }
  std::uint64_t get_cuts() const { return cuts; }
  std::uint64_t get_takenOn() const { return takenOn; }

 private:
  static bool precedes(const Numbered_Photon& a, const Numbered_Photon& b) {
    return a.photon.toa.value != b.photon.toa.value ? a.photon.toa.value < b.photon.toa.value : a.firstHit < b.firstHit;
  }

  /// Writes those photons of a right run that opened from its start on (firstKept) and before its cut, merged
  /// with the photons held back from the run before; holds back those later than the cut's time.
  void write_photons(const Run_Output& out) {
    const bool cut = out.end == Run_End::cut;
    const std::uint64_t end = cut ? out.cut : UINT64_MAX;
    const Ticks holdAfter = cut ? out.cutTime : INT64_MAX;
    std::vector<Numbered_Photon> held;
    const auto take = [&](const Numbered_Photon& photon) {
      if (photon.photon.toa.value > holdAfter) {
        held.push_back(photon);
        return;
      }
      assert(!lastWritten || precedes(*lastWritten, photon));
      lastWritten = photon;
      buffer.push_back(photon.photon);
      charges.push_back(photon.charge);
      if (buffer.size() == buffer_photons) flush();
    };
    std::size_t p = 0;
    for (const Numbered_Photon& photon : out.photons) {
      if (photon.firstHit < firstKept || photon.firstHit >= end) continue;
      for (; p < pending.size() && precedes(pending[p], photon); ++p) take(pending[p]);
      take(photon);
    }
    for (; p < pending.size(); ++p) take(pending[p]);
    pending.swap(held);
    flush();
  }

  void flush() {
    output.add_photons(static_cast<const Photon*>(buffer.data()), buffer.size());
    if constexpr (requires { output.add_charges(charges.data(), charges.size()); }) {
      output.add_charges(static_cast<const Photon_Charge*>(charges.data()), charges.size());
    }
    photonsWritten += buffer.size();
    buffer.clear();
    charges.clear();
  }

  /// Photons handed to the output at once.
  static constexpr std::size_t buffer_photons = std::size_t{1} << 14;

  Output_Type& output;
  Role role = Role::own;
  bool againNext = false;                ///< after a passed piece, the one after it is grouped again
  std::uint64_t firstKept = 0;           ///< the first hit of the first photon kept of the next run
  std::vector<Numbered_Photon> pending;  ///< held back, to be merged with the next run's photons
  std::optional<Numbered_Photon> lastWritten;
  std::vector<Photon> buffer;
  std::vector<Photon_Charge> charges;  ///< of the photons in `buffer`
  std::uint64_t photonsWritten = 0;
  std::uint64_t triggersWritten = 0;
  std::uint64_t cuts = 0;
  std::uint64_t takenOn = 0;
};

}  // namespace kovra::import
