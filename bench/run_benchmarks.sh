#!/usr/bin/env bash
# End-to-end benchmark of kovra_brantel, run by hand (never as a test).
#
# Simulates five photon files (sparse, nominal, dense pile-up, nominal flashes with a few hot pixels, and a dark
# start; about 20 million photons each), runs every algorithm on each on 1 thread, 2 threads and all the cores the
# machine gives (KOVRA_THREADS), and records wall time, the processor time it took (user and system), photons
# per second, peak resident memory, and the speedup and efficiency over one thread; every event file is compared
# with the one-thread file. Beside every algorithm it measures the limit: kovra_io_limit reads the same input and
# writes a file of the same output size with plain buffered I/O and nothing else. Then, with parallel_phases_bench,
# the part of a run that the calling thread does alone (before the first piece starts, after the last events are
# written) and what it predicts for 16 and 64 cores. Prints Markdown tables and writes them, with the command,
# commit and machine, to BENCHMARKS.md; a hand-written "## Raw import" section at the end of the old file is
# carried over.
#
#   bench/run_benchmarks.sh [--quick] [--scale N] [--repeat N] [--large GB] [--build-dir DIR] [--data-dir DIR]
#                           [--results FILE] [--no-build] [--commit TEXT]
#
#   --quick       datasets of about 1 million photons and one run each, results only printed (a smoke run)
#   --scale N     with --quick, shorten the acquisitions N times instead of 20 (.ci/run uses 4000: a few
#                 thousand photons per dataset, seconds in all, to check that the script still works)
#   --repeat N    runs per measurement, the fastest counts (default 3; memory is the largest seen)
#   --large GB    also a photon file of about GB gigabytes at the nominal rates, each algorithm run once on it
#   --build-dir   where the programs are built (default build/)
#   --data-dir    where the photon and event files go (default $TMPDIR/kovra_bench, about 1.5 GB; kept)
#   --results     file to write (default BENCHMARKS.md; with --quick nothing is written unless given)
#   --no-build    use the programs already in the build directory
#   --commit TEXT the commit to record, for sources that are not a git work tree (such as a `git archive` export)
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
command_line="bench/run_benchmarks.sh $*"
build="$root/build"
data="${TMPDIR:-/tmp}/kovra_bench"
results=""
repeat=3
quick=0
scale=20
do_build=1
commit=""
large_gb=0
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=1; repeat=1 ;;
    --repeat) repeat="$2"; shift ;;
    --large) large_gb="$2"; shift ;;
    --build-dir) build="$2"; shift ;;
    --data-dir) data="$2"; shift ;;
    --results) results="$2"; shift ;;
    --no-build) do_build=0 ;;
    --commit) commit="$2"; shift ;;
    --scale) scale="$2"; shift ;;
    -h|--help) sed -n '2,23p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "run_benchmarks: unknown argument '$1' (see --help)" >&2; exit 2 ;;
  esac
  shift
done
if [ -z "$results" ] && [ "$quick" -eq 0 ]; then results="$root/BENCHMARKS.md"; fi

if [ "$do_build" -eq 1 ]; then
  "$root/scripts/setup.sh"
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DKOVRA_WERROR=ON >/dev/null
  cmake --build "$build" -j "$(nproc)" --target kovra_brantel kovra_simulate kovra_io_limit parallel_phases_bench \
    >/dev/null
fi
for program in kovra_brantel kovra_simulate kovra_io_limit parallel_phases_bench; do
  if [ ! -x "$build/$program" ]; then echo "run_benchmarks: $build/$program is missing" >&2; exit 1; fi
done
if [ ! -x /usr/bin/time ]; then echo "run_benchmarks: /usr/bin/time is missing (Debian package 'time')" >&2; exit 1; fi
mkdir -p "$data"

# Search settings used for every run: they recover the simulated flashes (see docs/simulator.md).
settings=(-s 5 -t 5e-7 -D 2e-6)
algorithms=(default noBranchChain_direct forwardChain_photonBuildup fullChain_direct)
# Thread counts: one, two, and every core this process may use (each once).
cores=$(nproc)
thread_counts=(1)
for t in 2 "$cores"; do
  if [ "$t" -le "$cores" ] && [[ " ${thread_counts[*]} " != *" $t "* ]]; then thread_counts+=("$t"); fi
done
# name | simulator options (20 photons per flash; durations set for about 20 million photons)
datasets=(
  "sparse|--event-rate 1e4 --photons 20 --duration 100 --seed 11"
  "nominal|--event-rate 2e6 --photons 20 --duration 0.5 --seed 12"
  "dense|--event-rate 1e7 --photons 40 --duration 0.05 --seed 13"
  "hotspot|--event-rate 2e6 --photons 20 --duration 0.4 --hot-pixels 4:2e6 --seed 15"
  "darkstart|--event-rate 1e7 --photons 40 --duration 0.1 --flashes-from 0.05 --dark-rate 2e7 --seed 16"
)
if awk -v g="$large_gb" 'BEGIN { exit !(g > 0) }'; then
  # 16 bytes a photon, 4e7 photons a second at the nominal rates.
  datasets+=("large|--event-rate 2e6 --photons 20 --duration $(awk -v g="$large_gb" 'BEGIN { printf "%.3f", g * 1e9 / 16 / 4e7 }') --seed 14")
fi
scale_duration() {  # the quick run keeps the rates and shortens the acquisition `scale` times
  if [ "$quick" -eq 1 ]; then
    echo "$1" | awk -v s="$scale" '{ for (i = 1; i <= NF; i++) if ($(i-1) == "--duration" || $(i-1) == "--flashes-from") $i = $i / s; print }'
  else
    echo "$1"
  fi
}

# Runs a command `repeat` times under /usr/bin/time; sets best_s (fastest wall time), best_user and best_sys (the
# processor seconds of that run, in user space and in the kernel) and peak_kb (largest RSS). KOVRA_THREADS and
# other settings come from the environment the command is given (env NAME=VALUE ...).
measure() {
  best_s=""
  peak_kb=0
  local i start end seconds kb user sys
  for ((i = 0; i < repeat; i++)); do
    start=$(date +%s%N)
    /usr/bin/time -f '%M %U %S' -o "$data/time.txt" "$@" >"$data/run.log" 2>&1 || {
      echo "run_benchmarks: failed: $*" >&2; cat "$data/run.log" >&2; exit 1; }
    end=$(date +%s%N)
    seconds=$(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.3f", (b - a) / 1e9 }')
    read -r kb user sys < <(tail -n 1 "$data/time.txt")
    if [ -z "$best_s" ] || awk -v a="$seconds" -v b="$best_s" 'BEGIN { exit !(a < b) }'; then
      best_s=$seconds
      best_user=$user
      best_sys=$sys
    fi
    if [ "$kb" -gt "$peak_kb" ]; then peak_kb=$kb; fi
  done
}

# The targets set for wall / limit, by dataset and algorithm ("-" where none is set).
target_of() {
  case "$1:$2" in
    sparse:*) echo 2 ;;
    nominal:default | nominal:noBranchChain_direct) echo 2.5 ;;
    nominal:*) echo 3 ;;
    dense:default | dense:noBranchChain_direct) echo 4 ;;
    dense:forwardChain_photonBuildup) echo 5 ;;
    dense:fullChain_direct) echo 6 ;;
    *) echo - ;;
  esac
}

load=$(cut -d ' ' -f 1 /proc/loadavg)
rows=()
serial_rows=()
: >"$data/figures.tsv"
printf '%-8s %-28s %3s %10s %8s %7s %7s %9s %9s %8s %7s %7s %6s %6s\n' dataset algorithm thr events wall_s user_s sys_s \
  Mphot/s peak_MB limit_s ratio speedup effic target
for entry in "${datasets[@]}"; do
  name="${entry%%|*}"
  options="$(scale_duration "${entry#*|}")"
  input="$data/$name.kovraphot"
  # shellcheck disable=SC2086  # the options are words on purpose
  "$build/kovra_simulate" -o "$input" $options --triggers 1000 >"$data/simulate.log"
  photons=$(sed -n 's/^kovra_simulate: wrote \([0-9]*\) photons.*/\1/p' "$data/simulate.log")
  input_bytes=$(stat -c %s "$input")
  repeat_all=$repeat
  if [ "$name" = large ]; then repeat=1; fi
  for algorithm in "${algorithms[@]}"; do
    reference="$data/$name.$algorithm.1.kovraevent"
    one_wall=""
    limit=""
    for threads in "${thread_counts[@]}"; do
      output="$data/$name.$algorithm.$threads.kovraevent"
      measure env KOVRA_THREADS="$threads" "$build/kovra_brantel" -i "$input" -o "$output" "${settings[@]}" \
        --algorithm "$algorithm" --verbose 2
      events=$(sed -n 's/.*Total number of reconstructed events = \([0-9]*\).*/\1/p' "$data/run.log")
      if [ "$threads" -eq 1 ]; then
        one_wall=$best_s
        target=$(target_of "$name" "$algorithm")
      else
        target=-
        cmp -s "$output" "$reference" || {
          echo "run_benchmarks: $name, $algorithm: the event file on $threads threads differs from one thread's" >&2
          exit 1
        }
      fi
      output_bytes=$(stat -c %s "$output")
      if [ -z "$limit" ]; then
        measure "$build/kovra_io_limit" "$input" "$data/limit.out" "$output_bytes"
        limit=$best_s
        measure env KOVRA_THREADS="$threads" "$build/kovra_brantel" -i "$input" -o "$output" "${settings[@]}" \
          --algorithm "$algorithm" --verbose 2
      fi
      wall=$best_s
      figures=(-v n="$name" -v a="$algorithm" -v t="$threads" -v p="$photons" -v e="$events" -v w="$wall"
               -v m="$peak_kb" -v i="$input_bytes" -v o="$output_bytes" -v l="$limit" -v u="$best_user"
               -v s="$best_sys" -v g="$target" -v w1="$one_wall")
      row=$(awk "${figures[@]}" 'BEGIN {
        printf "| %s | %.1f | %s | %d | %s | %.3f | %.2f | %.2f | %.1f | %.0f | %.2f | %.3f | %.0f | %.1f | %.2f | %.2f | %s |",
               n, p / 1e6, a, t, e, w, u, s, p / w / 1e6, m / 1024, m * 1024 / (i + o), l, (i + o) / l / 1e6, w / l,
               w1 / w, w1 / w / t, g }')
      rows+=("$row")
      printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$name" "$algorithm" "$threads" "$photons" "$wall" \
        "$peak_kb" "$input_bytes" "$output_bytes" "$limit" "$target" "$one_wall" >>"$data/figures.tsv"
      awk "${figures[@]}" 'BEGIN { printf "%-8s %-28s %3d %10s %8.3f %7.2f %7.2f %9.1f %9.0f %8.3f %7.1f %7.2f %6.2f %6s\n",
        n, a, t, e, w, u, s, p / w / 1e6, m / 1024, l, w / l, w1 / w, w1 / w / t, g }'
    done
    # The part the calling thread does alone, on every core, to a new file each time (as a run to a new name).
    best_phases=""
    for ((k = 0; k < repeat; k++)); do
      rm -f "$data/phases.kovraevent"
      phases=$("$build/parallel_phases_bench" "$input" "$data/phases.kovraevent" "$algorithm" "$cores" 5 5e-7 2e-6)
      total=$(echo "$phases" | sed -n 's/.* total=\([0-9.]*\).*/\1/p')
      if [ -z "$best_phases" ] || awk -v a="$total" -v b="$best_total" 'BEGIN { exit !(a < b) }'; then
        best_phases=$phases
        best_total=$total
      fi
    done
    field() { echo "$best_phases" | sed -n "s/.* $1=\([0-9.]*\).*/\1/p"; }
    serial_rows+=("$(awk -v n="$name" -v a="$algorithm" -v c="$cores" -v w1="$one_wall" -v b="$(field alone_before)" \
      -v f="$(field alone_after)" -v r="$(field writer_busy)" -v x="$(field finish)" 'BEGIN {
      s = (b + f) / w1
      # With the writer: it runs beside the workers, so it limits only once the workers make events faster than
      # it writes them (its busy time measured here, on every core, as a floor under the parallel part).
      parallel64 = (w1 - b - f) / 64
      printf "| %s | %s | %.3f | %d | %.1f | %.1f | %.1f | %.1f | %.2f %% | %.1f | %.1f | %.1f |", n, a, w1, c, b * 1e3,
             f * 1e3, x * 1e3, r * 1e3, 100 * s, 1 / (s + (1 - s) / 16), 1 / (s + (1 - s) / 64),
             w1 / (b + f + (r > parallel64 ? r : parallel64)) }')")
    rm -f "$data/phases.kovraevent"
  done
  rm -f "$data"/"$name".*.kovraevent "$data/limit.out"
  if [ "$name" = large ]; then rm -f "$input"; fi
  repeat=$repeat_all
done

header="| Dataset | Photons (M) | Algorithm | Threads | Events | Wall (s) | User (s) | System (s) | Photons/s (M) \
| Peak RSS (MB) | RSS / (input + output) | Limit (s) | Limit (MB/s) | Wall / limit | Speedup | Efficiency | Target |
|---|---:|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|"
table="$header"
for row in "${rows[@]}"; do table+=$'\n'"$row"; done
serial_table="| Dataset | Algorithm | One thread (s) | Cores | Alone before (ms) | Alone after (ms) | Of it, finishing the file (ms) \
| Writer busy (ms) | Serial share | Predicted speedup, 16 cores | 64 cores | 64 cores, the writer as a floor |
|---|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|"
for row in "${serial_rows[@]}"; do serial_table+=$'\n'"$row"; done
# The targets: wall / limit on one thread; two threads within 0.6 of one thread's wall on the nominal and dense
# data; every run in at most 128 MiB of memory (aim 64), whatever the file size.
targets=$(awk -F '\t' '
  $3 == 1 && $10 != "-" {
    ratio = $5 / $9
    if (ratio <= $10) met = met sprintf(" %s/%s", $1, $2)
    else missed = missed sprintf(" %s/%s (%.1f, target %s)", $1, $2, ratio, $10)
  }
  $3 == 2 && ($1 == "nominal" || $1 == "dense") {
    share = $5 / $11
    if (share <= 0.6) fast = fast sprintf(" %s/%s (%.2f)", $1, $2, share)
    else slow = slow sprintf(" %s/%s (%.2f)", $1, $2, share)
  }
  { if ($6 > peak) { peak = $6; where = $1 ", " $2 ", " $3 " threads" } }
  END {
    printf "- Wall / limit on one thread within the target:%s\n", (met == "" ? " none" : met)
    printf "- Wall / limit on one thread above the target:%s\n", (missed == "" ? " none" : missed)
    printf "- Two threads within 0.6 of one thread'"'"'s wall:%s\n", (fast == "" ? " none" : fast)
    printf "- Two threads above 0.6 of one thread'"'"'s wall:%s\n", (slow == "" ? " none" : slow)
    printf "- Peak memory of all runs: %.1f MiB (%s; bound 128 MiB: %s, aim 64 MiB: %s)\n", peak / 1024, where,
           (peak <= 131072 ? "met" : "missed"), (peak <= 65536 ? "met" : "missed")
  }' "$data/figures.tsv")
echo
echo "$table"
echo
echo "$serial_table"
echo
echo "$targets"

if [ -n "$results" ]; then
  if [ -z "$commit" ]; then
    commit=$(git -C "$root" rev-parse --short HEAD 2>/dev/null || echo unknown)
    if [ -n "$(git -C "$root" status --porcelain --untracked-files=no 2>/dev/null)" ]; then
      commit="$commit (work tree with local changes)"
    fi
  fi
  cpu=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)
  memory=$(awk '/^MemTotal/ { printf "%.1f GiB", $2 / 1048576 }' /proc/meminfo)
  # The hand-written raw-import section of the old file (from its heading to the end) is kept.
  import_section=""
  if [ -f "$results" ]; then import_section=$(sed -n '/^## Raw import (`kovra_import`)/,$p' "$results"); fi
  cat >"$results" <<EOF
# Benchmarks

End-to-end runs of \`kovra_brantel\` on simulated photon files, on one thread, two and every core
(\`KOVRA_THREADS\`), written by \`bench/run_benchmarks.sh\`. Each time is the fastest of $repeat run(s), with the
processor time of that run split into user and system seconds; peak memory is the largest resident set seen
(\`/usr/bin/time\`). Speedup is one thread's wall time over this one's, efficiency the speedup per thread; every
event file equals the one-thread file byte for byte (the script stops otherwise). The limit is \`kovra_io_limit\`
on the same input and an output of the same size: read and write with plain buffered I/O on one thread and
nothing else. Input files are in the page cache, as they are right after the simulator wrote them.

- Command: \`$command_line\`
- Commit: $commit
- Date: $(date -u '+%Y-%m-%d %H:%M UTC')
- Machine: $(nproc) cores, $cpu, $memory, $(uname -sr); load average at the start $load (other work on the
  machine lengthens the wall times)
- Search settings: \`${settings[*]}\` (pixels, seconds)

## Datasets

| Name | Simulator options | What it stands for |
|---|---|---|
| sparse | \`$(scale_duration "${datasets[0]#*|}") --triggers 1000\` | flashes about 100 µs apart, far beyond any search window |
| nominal | \`$(scale_duration "${datasets[1]#*|}") --triggers 1000\` | about two flashes in flight at any moment (each lasts about 1 µs) |
| dense | \`$(scale_duration "${datasets[2]#*|}") --triggers 1000\` | pile-up: about ten flashes and 200 photons in any 0.5 µs |
| hotspot | \`$(scale_duration "${datasets[3]#*|}") --triggers 1000\` | the nominal flashes plus four hot pixels, each firing about once per 0.5 µs |
| darkstart | \`$(scale_duration "${datasets[4]#*|}") --triggers 1000\` | a dark start: one million dark counts (about ten per 0.5 µs) before the dense flashes begin, so the first photons read are not like the rest |
$(if [ "${#datasets[@]}" -gt 5 ]; then echo "| large | \`${datasets[5]#*|} --triggers 1000\` | the nominal rates for about $large_gb GB of photons, one run each |"; fi)

## Results

$table

## Serial part

What the calling thread does while no worker can run, timed by \`parallel_phases_bench\` on every core (fastest of
$repeat, to a new file each time): before the first piece starts (the photon file's layout, the order check of its
first and last photon, starting the threads) and after the last events are written (joining the threads, the
trigger block, the last flush, the fsync and the move into place). The share is that time over one thread's wall
time; the prediction is Amdahl's, 1 / (share + (1 - share) / cores), and leaves out what the cores share besides
(memory bandwidth, the disk). The writer (the calling thread handing the events to the file in order, and the
kernel copying them and starting their write-back) runs beside the workers; its busy time is a floor under the
parallel part once the workers make events faster than it writes them, which the last column takes into account.

$serial_table

## Targets

$targets
EOF
  if [ -n "$import_section" ]; then printf '\n%s\n' "$import_section" >>"$results"; fi
  echo
  echo "Written to $results"
fi
