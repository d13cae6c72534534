#!/usr/bin/env bash
# Sets up a fresh machine, builds the SDK and its tools, and runs the loopback self-test on the
# simulated card: every channel injects frames, captures them back, checks and records them.
set -euo pipefail
cd "$(dirname "$0")"
scripts/setup.sh
scripts/configure.sh
cmake --build build --target kvpcie
# From the tool's own folder, where the library puts its logs and recordings.
cd build/tools/kvpcie
./kvpcie --sim loopback
