// What a WriteLog call costs its caller, from one and from four threads, against spdlog's
// asynchronous logger doing the same: both format a line, stamp it and queue it for a writer
// thread. Goal: no slower than spdlog.
//
// Each figure is the median of ten repetitions, and every repetition starts with both writer
// threads idle: a backlog that one logger's writer still works through would take CPU from
// the callers of the other.
#include "RatioReporter.h"

#include "Common/LogFile.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

namespace {

// Few enough that neither queue runs full (4 x 20,000 lines are about 6 MB, below our log's
// 8 MiB bound): the callers' cost is measured, not the disk's.
constexpr int kCallsPerThread = 20000;
constexpr int kRepetitions = 10;

kvpcie::LogFile* ourLog = nullptr;
std::shared_ptr<spdlog::logger> spdlogLog;

// How the engines log: a finished line of text (built from a QString) as the format.
const char kFinishedLine[] = "采集卡端口：  2  开始读取 Buff 5的数据";

QString ourFolder;
QString spdlogFile;

qint64 WrittenBytes() {
    qint64 bytes = QFileInfo(spdlogFile).size();
    for (const QFileInfo& file : QDir(ourFolder).entryInfoList(QDir::Files)) {
        bytes += file.size();
    }
    return bytes;
}

// Untimed: both queues empty and both files unchanged for 20 ms.
void WaitUntilWritersIdle() {
    qint64 last = -1;
    for (int steady = 0; steady < 4;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const qint64 now = WrittenBytes();
        const bool empty = ourLog->QueuedBytes() == 0 && spdlog::thread_pool()->queue_size() == 0;
        steady = empty && now == last ? steady + 1 : 0;
        last = now;
    }
}

void BM_WriteLog(benchmark::State& state) {
    WaitUntilWritersIdle();
    for (auto _ : state) {
        ourLog->WriteLog(kFinishedLine);
    }
}
BENCHMARK(BM_WriteLog)
    ->Iterations(kCallsPerThread)
    ->Repetitions(kRepetitions)
    ->Threads(1)
    ->UseRealTime();

void BM_SpdlogAsync(benchmark::State& state) {
    WaitUntilWritersIdle();
    for (auto _ : state) {
        spdlogLog->info(kFinishedLine);
    }
}
BENCHMARK(BM_SpdlogAsync)
    ->Iterations(kCallsPerThread)
    ->Repetitions(kRepetitions)
    ->Threads(1)
    ->UseRealTime();

// For information: the same line formatted by each logger from its arguments.
void BM_WriteLogFormatted(benchmark::State& state) {
    int buffer = 0;
    WaitUntilWritersIdle();
    for (auto _ : state) {
        ourLog->WriteLog("采集卡端口：  %d  开始读取 Buff %d的数据", state.thread_index(),
                         ++buffer & 7);
    }
}
BENCHMARK(BM_WriteLogFormatted)->Iterations(kCallsPerThread)->Threads(1)->UseRealTime();

void BM_SpdlogAsyncFormatted(benchmark::State& state) {
    int buffer = 0;
    WaitUntilWritersIdle();
    for (auto _ : state) {
        spdlogLog->info("采集卡端口：  {}  开始读取 Buff {}的数据", state.thread_index(),
                        ++buffer & 7);
    }
}
BENCHMARK(BM_SpdlogAsyncFormatted)->Iterations(kCallsPerThread)->Threads(1)->UseRealTime();

// Four threads calling at once: the wall time from a common start until the last of them is
// done, per call of all four (Google Benchmark averages each thread's own time instead, which
// on two cores depends on how staggered the threads happen to start). The median of
// kRepetitions, each after both writers went idle.
template <typename Call>
double FourThreadNanosPerCall(Call call) {
    constexpr int kThreads = 4;
    std::vector<double> samples;
    for (int repetition = 0; repetition < kRepetitions; ++repetition) {
        WaitUntilWritersIdle();
        std::atomic<int> ready{0};
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&] {
                ready.fetch_add(1);
                while (!go.load(std::memory_order_acquire)) {
                    std::this_thread::yield();
                }
                for (int k = 0; k < kCallsPerThread; ++k) {
                    call();
                }
            });
        }
        while (ready.load() != kThreads) {
            std::this_thread::yield();
        }
        const auto start = std::chrono::steady_clock::now();
        go.store(true, std::memory_order_release);
        for (std::thread& thread : threads) {
            thread.join();
        }
        samples.push_back(
            std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
                .count() /
            (kThreads * kCallsPerThread));
    }
    std::sort(samples.begin(), samples.end());
    return (samples[kRepetitions / 2 - 1] + samples[kRepetitions / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
    QTemporaryDir scratch;
    QDir::setCurrent(scratch.path());  // ./Log/... lands in the scratch folder

    kvpcie::LogFile log("Bench_WriteLog");
    log.StartLog();
    ourLog = &log;
    spdlog::init_thread_pool(1 << 21, 1);
    spdlogFile = scratch.path() + "/spdlog.txt";
    ourFolder = scratch.path() + "/Log/Bench_WriteLog";
    spdlogLog = spdlog::basic_logger_mt<spdlog::async_factory>("bench", spdlogFile.toStdString());
    spdlogLog->set_pattern("%Y_%m_%d_%H_%M_%S_%e:%v");  // the same stamp as ours

    // Both loggers reach their steady state first: our queue's two buffers grow to what a
    // repetition queues, spdlog's ring has its slots touched.
    for (int k = 0; k < 4 * kCallsPerThread; ++k) {
        log.WriteLog(kFinishedLine);
        spdlogLog->info(kFinishedLine);
    }

    benchmark::Initialize(&argc, argv);
    kvpcie::bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatio("BM_WriteLog/iterations:20000/repeats:10/real_time/threads:1_median",
                        "BM_SpdlogAsync/iterations:20000/repeats:10/real_time/threads:1_median",
                        1.0, "writelog_vs_spdlog_1_thread");
    const double ours = FourThreadNanosPerCall([] { ourLog->WriteLog(kFinishedLine); });
    const double theirs = FourThreadNanosPerCall([] { spdlogLog->info(kFinishedLine); });
    std::printf("4 threads at once, wall time per call: WriteLog %.1f ns, spdlog async %.1f ns; "
                "ratio %.3f (goal >= 1.00) %s\n",
                ours, theirs, theirs / ours, theirs / ours >= 1.0 ? "met" : "NOT MET");
    kvpcie::bench::PrintFigure("writelog_vs_spdlog_4_threads", theirs / ours, ">=", 1.0);
    if (log.DroppedLines() != 0) {
        std::printf("our log dropped %llu lines: the figures above are not comparable\n",
                    static_cast<unsigned long long>(log.DroppedLines()));
    }
    log.StopLog();
    spdlog::shutdown();
    benchmark::Shutdown();
    return 0;
}
