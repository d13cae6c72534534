#!/usr/bin/env bash
# Sets up a fresh machine, builds the SDK with its tests and runs them all.
set -euo pipefail
cd "$(dirname "$0")"
scripts/setup.sh
scripts/configure.sh
cmake --build build
ctest --test-dir build --output-on-failure -j 2
