// Throughput through the driver model: the first XDMA card that the Linux backend lists (run it
// with KVPCIE_LINUX_ROOT pointing at a kvpcie-simd, as bench/driver-model.sh does), through the
// public API. Every transfer crosses the kernel's FUSE channel to the model's process and back,
// so these are figures for information, not goals: DMA read and write rates of 2.6 MB blocks,
// one channel's ready -> callback latency, and the highest capture and inject frame rates of
// one channel without a loss.
#include "Figure.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <QCoreApplication>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kWidth = 1280;
constexpr int kHeight = 1024;
constexpr std::size_t kFrameBytes = std::size_t{kWidth} * kHeight * 2;
constexpr std::uint32_t kControlBlock = 0x1F1000;  // channel 0's
constexpr std::uint32_t kCtlExternalRate = 0x04;
constexpr std::uint32_t kCtlFramesDropped = 0x0C;
constexpr std::uint32_t kCtlUnderruns = 0x14;
constexpr int kRates[] = {25, 100, 200, 400, 600, 800, 1200, 1600};

double Seconds(Clock::duration span) {
    return std::chrono::duration<double>(span).count();
}

double DmaRate(PCIeDataManager& manager, bool toCard) {
    std::vector<unsigned char> block(kFrameBytes, 0x5A);
    constexpr int kBlocks = 40;
    const auto start = Clock::now();
    for (int k = 0; k < kBlocks; ++k) {
        const unsigned address = 0x40000000u + static_cast<unsigned>(k % 8) * 0x1400000u;
        const bool ok = toCard ? manager.WriteData(address, block.size(), block.data())
                               : manager.ReadData(address, block.size(), block.data());
        if (!ok) {
            return 0;
        }
    }
    return kBlocks * double(kFrameBytes) / Seconds(Clock::now() - start);
}

std::atomic<std::uint64_t> delivered{0};
void OnFrame(int, const char*, void*) {
    delivered.fetch_add(1, std::memory_order_relaxed);
}

// One channel at `rate` for 2 s: frames delivered per second, and whether the card dropped one.
bool CaptureAt(PCIeDataManager& manager, int rate, std::vector<char>& buffer, double& fps) {
    manager.WriteReg(kControlBlock + kCtlExternalRate, static_cast<unsigned>(rate));
    eErrorCode error = ERR_NONE;
    if (!manager.StartCapture(0, false, kWidth, kHeight, Y16, error, &OnFrame, nullptr,
                              buffer.data())) {
        return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const std::uint64_t before = delivered.load();
    const unsigned droppedBefore = manager.ReadReg(kControlBlock + kCtlFramesDropped);
    const auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    fps = (delivered.load() - before) / Seconds(Clock::now() - start);
    const bool lost = manager.ReadReg(kControlBlock + kCtlFramesDropped) != droppedBefore;
    manager.StopCapture(0);
    return !lost;
}

// Ready -> callback through the model: the card keeps each frame's ready time, which the
// callback reads through the registers at once (the card keeps the last 64).
struct LatencyRun {
    PCIeDataManager* manager = nullptr;
    std::uint32_t frames = 0;
    std::vector<double> millis;
};

void OnTimedFrame(int channel, const char*, void* context) {
    const auto now = Clock::now().time_since_epoch();
    auto& run = *static_cast<LatencyRun*>(context);
    const std::uint32_t number = run.frames++;
    if (run.millis.size() == run.millis.capacity()) {
        return;
    }
    const unsigned block = kControlBlock + static_cast<unsigned>(channel) * 0x1000;
    run.manager->WriteReg(block + KvPCIeSim::kCtlReadyTimeFrame, static_cast<int>(number));
    const std::uint64_t low = run.manager->ReadReg(block + KvPCIeSim::kCtlReadyTimeLow);
    const std::uint64_t high = run.manager->ReadReg(block + KvPCIeSim::kCtlReadyTimeHigh);
    const auto ready = static_cast<std::int64_t>(high << 32 | low);
    if (ready != 0) {
        const auto nanos = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
        run.millis.push_back((nanos - ready) / 1e6);
    }
}

// One channel of 640 x 512 Y16 at 100 fps for 3 s: p50 and p99 of ready -> callback, in ms.
bool MeasureLatency(PCIeDataManager& manager, double& p50, double& p99) {
    constexpr int kLatencyWidth = 640;
    constexpr int kLatencyHeight = 512;
    std::vector<char> buffer(std::size_t{kLatencyWidth} * kLatencyHeight * 2);
    LatencyRun run;
    run.manager = &manager;
    run.millis.reserve(400);
    manager.WriteReg(kControlBlock + kCtlExternalRate, 100);
    eErrorCode error = ERR_NONE;
    if (!manager.StartCapture(0, false, kLatencyWidth, kLatencyHeight, Y16, error,
                              &OnTimedFrame, &run, buffer.data())) {
        return false;
    }
    std::this_thread::sleep_for(std::chrono::seconds(3));
    manager.StopCapture(0);
    if (run.millis.size() < 100) {
        return false;
    }
    std::sort(run.millis.begin(), run.millis.end());
    p50 = run.millis[run.millis.size() / 2];
    p99 = run.millis[run.millis.size() * 99 / 100];
    return true;
}

// One channel at `rate` for 2 s, the queue kept full; whether the card ran out of frames.
bool InjectAt(PCIeDataManager& manager, int rate, std::vector<char>& frame) {
    eErrorCode error = ERR_NONE;
    const auto offerFor = [&](Clock::duration span) {
        const auto end = Clock::now() + span;
        while (Clock::now() < end) {
            if (!manager.StartInject(0, rate, kWidth, kHeight, Y16, 0, frame.data(), error)) {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        }
    };
    offerFor(std::chrono::milliseconds(500));  // the card's ring fills and goes round
    const unsigned before = manager.ReadReg(kControlBlock + kCtlUnderruns);
    offerFor(std::chrono::seconds(2));
    const bool underrun = manager.ReadReg(kControlBlock + kCtlUnderruns) != before;
    manager.StopInject(0);
    return !underrun;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    if (std::getenv("KVPCIE_LINUX_ROOT") == nullptr) {
        std::fprintf(stderr,
                     "bench_driver_model: set KVPCIE_LINUX_ROOT to a kvpcie-simd's "
                     "directory (bench/driver-model.sh does)\n");
        return 2;
    }
    PCIeDataManager manager;
    char* paths[4] = {};
    const int count = manager.GetDevices(paths);
    const bool opened = count > 0 && manager.OpenCard(paths[0]);
    for (char* path : paths) {
        std::free(path);
    }
    if (!opened) {
        std::fprintf(stderr, "bench_driver_model: no card to open under KVPCIE_LINUX_ROOT\n");
        return 1;
    }
    const double read = DmaRate(manager, false);
    const double write = DmaRate(manager, true);
    std::printf("DMA through the model, 2.6 MB blocks: read %.2f GB/s, write %.2f GB/s\n",
                read / 1e9, write / 1e9);
    kvpcie::bench::PrintFigure("model_dma_read", read / 1e9, "info", 0, "GB/s");
    kvpcie::bench::PrintFigure("model_dma_write", write / 1e9, "info", 0, "GB/s");

    double p50 = 0;
    double p99 = 0;
    if (MeasureLatency(manager, p50, p99)) {
        std::printf("one channel of 640 x 512 Y16 at 100 fps through the model: ready -> "
                    "callback p50 %.3f ms, p99 %.3f ms\n", p50, p99);
        kvpcie::bench::PrintFigure("model_capture_latency_p50", p50, "info", 0, "ms");
        kvpcie::bench::PrintFigure("model_capture_latency_p99", p99, "info", 0, "ms");
    } else {
        std::printf("no latency figure: the card gave too few frames or no ready times\n");
    }

    std::vector<char> buffer(kFrameBytes);
    int captureBest = 0;
    double captureFps = 0;
    for (int rate : kRates) {
        double fps = 0;
        const bool clean = CaptureAt(manager, rate, buffer, fps);
        std::printf("  capture %4d fps asked: %7.1f delivered, %s\n", rate, fps,
                    clean ? "no drop" : "dropped");
        if (!clean) {
            break;
        }
        captureBest = rate;
        captureFps = fps;
    }
    int injectBest = 0;
    for (int rate : kRates) {
        const bool clean = InjectAt(manager, rate, buffer);
        std::printf("  inject %4d fps: %s\n", rate, clean ? "no underrun" : "underruns");
        if (!clean) {
            break;
        }
        injectBest = rate;
    }
    std::printf(
        "one channel of 2.6 MB frames through the model: capture %d fps (%.2f GB/s) "
        "without a drop, inject %d fps without an underrun\n",
        captureBest, captureFps * kFrameBytes / 1e9, injectBest);
    kvpcie::bench::PrintFigure("model_capture_fps", captureBest, "info", 0, "fps");
    kvpcie::bench::PrintFigure("model_inject_fps", injectBest, "info", 0, "fps");
    manager.CloseCard();
    return 0;
}
