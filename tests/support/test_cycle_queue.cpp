// The frame ring: its bounds, refused input, wrap-around, and a producer and a consumer.
#include "Common/KvCycleQueue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

namespace kvpcie {
namespace {

std::vector<char> Frame(int size, char fill) {
    return std::vector<char>(size, fill);
}

TEST(KvCycleQueue, InitRefusesBadSizesAndDefaultsTheCount) {
    KvCycleQueue queue;
    int full = 0;
    const std::vector<char> frame = Frame(8, 1);
    ASSERT_TRUE(queue.Init(8, 0));
    for (int i = 0; i < 15; ++i) {
        ASSERT_TRUE(queue.Push(frame.data(), 8, full));
    }
    EXPECT_FALSE(queue.Push(frame.data(), 8, full)) << "count 0 gives 16 slots";
    ASSERT_TRUE(queue.Init(8, -3));
    EXPECT_EQ(queue.Size(), 0);

    EXPECT_FALSE(queue.Init(0, 16));
    EXPECT_FALSE(queue.Push(frame.data(), 0, full)) << "no buffer after a refused Init";
    EXPECT_EQ(queue.PopPtr(), nullptr);
    EXPECT_TRUE(queue.IsEmpty());
    EXPECT_FALSE(queue.Init(-1, 16));
    EXPECT_FALSE(queue.Init(134217728, 16)) << "16 slots of 128 MiB overflow 32 bits";
    EXPECT_FALSE(queue.Init(1 << 30, 3));
}

TEST(KvCycleQueue, APushOfTheWrongSizeOrWithoutDataIsRefusedAndLeavesFullAlone) {
    KvCycleQueue queue;
    ASSERT_TRUE(queue.Init(100, 4));
    const std::vector<char> frame = Frame(101, 2);
    int full = 7;
    EXPECT_FALSE(queue.Push(frame.data(), 99, full));
    EXPECT_FALSE(queue.Push(frame.data(), 101, full));
    EXPECT_FALSE(queue.Push(nullptr, 100, full));
    EXPECT_EQ(full, 7);
    EXPECT_EQ(queue.Size(), 0);
}

TEST(KvCycleQueue, ThePoppedSlotStaysIntactWhileTheProducerRefills) {
    KvCycleQueue queue;
    ASSERT_TRUE(queue.Init(32, 16));
    int full = 7;
    for (char i = 0; i < 15; ++i) {
        ASSERT_TRUE(queue.Push(Frame(32, i).data(), 32, full));
        EXPECT_EQ(full, 0);
    }
    EXPECT_EQ(queue.Size(), 15);  // one slot less than it has
    const char* oldest = queue.PopPtr();
    ASSERT_NE(oldest, nullptr);
    EXPECT_TRUE(queue.Push(Frame(32, 'x').data(), 32, full));
    EXPECT_FALSE(queue.Push(Frame(32, 'y').data(), 32, full));
    EXPECT_EQ(full, 1);
    EXPECT_EQ(std::vector<char>(oldest, oldest + 32), Frame(32, 0));
}

TEST(KvCycleQueue, WrapsAroundInPushOrder) {
    KvCycleQueue queue;
    ASSERT_TRUE(queue.Init(4, 4));
    int full = 0;
    for (int i = 0; i < 12; ++i) {
        ASSERT_TRUE(queue.Push(reinterpret_cast<const char*>(&i), 4, full));
        if (i % 3 == 2) {  // take in bursts so that head and tail both wrap
            for (int expected = i - 2; expected <= i; ++expected) {
                const char* slot = queue.PopPtr();
                ASSERT_NE(slot, nullptr);
                int value;
                std::memcpy(&value, slot, 4);
                EXPECT_EQ(value, expected);
            }
        }
    }
    EXPECT_EQ(queue.Size(), 0);
    ASSERT_TRUE(queue.Push(reinterpret_cast<const char*>(&full), 4, full));
    queue.Reset();
    EXPECT_TRUE(queue.IsEmpty());
}

TEST(KvCycleQueue, OneProducerAndOneConsumerPassEveryFrameInOrder) {
    KvCycleQueue queue;
    ASSERT_TRUE(queue.Init(4096, 4));
    constexpr int kFrames = 5000;
    std::thread producer([&] {
        std::vector<char> frame(4096);
        for (int n = 0; n < kFrames;) {
            std::memset(frame.data(), n & 0xFF, frame.size());
            std::memcpy(frame.data(), &n, sizeof n);
            int full = 0;
            if (queue.Push(frame.data(), 4096, full)) {
                ++n;
            } else {
                std::this_thread::yield();
            }
        }
    });
    int received = 0;
    bool intact = true;
    while (received < kFrames) {
        const char* slot = queue.PopPtr();
        if (slot == nullptr) {
            std::this_thread::yield();
            continue;
        }
        int n;
        std::memcpy(&n, slot, sizeof n);
        intact = intact && n == received && static_cast<unsigned char>(slot[4095]) == (n & 0xFF);
        ++received;
    }
    producer.join();
    EXPECT_TRUE(intact);
}

}  // namespace
}  // namespace kvpcie
