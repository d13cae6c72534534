// Capture through the facade on the simulated card, four channels of 1280 x 1024 x 2:
// - throughput: the highest frame rate per channel that the host sustains with no frame
//   dropped by the card, as bytes per second against memcpy bandwidth (goal >= 0.8);
// - latency from the card marking a buffer ready to the frame callback starting (goal p99 <=
//   1.5 ms);
// - CPU cost of four started channels with no frames arriving (goal < 3 % of one core).
// The simulated card makes its frames on its own thread of this process, so the throughput
// figure includes the card's work as well as the host's.
#include "MemcpyBaseline.h"

#include "Figure.h"
#include "SimCardBench.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include <sys/resource.h>

namespace {

constexpr int kCard = 0;
constexpr int kWidth = 1280;
constexpr int kHeight = 1024;
constexpr std::size_t kFrameBytes = std::size_t{kWidth} * kHeight * 2;
constexpr int kChannels = 4;

constexpr std::uint32_t ControlBlock(int channel) {
    return 0x1F1000 + static_cast<std::uint32_t>(channel) * 0x1000;
}
constexpr std::uint32_t kCtlExternalRate = 0x04;
constexpr std::uint32_t kCtlFramesDropped = 0x0C;

using Clock = std::chrono::steady_clock;

struct Channel {
    std::vector<char> buffer = std::vector<char>(kFrameBytes);
    std::atomic<std::uint64_t> delivered{0};
    // Latency samples in nanoseconds, filled by the callback without allocating.
    std::vector<std::int64_t> latencies = std::vector<std::int64_t>(1 << 16);
    std::atomic<std::size_t> latencyCount{0};
    std::atomic<bool> measureLatency{false};
};

Channel channels[kChannels];

void OnFrame(int channel, const char* frame, void* context) {
    const auto now = Clock::now().time_since_epoch();
    auto* state = static_cast<Channel*>(context);
    state->delivered.fetch_add(1, std::memory_order_relaxed);
    if (state->measureLatency.load(std::memory_order_relaxed)) {
        std::uint32_t number = 0;
        std::memcpy(&number, frame, 4);
        std::int64_t ready = 0;
        if (KvPCIeSim::CaptureReadyTime(kCard, channel, number, ready)) {
            const std::size_t slot = state->latencyCount.fetch_add(1);
            if (slot < state->latencies.size()) {
                state->latencies[slot] =
                    std::chrono::duration_cast<std::chrono::nanoseconds>(now).count() - ready;
            }
        }
    }
}

std::uint32_t Dropped(PCIeDataManager& manager, int channel) {
    return manager.ReadReg(ControlBlock(channel) + kCtlFramesDropped);
}

void StartAll(PCIeDataManager& manager, int rate) {
    for (int c = 0; c < kChannels; ++c) {
        manager.WriteReg(ControlBlock(c) + kCtlExternalRate, rate);
        eErrorCode error = ERR_NO_CARD;
        if (!manager.StartCapture(c, false, kWidth, kHeight, Y16, error, &OnFrame, &channels[c],
                                  channels[c].buffer.data())) {
            std::fprintf(stderr, "StartCapture failed on channel %d\n", c);
        }
    }
}

void StopAll(PCIeDataManager& manager) {
    for (int c = 0; c < kChannels; ++c) {
        manager.StopCapture(c);
    }
}

struct RateResult {
    int rate;
    double framesPerSecond;  // all channels together
    std::uint32_t dropped;
};

RateResult RunAtRate(PCIeDataManager& manager, int rate, std::chrono::milliseconds span) {
    StartAll(manager, rate);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the rings fill and settle
    std::uint64_t before = 0;
    std::uint32_t droppedBefore = 0;
    for (int c = 0; c < kChannels; ++c) {
        before += channels[c].delivered.load();
        droppedBefore += Dropped(manager, c);
    }
    const auto start = Clock::now();
    std::this_thread::sleep_for(span);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::uint64_t after = 0;
    std::uint32_t droppedAfter = 0;
    for (int c = 0; c < kChannels; ++c) {
        after += channels[c].delivered.load();
        droppedAfter += Dropped(manager, c);
    }
    StopAll(manager);
    return {rate, double(after - before) / seconds, droppedAfter - droppedBefore};
}

// memcpy of frames as the capture path moves them: `sources` card buffers (all of them: a
// working set that no cache holds, or one: a frame that stays in the cache) into the four
// channels' host buffers in turn.
double MemcpyBytesPerSecond(int sources) {
    std::vector<char> source(kFrameBytes * sources, 1);
    std::vector<char> target(kFrameBytes * kChannels, 2);
    const auto copy = [&](int k) {
        std::memcpy(target.data() + (k % kChannels) * kFrameBytes,
                    source.data() + (k % sources) * kFrameBytes, kFrameBytes);
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    };
    for (int k = 0; k < sources + kChannels; ++k) {
        copy(k);  // every page touched once before timing
    }
    constexpr int kCopies = 512;
    const auto start = Clock::now();
    for (int k = 0; k < kCopies; ++k) {
        copy(k);
    }
    return kCopies * double(kFrameBytes) /
           std::chrono::duration<double>(Clock::now() - start).count();
}

double CpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
    // Parts to run: "throughput", "latency", "idle"; all without arguments.
    const auto wanted = [&](const char* part) {
        return kvpcie::bench::PartWanted(argc, argv, part);
    };
    PCIeDataManager manager;
    if (!kvpcie::bench::OpenSimulatedCard(manager)) {
        return 1;
    }

    // Throughput: raise the rate until the card drops frames.
    if (wanted("throughput")) {
        // The card's rings: 8 buffers on each of the 4 channels.
        const double memcpyRate = MemcpyBytesPerSecond(8 * kChannels);
        const double memcpyCachedRate = MemcpyBytesPerSecond(1);
        std::printf(
            "memcpy of %zu-byte frames from 32 card-sized buffers: %.2f GB/s; from one "
            "cached frame: %.2f GB/s\n",
            kFrameBytes, memcpyRate / 1e9, memcpyCachedRate / 1e9);
        RateResult best{0, 0, 0};
        for (int rate : {100, 250, 500, 750, 1000, 1250, 1500, 1750, 2000, 2500, 3000}) {
            const RateResult result = RunAtRate(manager, rate, std::chrono::milliseconds(1500));
            std::printf("%5d fps per channel: %8.0f frames/s delivered, %.2f GB/s, %u dropped\n",
                        rate, result.framesPerSecond, result.framesPerSecond * kFrameBytes / 1e9,
                        result.dropped);
            if (result.dropped != 0) {
                break;
            }
            best = result;
        }
        const double throughput = best.framesPerSecond * kFrameBytes;
        const double ratio = throughput / memcpyRate;
        std::printf(
            "throughput: %d fps x 4 channels with no drop, %.2f GB/s; ratio against memcpy of "
            "the rings %.3f (goal >= 0.80) %s; against a cached frame %.3f\n",
            best.rate, throughput / 1e9, ratio, ratio >= 0.8 ? "met" : "NOT MET",
            throughput / memcpyCachedRate);
        kvpcie::bench::PrintFigure("capture_vs_memcpy", ratio, ">=", 0.8);
    }

    // Latency at 100 frames per second on each channel.
    if (wanted("latency")) {
        for (Channel& channel : channels) {
            channel.latencyCount = 0;
            channel.measureLatency = true;
        }
        RunAtRate(manager, 100, std::chrono::milliseconds(5000));
        std::vector<std::int64_t> samples;
        for (Channel& channel : channels) {
            channel.measureLatency = false;
            const std::size_t count =
                std::min(channel.latencyCount.load(), channel.latencies.size());
            samples.insert(samples.end(), channel.latencies.begin(),
                           channel.latencies.begin() + count);
        }
        std::sort(samples.begin(), samples.end());
        if (!samples.empty()) {
            const double p50 = samples[samples.size() / 2] / 1e6;
            const double p99 = samples[samples.size() * 99 / 100] / 1e6;
            std::printf(
                "latency ready -> callback over %zu frames: p50 %.3f ms, p99 %.3f ms, max "
                "%.3f ms (goal p99 <= 1.5 ms) %s\n",
                samples.size(), p50, p99, samples.back() / 1e6, p99 <= 1.5 ? "met" : "NOT MET");
            kvpcie::bench::PrintFigure("capture_latency_p99", p99, "<=", 1.5, "ms");
            kvpcie::bench::PrintFigure("capture_latency_max", samples.back() / 1e6, "<=", 5.0,
                                       "ms");
        }
    }

    // CPU with four channels started and no frames.
    if (wanted("idle")) {
        StartAll(manager, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const double cpuStart = CpuSeconds();
        const auto wallStart = Clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(5));
        const double cpu = (CpuSeconds() - cpuStart) /
                           std::chrono::duration<double>(Clock::now() - wallStart).count();
        StopAll(manager);
        std::printf("CPU of four idle channels: %.2f %% of one core (goal < 3 %%) %s\n", cpu * 100,
                    cpu < 0.03 ? "met" : "NOT MET");
        kvpcie::bench::PrintFigure("capture_idle_cpu", cpu * 100, "<=", 3.0, "%core");
    }
    manager.CloseCard();
    return 0;
}
