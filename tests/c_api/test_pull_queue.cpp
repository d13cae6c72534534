// The queue of a pulled channel: the newest frames kept, losses as gaps in the numbers, the
// pusher never held, and a stop that ends waiting pulls after what waited.
#include "facade/capi/PullQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace kvpcie::capi {
namespace {

using std::chrono::milliseconds;
constexpr std::size_t kBytes = 64;

std::vector<char> Frame(std::uint8_t fill) {
    return std::vector<char>(kBytes, static_cast<char>(fill));
}

struct Case {
    const char* name;
    int depth;
    int pushes;
    std::vector<std::uint64_t> pulled;  // the sequences that wait, oldest first
    std::uint64_t lost;
};

class Keeps : public ::testing::TestWithParam<Case> {};

TEST_P(Keeps, TheNewestFramesAndCountsTheRest) {
    const Case& c = GetParam();
    PullQueue queue(kBytes, c.depth);
    for (int n = 0; n < c.pushes; ++n) {
        queue.Push(Frame(static_cast<std::uint8_t>(n)).data(), n % 3 == 1);
    }
    queue.Stop();  // what waits is still handed out
    std::vector<std::uint64_t> pulled;
    std::vector<char> out(kBytes);
    PullQueue::Record record;
    while (queue.Pull(out.data(), out.size(), record, milliseconds(0)) ==
           PullQueue::Result::Frame) {
        pulled.push_back(record.sequence);
        EXPECT_EQ(out, Frame(static_cast<std::uint8_t>(record.sequence)));
        EXPECT_EQ(record.errorFrame, record.sequence % 3 == 1);
        EXPECT_GT(record.receivedNs, 0);
    }
    EXPECT_EQ(pulled, c.pulled);
    EXPECT_EQ(queue.FramesLost(), c.lost);
    EXPECT_EQ(queue.Pull(out.data(), out.size(), record, milliseconds(0)),
              PullQueue::Result::Stopped);
}

INSTANTIATE_TEST_SUITE_P(Depths, Keeps,
                         ::testing::Values(Case{"none_pushed", 2, 0, {}, 0},
                                           Case{"fewer_than_depth", 4, 3, {0, 1, 2}, 0},
                                           Case{"exactly_depth", 3, 3, {0, 1, 2}, 0},
                                           Case{"depth_one_keeps_the_last", 1, 5, {4}, 4},
                                           Case{"wraps_around", 3, 10, {7, 8, 9}, 7}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(PullQueue, TimesOutRefusesASmallBufferAndAStopEndsAWaitingPull) {
    PullQueue queue(kBytes, 2);
    std::vector<char> out(kBytes);
    PullQueue::Record record;
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(queue.Pull(out.data(), out.size(), record, milliseconds(30)),
              PullQueue::Result::Timeout);
    EXPECT_GE(std::chrono::steady_clock::now() - begun, milliseconds(30));
    queue.Push(Frame(9).data(), false);
    // A buffer too small takes nothing: the frame still waits.
    EXPECT_EQ(queue.Pull(out.data(), kBytes - 1, record, milliseconds(0)),
              PullQueue::Result::BufferTooSmall);
    ASSERT_EQ(queue.Pull(out.data(), out.size(), record, milliseconds(0)),
              PullQueue::Result::Frame);
    EXPECT_EQ(out, Frame(9));

    std::atomic<int> stopped{0};
    std::vector<std::thread> waiting;
    for (int i = 0; i < 3; ++i) {
        waiting.emplace_back([&] {
            std::vector<char> mine(kBytes);
            PullQueue::Record theirs;
            if (queue.Pull(mine.data(), mine.size(), theirs, milliseconds(-1)) ==
                PullQueue::Result::Stopped) {
                ++stopped;
            }
        });
    }
    std::this_thread::sleep_for(milliseconds(20));
    queue.Stop();
    queue.WaitForPullers();
    // A puller that had not begun its pull by the stop (a slow thread start) still gets
    // Stopped, once it calls: joined first.
    for (std::thread& thread : waiting) {
        thread.join();
    }
    EXPECT_EQ(stopped.load(), 3);
}

// Every frame reaches exactly one puller or is counted lost; pullers never hold the pusher.
TEST(PullQueue, ConcurrentPullersShareTheFramesAndLossesAddUp) {
    constexpr int kFrames = 2000;
    PullQueue queue(kBytes, 4);
    std::vector<std::vector<std::uint64_t>> seen(3);
    std::vector<std::thread> pullers;
    for (auto& mine : seen) {
        pullers.emplace_back([&queue, &mine] {
            std::vector<char> out(kBytes);
            PullQueue::Record record;
            while (queue.Pull(out.data(), out.size(), record, milliseconds(-1)) ==
                   PullQueue::Result::Frame) {
                mine.push_back(record.sequence);
                ASSERT_EQ(out, Frame(static_cast<std::uint8_t>(record.sequence)));
            }
        });
    }
    for (int n = 0; n < kFrames; ++n) {
        queue.Push(Frame(static_cast<std::uint8_t>(n)).data(), false);
        if (n % 64 == 0) {
            std::this_thread::yield();
        }
    }
    queue.Stop();
    for (std::thread& thread : pullers) {
        thread.join();
    }
    std::vector<std::uint64_t> all;
    for (const auto& mine : seen) {
        EXPECT_TRUE(std::is_sorted(mine.begin(), mine.end()));
        all.insert(all.end(), mine.begin(), mine.end());
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "a frame pulled twice";
    EXPECT_EQ(all.size() + queue.FramesLost(), static_cast<std::size_t>(kFrames));
}

}  // namespace
}  // namespace kvpcie::capi
