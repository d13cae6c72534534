#!/usr/bin/env bash
# Builds the libFuzzer targets in ./build-fuzz and runs each one briefly from a copy of its seed
# corpus, so that fuzz/corpus stays as committed. KVPCIE_FUZZ_SECONDS sets the time per target.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh clang libclang-rt-14-dev
cmake -S fuzz -B build-fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build build-fuzz -j1

seconds="${KVPCIE_FUZZ_SECONDS:-20}"
failed=0
for target in fuzz_sim_config fuzz_raw_recording_name fuzz_tool_arguments; do
    corpus="build-fuzz/corpus/$target"
    artifacts="build-fuzz/artifacts/$target"
    log="build-fuzz/$target.log"
    rm -rf "$corpus"
    mkdir -p "$corpus" "$artifacts"
    cp -R "fuzz/corpus/$target/." "$corpus"
    if "build-fuzz/$target" -max_total_time="$seconds" -timeout=5 -rss_limit_mb=2048 \
            -artifact_prefix="$artifacts/" "$corpus" >"$log" 2>&1; then
        runs=$(sed -n 's/^Done \([0-9]*\) runs.*/\1/p' "$log")
        echo "$target: passed, ${runs:-?} runs in ${seconds} s, corpus of $(ls "$corpus" | wc -l)"
    else
        echo "$target: FAILED, see $log; the input is in $artifacts"
        tail -n 30 "$log"
        failed=1
    fi
done
exit "$failed"
