#!/usr/bin/env bash
# First run: installs what is missing, builds, simulates a small sample photon file and reconstructs its events.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/build.sh"

sample="$root/sample"
mkdir -p "$sample"
if [ ! -x "$root/build/kovra_simulate" ]; then
  echo "demo: build/kovra_simulate is not built yet, so there is no sample photon file to reconstruct." >&2
  echo "demo: run build/kovra_brantel -s 2 -t 1e-7 -i <file>.kovraphot -o <file>.kovraevent on a photon file of your own." >&2
  exit 1
fi

echo "== Simulating a sample photon file"
"$root/build/kovra_simulate" --output "$sample/sample.kovraphot" --duration 1e-3 --seed 1

echo "== Reconstructing events"
"$root/build/kovra_brantel" -s 2 -t 1e-7 -i "$sample/sample.kovraphot" -o "$sample/out/sample.kovraevent"
echo "== Wrote $sample/out/sample.kovraevent"
