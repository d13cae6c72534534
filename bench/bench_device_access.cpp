// What device access adds to a frame's DMA: XdmaReadData of a 1280 x 1024 x 2 frame from the
// simulated card against a plain memcpy of the same bytes, and the cost of a register read.
#include "MemcpyBaseline.h"
#include "RatioReporter.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaDevice.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

using namespace kvpcie;

constexpr unsigned kFrameBytes = 1280 * 1024 * 2;

// The card the benchmarks read; opened by main.
xdma::XdmaCard& Card() {
    static xdma::XdmaCard card;
    return card;
}

void BM_MemcpyFrame(benchmark::State& state) {
    kvpcie::bench::MemcpyBaseline(state, kFrameBytes);
}
BENCHMARK(BM_MemcpyFrame);

void BM_XdmaReadDataFrame(benchmark::State& state) {
    std::vector<char> frame(kFrameBytes, 1);
    Card().XdmaWriteData(0, kFrameBytes, frame.data());  // commit the card's pages first
    for (auto _ : state) {
        if (!Card().XdmaReadData(0, kFrameBytes, frame.data())) {
            state.SkipWithError("XdmaReadData failed");
            break;
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kFrameBytes);
}
BENCHMARK(BM_XdmaReadDataFrame);

void BM_XdmaReadReg(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(Card().XdmaReadReg(0x100028));
    }
}
BENCHMARK(BM_XdmaReadReg);

}  // namespace

int main(int argc, char** argv) {
    ::setenv("KVPCIE_SIM", "xdma:1", 1);
    if (!Card().XdmaOpen("sim:xdma0")) {
        std::fprintf(stderr, "the simulated card did not open\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    kvpcie::bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatio("BM_XdmaReadDataFrame", "BM_MemcpyFrame", 0.9, "xdma_read_vs_memcpy");
    Card().XdmaClose();
    benchmark::Shutdown();
    return 0;
}
