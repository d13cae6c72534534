// The recorder's sustained throughput with 2.6 MB frames (a producer pushing as fast as the
// queue takes them, the recorder's thread writing) against a plain sequential write of the
// same bytes to the same folder. Goal: >= 0.9.
#include "RatioReporter.h"

#include "record/RecordThread.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <chrono>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int kFrameBytes = 1280 * 1024 * 2;
constexpr int kFramesPerRun = 100;  // 262 MB a run

QTemporaryDir* scratch = nullptr;

void BM_RecorderThroughput(benchmark::State& state) {
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
                std::this_thread::yield();  // push as fast as the queue takes frames
            }
        }
        while (QFileInfo(file).size() < qint64{kFramesPerRun} * kFrameBytes) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        recorder.StopRecord();
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        QDir(recorder.TakeDir()).removeRecursively();
    }
    state.SetBytesProcessed(state.iterations() * kFramesPerRun * std::int64_t{kFrameBytes});
}
BENCHMARK(BM_RecorderThroughput)->Iterations(5)->UseManualTime();

void BM_PlainSequentialWrite(benchmark::State& state) {
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
        ::close(fd);
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        ::unlink(path.c_str());
    }
    state.SetBytesProcessed(state.iterations() * kFramesPerRun * std::int64_t{kFrameBytes});
}
BENCHMARK(BM_PlainSequentialWrite)->Iterations(5)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
    QTemporaryDir dir;
    scratch = &dir;
    benchmark::Initialize(&argc, argv);
    kvpcie::bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatio("BM_RecorderThroughput/iterations:5/manual_time",
                        "BM_PlainSequentialWrite/iterations:5/manual_time", 0.9);
    benchmark::Shutdown();
    return 0;
}
