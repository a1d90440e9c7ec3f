#!/usr/bin/env bash
# Installs what is missing, then configures and builds everything into build/.
# Extra arguments go to the CMake configure step.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/setup.sh"
# Warnings are errors in every build the scripts make, so a developer's build fails where CI's would.
cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=Release -DKOVRA_WERROR=ON "$@" >/dev/null
cmake --build "$root/build" -j "$(nproc)"
