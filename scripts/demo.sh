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
rm -f "$sample"/{sample,simulated}.{kovraphot,truth.csv,truth.kovraflash} "$sample"/sample.{tpx3,truth.kovrahit} \
  "$sample/out/sample.kovraevent" "$sample/out/sample.png"

echo "== Simulating 10 ms of a scintillator (about 1000 flashes of 20 photons) with external triggers at 10 kHz"
if [ "$raw" -eq 1 ]; then
  "$bin/kovra_simulate" --output "$sample/simulated.kovraphot" --duration 1e-2 --triggers 1e4 --seed 1 --truth \
    --raw "$sample/sample.tpx3"
  mv "$sample/simulated.truth.csv" "$sample/sample.truth.csv"
  echo
  echo "== Importing the raw data: hits grouped into photons, TDC 1 rising edges as triggers"
  echo "   What it merges, and why: a flash's 20 or so photons land within about a pixel of each other, most of them"
  echo "   within 10 ns, and each lights a blob of about 6 pixels whose hits lag by a time walk of up to 200 ns at"
  echo "   small ToT. The blobs of one flash overlap in space and time, so the grouping merges photons of the same"
  echo "   flash: no radius or window separates them, and a window shorter than the time walk tears each photon"
  echo "   apart instead. Scored against the photon of every hit (kovra_evaluate sample.tpx3 --simulated ...,"
  echo "   docs/raw-data.md), the scan of radius, window and photon time recommends the settings used here."
  grouping=(--radius 1 --window 1e-7 --photon-time earliest)
  "$bin/kovra_import" "$sample/sample.tpx3" -o "$sample/sample.kovraphot" "${grouping[@]}"
  echo
  echo "== The grouping against the truth: of the true photons, how many were found on their own, split, merged"
  "$bin/kovra_evaluate" "$sample/sample.tpx3" --simulated "$sample/simulated.kovraphot" "${grouping[@]}"
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
