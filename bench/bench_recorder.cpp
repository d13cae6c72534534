// The recorder's sustained throughput with 2.6 MB frames (a producer pushing as fast as the
// queue takes them, the recorder's thread writing) against a plain sequential write of the
// same bytes to the same folder. Goal: >= 0.9.
//
// "Sustained" means on the disk: a recording outgrows the page cache within seconds, after
// which the kernel holds every writer to the disk's pace. The main pair therefore ends each
// run when its bytes are durable (fdatasync), for the recorder and the plain write alike. The
// pair without the sync, for information, shows the memory-bound cost of the copy into the
// queue when the page cache absorbs everything.
//
// The recorder writes around the page cache where it can (whole-page frames on Linux). For
// information, a plain write that does the same (O_DIRECT) shows what the disk allows that way.
#include "RatioReporter.h"

#include "record/RecordThread.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int kFrameBytes = 1280 * 1024 * 2;
constexpr int kFramesPerRun = 100;  // 262 MB a run

QTemporaryDir* scratch = nullptr;

bool SyncFile(const QString& path) {
    const int fd = ::open(path.toLocal8Bit().constData(), O_WRONLY);
    const bool synced = fd >= 0 && ::fdatasync(fd) == 0;
    if (fd >= 0) {
        ::close(fd);
    }
    return synced;
}

// The end of a run that wrote `fd` itself: sync when durable, close, time, remove the file.
void EndFileRun(benchmark::State& state, int fd, bool durable,
                std::chrono::steady_clock::time_point start, const std::string& path) {
    if (durable && ::fdatasync(fd) != 0) {
        state.SkipWithError("fdatasync failed");
    }
    ::close(fd);
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    ::unlink(path.c_str());
}

void BM_Recorder(benchmark::State& state) {
    const bool durable = state.range(0) != 0;
    KvFrameFormat format;
    format.width = 1280;
    format.height = 1024;
    format.pixelType = Y16;
    std::vector<char> frame(kFrameBytes, 3);
    // One recorder for every run, as a capture channel keeps its recorder across takes.
    kvpcie::RecordThread recorder(format);
    recorder.SetFrameSize(kFrameBytes);
    recorder.SetRecordDir(scratch->path() + "/recorder");
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        recorder.StartRecord();
        const QString file = recorder.TakeDir() + "/" + kvpcie::RecordThread::FileName(format, 0);
        for (int n = 0; n < kFramesPerRun;) {
            if (recorder.PushFrame(frame.data())) {
                ++n;
            } else {
                // Full: wait a little rather than spin on a core that the writer may need.
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        }
        while (QFileInfo(file).size() < qint64{kFramesPerRun} * kFrameBytes) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        if (durable && !SyncFile(file)) {
            state.SkipWithError("fdatasync failed");
        }
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        recorder.StopRecord();
        QDir(recorder.TakeDir()).removeRecursively();
    }
    state.SetBytesProcessed(state.iterations() * kFramesPerRun * std::int64_t{kFrameBytes});
}
BENCHMARK(BM_Recorder)->Arg(1)->Arg(0)->ArgName("durable")->Iterations(20)->UseManualTime();

void BM_PlainWrite(benchmark::State& state) {
    const bool durable = state.range(0) != 0;
    std::vector<char> frame(kFrameBytes, 3);
    const std::string path = (scratch->path() + "/plain.raw").toStdString();
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
        for (int n = 0; n < kFramesPerRun; ++n) {
            if (::write(fd, frame.data(), kFrameBytes) != kFrameBytes) {
                state.SkipWithError("write failed");
                break;
            }
        }
        EndFileRun(state, fd, durable, start, path);
    }
    state.SetBytesProcessed(state.iterations() * kFramesPerRun * std::int64_t{kFrameBytes});
}
BENCHMARK(BM_PlainWrite)->Arg(1)->Arg(0)->ArgName("durable")->Iterations(20)->UseManualTime();

void BM_PlainDirectWrite(benchmark::State& state) {
    void* block = nullptr;
    if (posix_memalign(&block, 4096, kFrameBytes) != 0) {
        state.SkipWithError("no memory");
        return;
    }
    std::unique_ptr<void, decltype(&std::free)> frame(block, &std::free);
    std::memset(block, 3, kFrameBytes);
    const std::string path = (scratch->path() + "/direct.raw").toStdString();
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        const int fd =
            ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_DIRECT, 0644);
        if (fd < 0) {
            state.SkipWithError("this file system has no O_DIRECT");
            break;
        }
        for (int n = 0; n < kFramesPerRun; ++n) {
            if (::write(fd, block, kFrameBytes) != kFrameBytes) {
                state.SkipWithError("write failed");
                break;
            }
        }
        EndFileRun(state, fd, true, start, path);
    }
    state.SetBytesProcessed(state.iterations() * kFramesPerRun * std::int64_t{kFrameBytes});
}
BENCHMARK(BM_PlainDirectWrite)->Iterations(20)->UseManualTime();

// For reference: the least that copy-into-a-ring-then-write can cost. One producer copies into
// 16 slots, one consumer writes from them, with no lock, no Qt and no polling sleep. What the
// recorder loses against the plain write beyond this pair is its own overhead.
void BM_BareRingPipeline(benchmark::State& state) {
    const bool durable = state.range(0) != 0;
    constexpr int kSlots = 16;
    std::vector<char> frame(kFrameBytes, 3);
    std::vector<char> ring(std::size_t{kSlots} * kFrameBytes, 0);
    const std::string path = (scratch->path() + "/ring.raw").toStdString();
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
        std::atomic<int> head{0};
        std::atomic<int> tail{0};
        std::thread writer([&] {
            for (int n = 0; n < kFramesPerRun;) {
                const int slot = head.load(std::memory_order_acquire);
                if (slot == tail.load(std::memory_order_acquire)) {
                    std::this_thread::sleep_for(std::chrono::microseconds(50));
                    continue;
                }
                if (::write(fd, ring.data() + std::size_t(slot) * kFrameBytes, kFrameBytes) !=
                    kFrameBytes) {
                    break;
                }
                head.store((slot + 1) % kSlots, std::memory_order_release);
                ++n;
            }
        });
        for (int n = 0; n < kFramesPerRun;) {
            const int slot = tail.load(std::memory_order_acquire);
            if ((slot + 1) % kSlots == head.load(std::memory_order_acquire)) {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
                continue;
            }
            std::memcpy(ring.data() + std::size_t(slot) * kFrameBytes, frame.data(), kFrameBytes);
            tail.store((slot + 1) % kSlots, std::memory_order_release);
            ++n;
        }
        writer.join();
        EndFileRun(state, fd, durable, start, path);
    }
    state.SetBytesProcessed(state.iterations() * kFramesPerRun * std::int64_t{kFrameBytes});
}
BENCHMARK(BM_BareRingPipeline)->Arg(1)->Arg(0)->ArgName("durable")->Iterations(20)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
    QTemporaryDir dir;
    scratch = &dir;
    benchmark::Initialize(&argc, argv);
    kvpcie::bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatio("BM_Recorder/durable:1/iterations:20/manual_time",
                        "BM_PlainWrite/durable:1/iterations:20/manual_time", 0.9,
                        "recorder_vs_plain_write");
    reporter.PrintRatio("BM_Recorder/durable:1/iterations:20/manual_time",
                        "BM_PlainDirectWrite/iterations:20/manual_time", 0.9, nullptr);
    reporter.PrintRatio("BM_BareRingPipeline/durable:1/iterations:20/manual_time",
                        "BM_PlainWrite/durable:1/iterations:20/manual_time", 0.9, nullptr);
    benchmark::Shutdown();
    return 0;
}
