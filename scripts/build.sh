#!/usr/bin/env bash
# Installs what is missing, then configures and builds everything into build/.
# Extra arguments go to the CMake configure step.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/setup.sh"
werror=OFF
if [ "${CI:-}" = "true" ]; then werror=ON; fi
cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=Release -DKOVRA_WERROR="$werror" "$@" >/dev/null
cmake --build "$root/build" -j "$(nproc)"
