#!/usr/bin/env bash
# Sets up a fresh machine, builds the SDK and runs the example host on the simulated card.
set -euo pipefail
cd "$(dirname "$0")"
scripts/setup.sh
scripts/configure.sh
cmake --build build --target card_info
KVPCIE_SIM=1 build/examples/card_info/card_info
