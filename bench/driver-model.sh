#!/usr/bin/env bash
# Capture, inject and DMA throughput through the driver model (kvpcie-simd over FUSE), for
# information: builds what it needs, starts a kvpcie-simd of its own, runs bench_driver_model
# against it through the Linux backend, and stops it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh >/dev/null
scripts/configure.sh >/dev/null
cmake --build build --target kvpcie-simd bench_driver_model >/dev/null
exec tests/driver-model/with-model.sh build/tools/kvpcie-simd/kvpcie-simd -- \
    build/bench/bench_driver_model
