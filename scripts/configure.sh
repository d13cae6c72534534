#!/usr/bin/env bash
# Configures the build tree in ./build (Ninja, optimised with debug information).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
