#!/usr/bin/env bash
# Builds the parallel paths with the thread sanitizer into build-tsan/ and runs their tests there: any data race
# fails the run. Slower than scripts/test.sh (a few minutes); CI runs both.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$root/build-tsan"
"$root/scripts/setup.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DKOVRA_TSAN=ON -DKOVRA_WERROR=ON -DKOVRA_BUILD_PYTHON=OFF \
  -DKOVRA_BUILD_BENCHMARKS=OFF >/dev/null
# Each test program, and the tests of it that run threads.
tests=(
  "Worker_Pool_test *"
  "Reconstruction_Parallel_test *"
  "streaming_test ThreadsTest.*:StreamingFailureTest.*"
  "kovra_import_test ParallelImportTest.*:ImportTest.*"
)
targets=(kovra_brantel kovra_import)
for t in "${tests[@]}"; do targets+=("${t%% *}"); done
cmake --build "$build" -j "$(nproc)" --target "${targets[@]}"
export TSAN_OPTIONS="halt_on_error=1 exitcode=66"
for t in "${tests[@]}"; do
  echo "== ${t%% *} (${t#* }) under the thread sanitizer"
  "$build/${t%% *}" --gtest_filter="${t#* }" --gtest_brief=1
done
