// Capture through the facade on the simulated card, four channels:
// - throughput: the highest frame rate per channel that the host sustains with no frame
//   dropped by the card, as bytes per second against memcpy bandwidth, with
//   1280 x 1024 x 2 frames (goal >= 0.9), without and with recording; and, for information, with 8 MiB
//   frames and the bound that the engine's 1 ms pause between scans and the card's ring of
//   eight buffers set for each frame size;
// - latency from the card marking a buffer ready to the frame callback starting: four channels
//   of 1280 x 1024 (goal p99 <= 0.75 ms, max <= 2 ms) and one of 640 x 512 (p99 <= 0.25 ms),
//   with real-time polling, and the same without it for information;
// - CPU cost of four started channels with no frames arriving (goal < 3 % of one core).
// The simulated card keeps its frames as descriptions and writes the bytes in the read, so
// the host's read is the one copy, as a card's DMA engine writing host memory is.
#include "MemcpyBaseline.h"

#include "Figure.h"
#include "SimCardBench.h"
#include "ThreadCpu.h"
#include "WakeProbe.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#include <KvPCIeInjectSdk/KvPCIeStatistics.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <QCoreApplication>
#include <QDir>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr int kCard = 0;
constexpr int kChannels = 4;
constexpr int kCardBuffers = 8;

constexpr std::uint32_t ControlBlock(int channel) {
    return 0x1F1000 + static_cast<std::uint32_t>(channel) * 0x1000;
}
constexpr std::uint32_t kCtlExternalRate = 0x04;
constexpr std::uint32_t kCtlFramesDropped = 0x0C;

using Clock = std::chrono::steady_clock;

struct Geometry {
    int width;
    int height;  // Y16: two bytes a pixel
    std::size_t Bytes() const { return std::size_t(width) * std::size_t(height) * 2; }
};
constexpr Geometry kMainFrame{1280, 1024};  // 2.6 MB
constexpr Geometry kLargeFrame{2048, 2048};  // 8 MiB
constexpr Geometry kSmallFrame{640, 512};    // 655 kB

struct Channel {
    std::vector<char> buffer;
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

// Frames the channels lost: dropped by the card, and (when recording) not in the files.
std::uint64_t Lost(PCIeDataManager& manager) {
    std::uint64_t lost = 0;
    for (int c = 0; c < kChannels; ++c) {
        lost += manager.ReadReg(ControlBlock(c) + kCtlFramesDropped);
        KvCaptureStatistics statistics;
        if (manager.GetCaptureStatistics(c, statistics)) {
            lost += statistics.framesNotRecorded;
        }
    }
    return lost;
}

// Channels 0 to count - 1.
void StartAll(PCIeDataManager& manager, Geometry geometry, int rate, bool record,
              int count = kChannels) {
    for (int c = 0; c < count; ++c) {
        channels[c].buffer.resize(geometry.Bytes());
        manager.WriteReg(ControlBlock(c) + kCtlExternalRate, static_cast<unsigned>(rate));
        eErrorCode error = ERR_NO_CARD;
        if (!manager.StartCapture(c, false, geometry.width, geometry.height, Y16, error, &OnFrame,
                                  &channels[c], channels[c].buffer.data())) {
            std::fprintf(stderr, "StartCapture failed on channel %d\n", c);
        }
        if (record && !manager.StartRecord(c)) {
            std::fprintf(stderr, "StartRecord failed on channel %d\n", c);
        }
    }
}

void StopAll(PCIeDataManager& manager, bool record, int count = kChannels) {
    for (int c = 0; c < count; ++c) {
        if (record) {
            manager.StopRecord(c);
        }
        manager.StopCapture(c);
    }
    if (record) {
        // Every step's takes go: at these rates they grow by gigabytes a second.
        QDir(QCoreApplication::applicationDirPath() + "/VideoRecord").removeRecursively();
    }
}

struct RateResult {
    int rate;
    double framesPerSecond;  // all channels together
    std::uint64_t lost;
};

RateResult RunAtRate(PCIeDataManager& manager, Geometry geometry, int rate,
                     std::chrono::milliseconds span, bool record = false,
                     int count = kChannels) {
    StartAll(manager, geometry, rate, record, count);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the rings fill and settle
    std::uint64_t before = 0;
    for (const Channel& channel : channels) {
        before += channel.delivered.load();
    }
    const std::uint64_t lostBefore = Lost(manager);
    const auto start = Clock::now();
    std::this_thread::sleep_for(span);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::uint64_t after = 0;
    for (const Channel& channel : channels) {
        after += channel.delivered.load();
    }
    const std::uint64_t lost = Lost(manager) - lostBefore;
    StopAll(manager, record, count);
    return {rate, double(after - before) / seconds, lost};
}

// memcpy of frames as the capture path moves them: `sources` card buffers (all of them: a
// working set that no cache holds, or one: a frame that stays in the cache) into the four
// channels' host buffers in turn.
double MemcpyBytesPerSecond(std::size_t frameBytes, int sources) {
    std::vector<char> source(frameBytes * sources, 1);
    std::vector<char> target(frameBytes * kChannels, 2);
    const auto copy = [&](int k) {
        std::memcpy(target.data() + (k % kChannels) * frameBytes,
                    source.data() + (k % sources) * frameBytes, frameBytes);
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    };
    for (int k = 0; k < sources + kChannels; ++k) {
        copy(k);  // every page touched once before timing
    }
    const int copies = static_cast<int>(std::max<std::size_t>(64, (std::size_t{1} << 30) / frameBytes));
    const auto start = Clock::now();
    for (int k = 0; k < copies; ++k) {
        copy(k);
    }
    return copies * double(frameBytes) /
           std::chrono::duration<double>(Clock::now() - start).count();
}

// How long the polling thread's 1 ms pause really lasts here, in seconds (mean of 200).
double PauseSeconds() {
    constexpr int kPauses = 200;
    const auto start = Clock::now();
    for (int k = 0; k < kPauses; ++k) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return std::chrono::duration<double>(Clock::now() - start).count() / kPauses;
}

// The share of the copy bandwidth that one polling thread can deliver with no drop. Each pass
// over the channels takes the pause S plus the copies; a channel's next frames wait in its
// ring of B buffers until the next pass, so r x T <= B with T = S / (1 - u), u = C r t (C
// channels at r frames/s, t per frame copy). Hence u <= B C t / (S + B C t).
double ScanBound(std::size_t frameBytes, double copyBytesPerSecond, double pauseSeconds) {
    const double ringCopySeconds = kCardBuffers * kChannels * (frameBytes / copyBytesPerSecond);
    return ringCopySeconds / (pauseSeconds + ringCopySeconds);
}

double CpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Sequential writes of whole frames around the page cache into `dir`, made durable: what the
// disk under the recordings takes, in bytes per second (buffered where O_DIRECT is refused).
double DiskBytesPerSecond(const QString& dir, std::size_t frameBytes) {
    QDir().mkpath(dir);
    const std::string path = (dir + "/disk-rate.raw").toStdString();
    void* block = nullptr;
    if (posix_memalign(&block, 4096, frameBytes) != 0) {
        return 0;
    }
    std::memset(block, 5, frameBytes);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_DIRECT, 0644);
    if (fd < 0) {
        fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    }
    double rate = 0;
    if (fd >= 0) {
        const int frames = static_cast<int>((std::size_t{1} << 30) / frameBytes);
        const auto start = Clock::now();
        int written = 0;
        while (written < frames &&
               ::write(fd, block, frameBytes) == static_cast<ssize_t>(frameBytes)) {
            ++written;
        }
        ::fdatasync(fd);
        rate = written * double(frameBytes) /
               std::chrono::duration<double>(Clock::now() - start).count();
        ::close(fd);
        ::unlink(path.c_str());
    }
    std::free(block);
    return rate;
}

// Raises the rate in tenths of what `limitBytesPerSecond` would carry until the channels lose
// a frame, then narrows the step between the last rate without loss and the first with one.
// Returns the bytes per second delivered at the best rate without loss.
double HighestRateWithoutLoss(PCIeDataManager& manager, Geometry geometry, bool record,
                              double limitBytesPerSecond) {
    const std::size_t bytes = geometry.Bytes();
    const double limitRate = limitBytesPerSecond / double(bytes) / kChannels;  // a channel's
    const auto measure = [&](int rate) {
        const RateResult result =
            RunAtRate(manager, geometry, rate, std::chrono::milliseconds(1500), record);
        std::printf("  %5d fps per channel: %8.0f frames/s delivered, %.2f GB/s, %llu lost\n",
                    rate, result.framesPerSecond, result.framesPerSecond * bytes / 1e9,
                    static_cast<unsigned long long>(result.lost));
        std::fflush(stdout);
        return result;
    };
    RateResult best{0, 0, 0};
    int failed = 0;
    for (int tenth = 1; tenth <= 12; ++tenth) {
        const int rate = std::max(1, static_cast<int>(limitRate * tenth / 10));
        const RateResult result = measure(rate);
        if (result.lost != 0) {
            failed = rate;
            break;
        }
        best = result;
    }
    for (int step = 0; step < 3 && failed - best.rate > 1; ++step) {
        const int rate = (best.rate + failed) / 2;
        const RateResult result = measure(rate);
        if (result.lost != 0) {
            failed = rate;
        } else if (result.framesPerSecond > best.framesPerSecond) {
            best = result;
        }
    }
    std::printf("  best without loss: %d fps x 4 channels, %.2f GB/s\n", best.rate,
                best.framesPerSecond * bytes / 1e9);
    return best.framesPerSecond * bytes;
}

// The host's side of capture with `geometry`: delivered bytes without loss against memcpy,
// printed beside the bound of the scan.
double CaptureAgainstMemcpy(PCIeDataManager& manager, Geometry geometry, const char* label) {
    const std::size_t bytes = geometry.Bytes();
    const double memcpyRate = MemcpyBytesPerSecond(bytes, kCardBuffers * kChannels);
    const double pause = PauseSeconds();
    const double bound = ScanBound(bytes, memcpyRate, pause);
    std::printf("%s: memcpy from the 32 card buffers %.2f GB/s; the 1 ms pause lasts %.3f ms; "
                "bound of the scan %.3f\n",
                label, memcpyRate / 1e9, pause * 1e3, bound);
    const double ratio = HighestRateWithoutLoss(manager, geometry, false, memcpyRate) / memcpyRate;
    std::printf("%s: ratio against memcpy %.3f (bound %.3f)\n", label, ratio, bound);
    return ratio;
}

// Ready-to-callback latencies in nanoseconds, sorted, of `count` channels at 100 frames per
// second each, with the per-channel figures printed: a frame of a channel early in the pass
// that comes just after its scan waits for the later channels' copies as well.
std::vector<std::int64_t> MeasureLatency(PCIeDataManager& manager, Geometry geometry,
                                         int count) {
    for (int c = 0; c < count; ++c) {
        channels[c].latencyCount = 0;
        channels[c].measureLatency = true;
    }
    RunAtRate(manager, geometry, 100, std::chrono::milliseconds(5000), false, count);
    std::vector<std::int64_t> samples;
    for (int c = 0; c < count; ++c) {
        Channel& channel = channels[c];
        channel.measureLatency = false;
        const std::size_t taken = std::min(channel.latencyCount.load(), channel.latencies.size());
        std::vector<std::int64_t> own(channel.latencies.begin(),
                                      channel.latencies.begin() + static_cast<long>(taken));
        std::sort(own.begin(), own.end());
        if (!own.empty()) {
            std::printf("latency channel %d: p50 %.3f ms, p99 %.3f ms\n", c,
                        own[own.size() / 2] / 1e6, own[own.size() * 99 / 100] / 1e6);
        }
        samples.insert(samples.end(), own.begin(), own.end());
    }
    std::sort(samples.begin(), samples.end());
    return samples;
}

// Prints p50, p99 and max of `samples` (nanoseconds) as `name`_p50 (for information), `name`_p99
// and `name`_max (against the goals; for information when `op` is "info").
void ReportLatency(const std::vector<std::int64_t>& samples, const char* label,
                   const std::string& name, const char* op, double p99Goal, double maxGoal) {
    if (samples.empty()) {
        std::printf("%s: no frames\n", label);
        return;
    }
    const double p50 = samples[samples.size() / 2] / 1e6;
    const double p99 = samples[samples.size() * 99 / 100] / 1e6;
    const double max = samples.back() / 1e6;
    std::printf("%s, ready -> callback over %zu frames: p50 %.3f ms, p99 %.3f ms, max %.3f ms\n",
                label, samples.size(), p50, p99, max);
    kvpcie::bench::PrintFigure((name + "_p50").c_str(), p50, "info", 0, "ms");
    kvpcie::bench::PrintFigure((name + "_p99").c_str(), p99, op, p99Goal, "ms");
    if (maxGoal > 0) {
        kvpcie::bench::PrintFigure((name + "_max").c_str(), max, op, maxGoal, "ms");
    }
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);  // where recordings go
    // Parts to run: "throughput", "large", "recording", "latency", "idle"; all without
    // arguments.
    const auto wanted = [&](const char* part) {
        return kvpcie::bench::PartWanted(argc, argv, part);
    };
    PCIeDataManager manager;
    if (!kvpcie::bench::OpenSimulatedCard(manager)) {
        return 1;
    }

    if (wanted("throughput")) {
        const double ratio = CaptureAgainstMemcpy(manager, kMainFrame, "2.6 MB frames");
        kvpcie::bench::PrintFigure("capture_vs_memcpy", ratio, ">=", 0.9);
        const double memcpyRate = MemcpyBytesPerSecond(kMainFrame.Bytes(), 32);
        kvpcie::bench::PrintFigure("capture_scan_bound",
                                   ScanBound(kMainFrame.Bytes(), memcpyRate, PauseSeconds()),
                                   "info", 0.8);
    }
    if (wanted("large")) {
        const double ratio = CaptureAgainstMemcpy(manager, kLargeFrame, "8 MiB frames");
        kvpcie::bench::PrintFigure("capture_8mib_vs_memcpy", ratio, "info", 0.8);
    }
    if (wanted("recording")) {
        // Four recorders write what the channels deliver: the disk sets the pace, so the rate
        // is held to what the disk takes in the same run.
        const QString dir = QCoreApplication::applicationDirPath() + "/VideoRecord";
        const double disk = DiskBytesPerSecond(dir, kMainFrame.Bytes());
        const double memcpyRate = MemcpyBytesPerSecond(kMainFrame.Bytes(), 32);
        std::printf("2.6 MB frames, recording: the disk takes %.2f GB/s, memcpy %.2f GB/s\n",
                    disk / 1e9, memcpyRate / 1e9);
        const double recorded = HighestRateWithoutLoss(manager, kMainFrame, true, disk);
        std::printf("2.6 MB frames, recording: %.3f of the disk, %.3f of memcpy\n",
                    recorded / disk, recorded / memcpyRate);
        kvpcie::bench::PrintFigure("capture_recording_vs_disk", recorded / disk, ">=", 0.8);
        kvpcie::bench::PrintFigure("capture_recording_vs_memcpy", recorded / memcpyRate, "info",
                                   0.8);
    }

    // Latency at 100 frames per second on each channel: four channels of the main frames,
    // and one channel of 640 x 512 frames, whose copy leaves the wake-ups as the cost. The
    // goals are the low-latency setting's (KVPCIE_REALTIME_POLLING=1, read when the card
    // opens); the default's figures are shown beside them.
    if (wanted("latency")) {
        ReportLatency(MeasureLatency(manager, kMainFrame, kChannels),
                      "default: 4 x 2.6 MB at 100 fps", "capture_latency_default", "info", 0.75,
                      2.0);
        ReportLatency(MeasureLatency(manager, kSmallFrame, 1), "default: 1 x 640 x 512 at 100 fps",
                      "capture_latency_one_channel_default", "info", 0.25, 0);
        if (!kvpcie::bench::ReopenWithLowLatency(manager)) {
            return 1;
        }
        std::vector<std::int64_t> samples;
        double machineStallMs = 0;
        bool probeRealTime = false;
        {
            // On the polling thread's core (the first of the core table).
            const kvpcie::bench::WakeProbe probe(0);
            samples = MeasureLatency(manager, kMainFrame, kChannels);
            machineStallMs = probe.WorstLateMs();
            probeRealTime = probe.RealTime();
        }
        ReportLatency(samples, "real-time polling: 4 x 2.6 MB at 100 fps", "capture_latency",
                      "<=", 0.75, 2.0);
        std::printf(
            "meanwhile a thread above the library's priority on core 0 woke up to %.3f "
            "ms late%s\n",
            machineStallMs, probeRealTime ? "" : " (at a normal priority: refused)");
        kvpcie::bench::PrintFigure("capture_latency_machine_stall_max", machineStallMs, "info", 0,
                                   "ms");
        ReportLatency(MeasureLatency(manager, kSmallFrame, 1),
                      "real-time polling: 1 x 640 x 512 at 100 fps", "capture_latency_one_channel",
                      "<=", 0.25, 0);
    }

    // CPU with four channels started and no frames.
    if (wanted("idle")) {
        StartAll(manager, kMainFrame, 0, false);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const double cpuStart = CpuSeconds();
        const double eventStart = kvpcie::bench::NamedThreadsCpuSeconds("kvpcie-event");
        const auto wallStart = Clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(5));
        const double wall = std::chrono::duration<double>(Clock::now() - wallStart).count();
        const double cpu = (CpuSeconds() - cpuStart) / wall;
        // The four event threads each wait in one pending read of the card's event file.
        const double eventCpu =
            (kvpcie::bench::NamedThreadsCpuSeconds("kvpcie-event") - eventStart) / wall;
        std::printf("CPU of the four idle event threads: %.3f %% of one core\n", eventCpu * 100);
        kvpcie::bench::PrintFigure("capture_event_threads_idle_cpu", eventCpu * 100, "info", 0,
                                   "%core");
        StopAll(manager, false);
        std::printf("CPU of four idle channels: %.2f %% of one core (goal < 3 %%) %s\n", cpu * 100,
                    cpu < 0.03 ? "met" : "NOT MET");
        kvpcie::bench::PrintFigure("capture_idle_cpu", cpu * 100, "<=", 3.0, "%core");
    }
    manager.CloseCard();
    return 0;
}
