#!/usr/bin/env bash
# Cross-builds the layers below Qt (OS layer, simulated card, device access) for 64-bit Windows
# with mingw-w64 and runs their suites as .exe files under Wine.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh g++-mingw-w64-x86-64-posix wine64
export WINEDEBUG=-all
export WINEPREFIX="${WINEPREFIX:-$PWD/build-mingw/wine}"
mkdir -p "$WINEPREFIX"
cmake --preset mingw
cmake --build --preset mingw
ctest --preset mingw
