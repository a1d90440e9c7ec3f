#!/usr/bin/env bash
# First run: installs what is missing, builds, simulates a small sample photon file, reconstructs its events and
# shows what came out.
#
# KOVRA_BUILD_DIR  use the programs of an existing build instead of building into build/
# KOVRA_DEMO_DIR   where the sample files go (default: sample/)
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
if [ -n "${KOVRA_BUILD_DIR:-}" ]; then
  bin="$KOVRA_BUILD_DIR"
else
  "$root/scripts/build.sh"
  bin="$root/build"
fi
sample="${KOVRA_DEMO_DIR:-$root/sample}"
mkdir -p "$sample"

echo "== Simulating 10 ms of a scintillator (about 1000 flashes of 20 photons) with external triggers at 10 kHz"
"$bin/kovra_simulate" --output "$sample/sample.kovraphot" --duration 1e-2 --triggers 1e4 --seed 1 --truth

echo
echo "== Reconstructing events: photons within 5 pixels and 0.5 microseconds, events at most 2 microseconds long"
"$bin/kovra_brantel" -s 5 -t 5e-7 -D 2e-6 -i "$sample/sample.kovraphot" -o "$sample/out/sample.kovraevent"

echo
echo "== What the event file holds"
"$bin/kovra_inspect" "$sample/out/sample.kovraevent" --summary --image "$sample/out/sample_events.png"
echo
echo "Event map: $sample/out/sample_events.png; true flashes: $sample/sample.truth.csv"
