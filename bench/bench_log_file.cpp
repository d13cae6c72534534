// What a WriteLog call costs its caller, from one and from four threads, against spdlog's
// asynchronous logger doing the same: both format a line, stamp it and queue it for a writer
// thread. Goal: no slower than spdlog.
#include "RatioReporter.h"

#include "Common/LogFile.h"

#include <QDir>
#include <QTemporaryDir>

#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <memory>

namespace {

// Fixed so that neither queue runs full: the callers' cost is measured, not the disk's.
constexpr int kCallsPerThread = 200000;

kvpcie::LogFile* ourLog = nullptr;
std::shared_ptr<spdlog::logger> spdlogLog;

// How the engines log: a finished line of text (built from a QString) as the format.
const char kFinishedLine[] = "采集卡端口：  2  开始读取 Buff 5的数据";

void BM_WriteLog(benchmark::State& state) {
    for (auto _ : state) {
        ourLog->WriteLog(kFinishedLine);
    }
}
BENCHMARK(BM_WriteLog)->Iterations(kCallsPerThread)->Threads(1)->Threads(4)->UseRealTime();

void BM_SpdlogAsync(benchmark::State& state) {
    for (auto _ : state) {
        spdlogLog->info(kFinishedLine);
    }
}
BENCHMARK(BM_SpdlogAsync)->Iterations(kCallsPerThread)->Threads(1)->Threads(4)->UseRealTime();

// For information: the same line formatted by each logger from its arguments.
void BM_WriteLogFormatted(benchmark::State& state) {
    int buffer = 0;
    for (auto _ : state) {
        ourLog->WriteLog("采集卡端口：  %d  开始读取 Buff %d的数据", state.thread_index(),
                         ++buffer & 7);
    }
}
BENCHMARK(BM_WriteLogFormatted)->Iterations(kCallsPerThread)->Threads(1)->UseRealTime();

void BM_SpdlogAsyncFormatted(benchmark::State& state) {
    int buffer = 0;
    for (auto _ : state) {
        spdlogLog->info("采集卡端口：  {}  开始读取 Buff {}的数据", state.thread_index(),
                        ++buffer & 7);
    }
}
BENCHMARK(BM_SpdlogAsyncFormatted)->Iterations(kCallsPerThread)->Threads(1)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    QTemporaryDir scratch;
    QDir::setCurrent(scratch.path());  // ./Log/... lands in the scratch folder

    kvpcie::LogFile log("Bench_WriteLog");
    log.StartLog();
    ourLog = &log;
    spdlog::init_thread_pool(1 << 21, 1);
    spdlogLog = spdlog::basic_logger_mt<spdlog::async_factory>(
        "bench", (scratch.path() + "/spdlog.txt").toStdString());
    spdlogLog->set_pattern("%Y_%m_%d_%H_%M_%S_%e:%v");  // the same stamp as ours

    benchmark::Initialize(&argc, argv);
    kvpcie::bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatio("BM_WriteLog/iterations:200000/real_time/threads:1",
                        "BM_SpdlogAsync/iterations:200000/real_time/threads:1", 1.0,
                        "writelog_vs_spdlog_1_thread");
    reporter.PrintRatio("BM_WriteLog/iterations:200000/real_time/threads:4",
                        "BM_SpdlogAsync/iterations:200000/real_time/threads:4", 1.0,
                        "writelog_vs_spdlog_4_threads");
    log.StopLog();
    spdlog::shutdown();
    benchmark::Shutdown();
    return 0;
}
