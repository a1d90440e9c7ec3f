#!/usr/bin/env bash
# First run: installs what is missing, builds, simulates a small sample photon file and reconstructs its events.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/build.sh"

sample="$root/sample"
mkdir -p "$sample"

echo "== Simulating 1 ms of a scintillator (about 100 flashes) with external triggers at 10 kHz"
"$root/build/kovra_simulate" --output "$sample/sample.kovraphot" --duration 1e-3 --triggers 1e4 --seed 1

echo "== Reconstructing events within 4 pixels and 1 microsecond"
"$root/build/kovra_brantel" -s 4 -t 1e-6 -i "$sample/sample.kovraphot" -o "$sample/out/sample.kovraevent"
echo "== Wrote $sample/out/sample.kovraevent"
