#!/usr/bin/env bash
# Benchmark of kovra_import on a large simulated raw file, run by hand (never as a test).
#
# Simulates an intensified camera (single photons, 4 million per second, each a blob of a few pixel hits) and
# writes its raw form, then measures, each the fastest of N runs, with /usr/bin/time:
#   floor            kovra_import_floor: read in 4 MiB blocks, decode every hit, write 16 bytes per hit
#   decode only      kovra_import_floor with the output discarded: reading and decoding alone
#   hits-as-photons  kovra_import --hits-as-photons (clock, reorder window, one photon per hit), all cores
#   grouping         kovra_import with the default grouping on 1 thread, on 2, and on all cores
# and prints a Markdown table: wall time, the processor time of that run (user and system), packets per second,
# peak resident memory, time over the floor's and over one thread's grouping. Then the serial part: the processor
# time of the thread that reads, decodes, orders and writes in the run on all cores (its trace line), and what
# it predicts for 16 and 64 cores: at least max(serial part, processor time of that run / cores), as the other
# work spreads over the cores and this part does not. Every grouping run's photon file is checked to be the same
# (cksum) as the one-thread run's. Every run starts without the output of the run before: the floor
# truncates its output when it opens it, while kovra_import replaces its output only when the new one is
# complete, so a leftover output would keep gigabytes more in the page cache during the run.
#
#   bench/run_import_benchmark.sh [--seconds S] [--repeat N] [--build-dir DIR] [--data-dir DIR] [--keep]
#
#   --seconds S   length of the simulated acquisition (default 16: about 3 GB of raw data, 390 million hits)
#   --repeat N    runs per measurement, the fastest counts (default 3; memory is the largest seen)
#   --build-dir   where the programs are built (default build/)
#   --data-dir    where the raw and output files go (default $TMPDIR/kovra_import_bench; needs about 4 x the
#                 raw file's size)
#   --keep        keep the raw file for the next run (the outputs are always removed)
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$root/build"
data="${TMPDIR:-/tmp}/kovra_import_bench"
seconds=16
repeat=3
keep=0
while [ $# -gt 0 ]; do
  case "$1" in
    --seconds) seconds="$2"; shift ;;
    --repeat) repeat="$2"; shift ;;
    --build-dir) build="$2"; shift ;;
    --data-dir) data="$2"; shift ;;
    --keep) keep=1 ;;
    -h|--help) sed -n '2,26p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "run_import_benchmark: unknown argument '$1' (see --help)" >&2; exit 2 ;;
  esac
  shift
done
for program in kovra_import kovra_import_floor kovra_simulate; do
  if [ ! -x "$build/$program" ]; then echo "run_import_benchmark: $build/$program is missing" >&2; exit 1; fi
done
mkdir -p "$data"
raw="$data/camera_${seconds}s.tpx3"
if [ ! -f "$raw" ]; then
  "$build/kovra_simulate" -o "$data/camera.kovraphot" --duration "$seconds" --event-rate 4e6 --photons 1 \
    --dark-rate 0 --triggers 60 --seed 21 --raw "$raw" >/dev/null
  rm -f "$data/camera.kovraphot"
fi
raw_bytes=$(stat -c %s "$raw")
packets=$(( raw_bytes / 8 ))  # packets and chunk headers: within 0.1 per cent of the packet count

# Runs a command `repeat` times, removing the file `output` (the run's output; "-" for none) before each run;
# sets best_s (fastest wall time), user_s and sys_s (that run's processor time) and peak_kb (largest resident set).
# With `check` set to a file's cksum, each run's output must have it; with it empty, it is set from the first run.
check=""
measure() {
  local output="$1"
  shift
  best_s=""
  peak_kb=0
  local i log wall kb sum
  for ((i = 0; i < repeat; i++)); do
    log="$data/time.log"
    if [ "$output" != "-" ]; then rm -f "$output"; fi
    sync  # start each run with no dirty pages of an earlier one still being written back
    /usr/bin/time -v -o "$log" "$@" >"$data/run.out"
    if [ -n "${checking:-}" ]; then
      sum=$(cksum <"$output")
      if [ -z "$check" ]; then check=$sum; fi
      if [ "$sum" != "$check" ]; then echo "run_import_benchmark: $* wrote another photon file" >&2; exit 1; fi
    fi
    wall=$(awk -F': ' '/Elapsed \(wall clock\)/ { n = split($2, p, ":"); s = 0; for (j = 1; j <= n; j++) s = s * 60 + p[j]; print s }' "$log")
    kb=$(awk -F': ' '/Maximum resident set size/ { print $2 }' "$log")
    if [ -z "$best_s" ] || awk -v a="$wall" -v b="$best_s" 'BEGIN { exit !(a < b) }'; then
      best_s=$wall
      user_s=$(awk -F': ' '/User time \(seconds\)/ { print $2 }' "$log")
      sys_s=$(awk -F': ' '/System time \(seconds\)/ { print $2 }' "$log")
    fi
    if [ "$kb" -gt "$peak_kb" ]; then peak_kb=$kb; fi
  done
  if [ "$output" != "-" ]; then rm -f "$output"; fi
}

echo "raw file: $raw, $raw_bytes bytes; load average at the start: $(cut -d' ' -f1-3 /proc/loadavg)"
echo
cores=$(nproc)
echo "| Run | Wall (s) | User (s) | System (s) | Packets/s (M) | Peak RSS (MiB) | Wall / floor | Wall / 1 thread |"
echo "|---|---:|---:|---:|---:|---:|---:|---:|"
measure "$data/floor.bin" "$build/kovra_import_floor" "$raw" "$data/floor.bin"
floor_s=$best_s
one_s=""
row() {
  awk -v name="$1" -v s="$best_s" -v u="$user_s" -v y="$sys_s" -v kb="$peak_kb" -v n="$packets" -v f="$floor_s" \
    -v o="$one_s" 'BEGIN { printf "| %s | %.2f | %.2f | %.2f | %.0f | %.1f | %.2f | %s |\n", name, s, u, y,
                           n / s / 1e6, kb / 1024, s / f, o == "" ? "" : sprintf("%.2f", s / o) }'
}
row "floor (read, decode, write 16 B per hit)"
measure - "$build/kovra_import_floor" "$raw" -
row "read and decode only, output discarded"
measure "$data/hits.kovraphot" "$build/kovra_import" "$raw" -o "$data/hits.kovraphot" --hits-as-photons
row "kovra_import --hits-as-photons, all $cores cores"
checking=1
measure "$data/photons.kovraphot" "$build/kovra_import" "$raw" -o "$data/photons.kovraphot" --threads 1
one_s=$best_s
row "kovra_import (grouping), 1 thread"
measure "$data/photons.kovraphot" "$build/kovra_import" "$raw" -o "$data/photons.kovraphot" --threads 2
row "kovra_import (grouping), 2 threads"
measure "$data/photons.kovraphot" "$build/kovra_import" "$raw" -o "$data/photons.kovraphot" --verbose 4
row "kovra_import (grouping), all $cores cores"
serial_s=$(sed -n 's/.*serial part ([^)]*) \([0-9.]*\) s of processor time.*/\1/p' "$data/run.out")
echo
echo "Every grouping run wrote the same photon file (cksum $check)."
if [ -n "$serial_s" ]; then
  awk -v s="$serial_s" -v u="$user_s" -v y="$sys_s" 'BEGIN {
    w = u + y
    printf "Serial part (reading, decoding, ordering, writing), on all cores: %.2f s of %.2f s of processor time.\n", s, w
    for (n = 16; n <= 64; n *= 4) printf "Predicted for %d cores: at least %.2f s (max(serial part, processor time / %d)).\n", n, (s > w / n ? s : w / n), n
  }'
fi
echo
echo "Summary and trace of the last grouping run; load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)"
sed 's/^/    /' "$data/run.out"
rm -f "$data/run.out" "$data/time.log"
if [ "$keep" -eq 0 ]; then rm -f "$raw"; fi
