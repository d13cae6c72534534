#!/usr/bin/env bash
# Builds and runs the whole suite under AddressSanitizer + UndefinedBehaviorSanitizer and under
# ThreadSanitizer, through the asan and tsan presets. Any report fails its test. Name one preset
# to run only that one.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
presets=("$@")
if [ ${#presets[@]} -eq 0 ]; then
    presets=(asan tsan)
fi
for preset in "${presets[@]}"; do
    echo "== $preset"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    ctest --preset "$preset"
done
