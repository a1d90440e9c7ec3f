#!/usr/bin/env bash
# scripts/demo.sh and scripts/demo.sh --raw, run one after the other in either order, leave exactly the files (and
# bytes) that the later one leaves when run alone: nothing of the earlier run stays behind to contradict the later
# one, such as a flash file of simulated photons beside a photon file imported from raw data. The programs come
# from the build under test, the samples go to temporary folders.
#
#   run_demo_in_either_order.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
root="$1"
build="$2"
source "$(dirname "$0")/readme_commands.sh"
make_work

# demo [--raw]: one run of the demo, always into the same folder, as the figure's title names the event file.
demo() {
  if ! KOVRA_BUILD_DIR="$build" KOVRA_DEMO_DIR="$work/demo" bash "$root/scripts/demo.sh" "$@" >"$work/log" 2>&1; then
    cat "$work/log" >&2
    echo "demo $* failed" >&2
    exit 1
  fi
}
keep() { cp -a "$work/demo" "$work/$1"; }

# The files of a kept folder with a checksum each.
listing() { (cd "$work/$1" && find . -type f -print0 | sort -z | xargs -0 sha256sum); }

status=0
same_as() {
  if ! diff <(listing "$1") <(listing "$2") >"$work/diff"; then
    echo "$1: not the files of a single run (< after both runs, > after one):" >&2
    cat "$work/diff" >&2
    status=1
  fi
}

demo && keep plain
demo --raw && keep plain-then-raw
rm -rf "$work/demo"
demo --raw && keep raw
demo && keep raw-then-plain
same_as plain-then-raw raw
same_as raw-then-plain plain
[ "$status" -eq 0 ] && echo "demo: the same outputs after either order of runs"
exit "$status"
