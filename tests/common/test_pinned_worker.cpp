// Worker threads stopped from several threads at once or restarting while joined: every stop
// returns, and every core goes back once.
#include "Common/PinnedWorker.h"

#include "../support/WaitFor.h"
#include "../support/Watchdog.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace kvpcie::testing {
namespace {

// A core table that counts what is taken and given back.
class CountingCores final : public CpuCoreSource {
public:
    unsigned TakeCore() override {
        ++taken;
        return 0;
    }
    void ReturnCore(unsigned) override { ++returned; }

    std::atomic<int> taken{0};
    std::atomic<int> returned{0};
};

void Idle(const PinnedWorker& worker) {
    while (worker.IsRunning()) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

struct StopCase {
    const char* name;
    int stoppers;  // threads that stop the worker at once
    bool selfStop;  // the worker also stops itself
};

class ConcurrentStops : public ::testing::TestWithParam<StopCase> {};

TEST_P(ConcurrentStops, EveryStopReturnsAndTheCoreGoesBackOnce) {
    const StopCase& param = GetParam();
    const Watchdog watchdog(param.name, std::chrono::seconds(20));
    CountingCores cores;
    for (int round = 0; round < 50; ++round) {
        PinnedWorker worker;
        std::atomic<bool> go{false};
        worker.Start(&cores, [&] {
            if (param.selfStop) {
                while (!go) {
                    std::this_thread::yield();
                }
                worker.Stop();
            }
            Idle(worker);
        }, "test-worker");
        std::vector<std::thread> stoppers;
        for (int s = 0; s < param.stoppers; ++s) {
            stoppers.emplace_back([&] {
                while (!go) {
                    std::this_thread::yield();
                }
                worker.Stop();
                EXPECT_FALSE(worker.IsRunning());
            });
        }
        go = true;
        for (std::thread& stopper : stoppers) {
            stopper.join();
        }
    }
    EXPECT_EQ(cores.taken, 50);
    EXPECT_EQ(cores.returned, 50);
}

INSTANTIATE_TEST_SUITE_P(Stoppers, ConcurrentStops,
                         ::testing::Values(StopCase{"two stoppers", 2, false},
                                           StopCase{"four stoppers", 4, false},
                                           StopCase{"two stoppers and the worker", 2, true}),
                         [](const ::testing::TestParamInfo<StopCase>& info) {
                             return std::to_string(info.param.stoppers) + "_stoppers" +
                                    (info.param.selfStop ? "_and_the_worker" : "");
                         });

TEST(PinnedWorker, AWorkerThatStartsItselfAgainWhileJoinedStaysStopped) {
    const Watchdog watchdog("a join racing the worker's own restart", std::chrono::seconds(20));
    CountingCores cores;
    for (int round = 0; round < 50; ++round) {
        PinnedWorker worker;
        std::atomic<int> restarts{0};
        // The body stops itself and starts itself again, over and over, as a frame callback
        // that stops and restarts its channel does; it ends only once a restart is refused.
        worker.Start(&cores, [&] {
            for (;;) {
                worker.Stop();
                worker.Start(&cores, [] {}, "test-worker");
                if (!worker.IsRunning()) {
                    return;
                }
                ++restarts;
            }
        }, "test-worker");
        std::this_thread::sleep_for(std::chrono::microseconds(100 * (round % 5)));
        worker.Stop();
        EXPECT_FALSE(worker.IsRunning());
    }
    EXPECT_EQ(cores.taken, cores.returned);
}

TEST(PinnedWorker, AStopFromItsOwnBodyIsReapedByTheNextStart) {
    const Watchdog watchdog("a start after a stop from the body");
    CountingCores cores;
    PinnedWorker worker;
    std::atomic<int> runs{0};
    for (int run = 1; run <= 3; ++run) {
        worker.Start(&cores, [&] {
            ++runs;
            worker.Stop();
        }, "test-worker");
        ASSERT_TRUE(WaitFor([&] { return runs == run && !worker.IsRunning(); }));
        EXPECT_EQ(runs, run);
    }
    worker.Stop();
    EXPECT_EQ(cores.taken, 3);
    EXPECT_EQ(cores.returned, 3);
}

}  // namespace
}  // namespace kvpcie::testing
