#!/usr/bin/env bash
# Runs the README's first command exactly as written, from the top of the source tree, so that the README
# cannot rot. The programs come from the build under test (KOVRA_BUILD_DIR) rather than from a new build, and the
# sample files go to a temporary directory (KOVRA_DEMO_DIR).
#
#   run_readme_first_command.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
root="$1"
build="$2"

source "$(dirname "$0")/readme_commands.sh"
# The first non-empty line of the README's first fenced code block.
block=$(readme_block "$root/README.md")
command=$(awk 'NF { print; exit }' <<<"$block")
make_work
echo "Running: $command"
status=0
(cd "$root" && KOVRA_BUILD_DIR="$build" KOVRA_DEMO_DIR="$work" bash -c "$command") >"$work/stdout" 2>"$work/stderr" ||
  status=$?
cat "$work/stdout"
cat "$work/stderr" >&2

fail() {
  echo "README first command: $1" >&2
  exit 1
}
[ "$status" -eq 0 ] || fail "exit status $status"
grep -q "Total number of photons in file = [1-9]" "$work/stdout" || fail "no photon count in the log"
grep -q "Total number of reconstructed events = [1-9]" "$work/stdout" || fail "no event count in the log"
[ -n "$(find "$work" -name '*.kovraevent' -size +0)" ] || fail "no event file written in KOVRA_DEMO_DIR"
[ "$(head -c 4 "$work/out/sample.png" | tail -c 3)" = "PNG" ] || fail "no figure in KOVRA_DEMO_DIR/out/sample.png"
echo "README first command: ran as written"
