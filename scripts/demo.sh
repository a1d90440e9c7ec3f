#!/usr/bin/env bash
# First run: installs what is missing, builds, simulates a small sample photon file, reconstructs its events and
# shows what came out, ending with a figure of them.
#
# With --raw it starts from the camera's raw data instead: the simulator also writes the Timepix3 packets, and
# kovra_import turns them into the photon file that is reconstructed.
#
# KOVRA_BUILD_DIR  use the programs of an existing build instead of building into build/
# KOVRA_DEMO_DIR   where the sample files go (default: sample/)
set -euo pipefail
raw=0
if [ "${1:-}" = "--raw" ]; then raw=1; fi
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
if [ -n "${KOVRA_BUILD_DIR:-}" ]; then
  bin="$KOVRA_BUILD_DIR"
else
  "$root/scripts/build.sh"
  bin="$root/build"
fi
sample="${KOVRA_DEMO_DIR:-$root/sample}"
mkdir -p "$sample"
# What either kind of run writes goes first, so that nothing of an earlier run of the other kind stays behind to
# contradict this one (the flash file of simulated photons beside a photon file imported from raw data, say).
rm -f "$sample"/{sample,simulated}.{kovraphot,truth.csv,truth.kovraflash} "$sample/sample.tpx3" \
  "$sample/out/sample.kovraevent" "$sample/out/sample.png"

echo "== Simulating 10 ms of a scintillator (about 1000 flashes of 20 photons) with external triggers at 10 kHz"
if [ "$raw" -eq 1 ]; then
  "$bin/kovra_simulate" --output "$sample/simulated.kovraphot" --duration 1e-2 --triggers 1e4 --seed 1 --truth \
    --raw "$sample/sample.tpx3"
  mv "$sample/simulated.truth.csv" "$sample/sample.truth.csv"
  echo
  echo "== Importing the raw data: hits grouped into photons, TDC 1 rising edges as triggers"
  "$bin/kovra_import" "$sample/sample.tpx3" -o "$sample/sample.kovraphot"
else
  "$bin/kovra_simulate" --output "$sample/sample.kovraphot" --duration 1e-2 --triggers 1e4 --seed 1 --truth
fi

echo
echo "== Reconstructing events: photons within 5 pixels and 0.5 microseconds, events at most 2 microseconds long"
"$bin/kovra_brantel" -s 5 -t 5e-7 -D 2e-6 -i "$sample/sample.kovraphot" -o "$sample/out/sample.kovraevent"

echo
echo "== What the event file holds, and a figure of it: event map, photons per event, pulse shape, and the time of"
echo "   flight since the latest trigger (flat: the simulated flashes do not follow the triggers)"
"$bin/kovra_inspect" "$sample/out/sample.kovraevent" --summary --plot "$sample/out/sample.png"
echo
echo "Figure: $sample/out/sample.png; true flashes: $sample/sample.truth.csv"
