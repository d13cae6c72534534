// The limit most frame-path benchmarks are held to: one plain memcpy of the frame's bytes.
#pragma once

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace kvpcie::bench {

inline void MemcpyBaseline(benchmark::State& state, std::size_t bytes) {
    std::vector<char> source(bytes, 1);
    std::vector<char> target(bytes);
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), bytes);
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}

}  // namespace kvpcie::bench
