// The frame ring's hand-over of a 1280 x 1024 x 2 frame (Push, then PopPtr) against a plain
// memcpy of the same bytes: the ring should cost no more than the one copy it makes.
#include "MemcpyBaseline.h"
#include "RatioReporter.h"

#include "Common/KvCycleQueue.h"

#include <cstring>
#include <vector>

namespace {

constexpr int kFrameBytes = 1280 * 1024 * 2;

void BM_MemcpyFrame(benchmark::State& state) {
    kvpcie::bench::MemcpyBaseline(state, kFrameBytes);
}
BENCHMARK(BM_MemcpyFrame);

// A 2-slot ring, as small as the target buffer of the memcpy, so both copy into the same
// amount of memory and neither gains from the cache.
void BM_QueuePushPopFrame(benchmark::State& state) {
    kvpcie::KvCycleQueue queue;
    if (!queue.Init(kFrameBytes, 2)) {
        state.SkipWithError("Init failed");
        return;
    }
    std::vector<char> source(kFrameBytes, 1);
    int full = 0;
    for (auto _ : state) {
        queue.Push(source.data(), kFrameBytes, full);
        benchmark::DoNotOptimize(queue.PopPtr());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kFrameBytes);
}
BENCHMARK(BM_QueuePushPopFrame);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    kvpcie::bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatio("BM_QueuePushPopFrame", "BM_MemcpyFrame", 0.9, "queue_vs_memcpy");
    benchmark::Shutdown();
    return 0;
}
