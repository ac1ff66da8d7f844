#!/usr/bin/env bash
# Installs what the tests need, then builds and runs the whole suite under the default
# preset, AddressSanitizer with UndefinedBehaviorSanitizer, and ThreadSanitizer.
# VM_PRESETS="default" (say) runs a subset.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

presets=${VM_PRESETS:-"default asan tsan"}
jobs=$(nproc)
for preset in $presets; do
  echo "=== $preset: build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j"$jobs"
  echo "=== $preset: test"
  ctest --preset "$preset" -j"$jobs"
done
