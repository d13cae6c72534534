// The card lock lets a waiting exclusive locker in even while shared holds overlap without a gap.
#include "Common/WriterFirstSharedMutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <shared_mutex>
#include <thread>
#include <vector>

namespace kvpcie {
namespace {

using namespace std::chrono_literals;

TEST(WriterFirstSharedMutex, AWaitingWriterIsNotStarvedByOverlappingReaders) {
    WriterFirstSharedMutex mutex;
    std::atomic<bool> run{true};
    std::atomic<int> holds{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (run.load()) {
                std::shared_lock<WriterFirstSharedMutex> shared(mutex);
                ++holds;
                std::this_thread::sleep_for(1ms);  // the holds of the three readers overlap
            }
        });
    }
    while (holds.load() < 10) {
        std::this_thread::yield();
    }
    auto writer = std::async(std::launch::async, [&] {
        std::unique_lock<WriterFirstSharedMutex> exclusive(mutex);
        return holds.load();
    });
    const bool writerGotIn = writer.wait_for(5s) == std::future_status::ready;
    run = false;
    for (std::thread& reader : readers) {
        reader.join();
    }
    ASSERT_TRUE(writerGotIn);
    EXPECT_GE(writer.get(), 10);
}

TEST(WriterFirstSharedMutex, SharedHoldersRunTogetherAndExcludeTheWriter) {
    WriterFirstSharedMutex mutex;
    std::shared_lock<WriterFirstSharedMutex> first(mutex);
    auto second = std::async(std::launch::async, [&] {
        std::shared_lock<WriterFirstSharedMutex> shared(mutex);
        return true;
    });
    ASSERT_EQ(second.wait_for(2s), std::future_status::ready);
    auto writer = std::async(std::launch::async,
                             [&] { std::unique_lock<WriterFirstSharedMutex> exclusive(mutex); });
    EXPECT_EQ(writer.wait_for(50ms), std::future_status::timeout);
    first.unlock();
    EXPECT_EQ(writer.wait_for(2s), std::future_status::ready);
}

}  // namespace
}  // namespace kvpcie
