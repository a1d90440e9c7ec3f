#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/build.sh"
cd "$root/build"
ctest --output-on-failure -j "$(nproc)"
