// kvpcie.h from several threads and inside callbacks, each case under a watchdog.
#include "../support/Watchdog.h"
#include "../support/WaitFor.h"

#include <KvPCIeInjectSdk/kvpcie.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <ostream>
#include <random>
#include <thread>
#include <vector>

namespace kvpcie::testing {
namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 32;
constexpr std::size_t kFrameBytes = kWidth * kHeight;  // Y8
constexpr const char* kPath = "sim:xdma0";

// Registers of the simulated card's control block of a channel.
constexpr std::uint32_t Control(int channel, std::uint32_t offset) {
    return 0x1F1000u + static_cast<std::uint32_t>(channel) * 0x1000u + offset;
}
constexpr std::uint32_t kFrameRate = 0x04;
constexpr std::uint32_t kPostStatus = 0x28;

class CApiThreads : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(kvpcie_sim_configure("xdma:1,riffa:1"), KVPCIE_OK); }
    void TearDown() override { kvpcie_sim_configure(""); }

    static void SetFrameRate(kvpcie_card* card, int channel, std::uint32_t rate) {
        ASSERT_EQ(kvpcie_write_reg(card, Control(channel, kFrameRate), rate), KVPCIE_OK);
    }
};

// ------------------------------------------------------------------ stops from every side

// One handle of a churning thread, with a buffer and a callback context per channel.
struct ChurnHandle {
    kvpcie_card* card = nullptr;
    struct Channel {
        ChurnHandle* owner = nullptr;
        int channel = 0;
        std::atomic<int> frames{0};
        std::array<unsigned char, kFrameBytes> buffer{};
    };
    std::array<Channel, KVPCIE_CHANNELS> channels;

    ChurnHandle() {
        for (int c = 0; c < KVPCIE_CHANNELS; ++c) {
            channels[c].owner = this;
            channels[c].channel = c;
        }
    }
};

// Every other frame stops its own channel from inside the callback.
void KVPCIE_CALL StopEveryOtherFrame(const kvpcie_frame* frame, void* context) {
    auto* channel = static_cast<ChurnHandle::Channel*>(context);
    if (channel->frames.fetch_add(1) % 2 == 1) {
        kvpcie_stop_capture(channel->owner->card, frame->channel);
    }
}

TEST_F(CApiThreads, StopsFromCallbacksRacingTheHostsStopsAndClosesNeverHang) {
    const Watchdog watchdog("four threads starting, stopping and reopening",
                            std::chrono::seconds(60));
    kvpcie_card* rate = kvpcie_open(kPath);
    ASSERT_NE(rate, nullptr);
    for (int c = 0; c < KVPCIE_CHANNELS; ++c) {
        SetFrameRate(rate, c, 1000);
    }
    constexpr int kThreads = 4;
    constexpr int kHandlesPerThread = 4;
    std::atomic<int> started{0};
    std::atomic<int> failures{0};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(static_cast<unsigned>(t) * 7919u + 1u);
            std::array<ChurnHandle, kHandlesPerThread> handles;
            for (ChurnHandle& handle : handles) {
                handle.card = kvpcie_open(kPath);
            }
            while (std::chrono::steady_clock::now() < deadline) {
                ChurnHandle& handle = handles[random() % kHandlesPerThread];
                const int c = static_cast<int>(random() % KVPCIE_CHANNELS);
                switch (random() % 5) {
                case 0:
                case 1: {
                    const kvpcie_status status = kvpcie_start_capture(
                        handle.card, c, 0, kWidth, kHeight, KVPCIE_Y8,
                        handle.channels[c].buffer.data(), StopEveryOtherFrame,
                        &handle.channels[c]);
                    started += status == KVPCIE_OK ? 1 : 0;
                    failures += status == KVPCIE_OK || status == KVPCIE_IN_USE ? 0 : 1;
                    break;
                }
                case 2:
                case 3:
                    failures += kvpcie_stop_capture(handle.card, c) == KVPCIE_OK ? 0 : 1;
                    break;
                default:
                    kvpcie_close(handle.card);
                    handle.card = kvpcie_open(kPath);
                    failures += handle.card != nullptr ? 0 : 1;
                    break;
                }
                std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
            }
            for (ChurnHandle& handle : handles) {
                kvpcie_close(handle.card);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    kvpcie_close(rate);
    EXPECT_EQ(failures, 0);
    EXPECT_GT(started, 20);
}

// ------------------------------------------------------------------ a close inside a callback

// A handle whose frame callback closes it once asked to, and counts what comes after.
struct ClosingHandle {
    kvpcie_card* card = nullptr;
    std::array<unsigned char, kFrameBytes> buffer{};
    std::atomic<bool> closeNow{false};
    std::atomic<bool> closed{false};
    std::atomic<int> lateFrames{0};
    std::atomic<int> lateStatusBlocks{0};
};

constexpr unsigned char kPoison = 0xEE;

void KVPCIE_CALL CloseWhenAsked(const kvpcie_frame* frame, void* context) {
    auto* handle = static_cast<ClosingHandle*>(context);
    (void)frame;
    if (handle->closed) {
        ++handle->lateFrames;
        return;
    }
    if (handle->closeNow) {
        kvpcie_close(handle->card);
        handle->closed = true;
        // The buffer is the host's again once this callback returns: the card must not write
        // into it any more.
        std::memset(handle->buffer.data(), kPoison, handle->buffer.size());
    }
}

void KVPCIE_CALL CountLateStatus(int32_t, const void*, size_t, void* context) {
    auto* handle = static_cast<ClosingHandle*>(context);
    if (handle->closed) {
        ++handle->lateStatusBlocks;
    }
}

// A status callback of another handle that keeps the card thread busy.
struct BusyCardThread {
    std::chrono::milliseconds busyFor{0};
    std::atomic<bool> busy{false};
};

void KVPCIE_CALL HoldTheCardThread(int32_t, const void*, size_t, void* context) {
    auto* holder = static_cast<BusyCardThread*>(context);
    holder->busy = true;
    std::this_thread::sleep_for(holder->busyFor);
    holder->busy = false;
}

struct CloseCase {
    const char* name;
    std::uint32_t framesPerSecond;
    int cardThreadBusyMs;  // 0: idle
};

void PrintTo(const CloseCase& closeCase, std::ostream* out) {
    *out << closeCase.name;
}

class CloseInCallback : public CApiThreads, public ::testing::WithParamInterface<CloseCase> {};

TEST_P(CloseInCallback, EndsTheHandlesCallbacksAndBuffersWhenTheCallbackReturns) {
    const CloseCase& param = GetParam();
    const Watchdog watchdog(param.name, std::chrono::seconds(20));
    kvpcie_card* other = kvpcie_open(kPath);
    ASSERT_NE(other, nullptr);
    static ClosingHandle handle;  // outlives the posted part of the close
    handle.closeNow = false;
    handle.closed = false;
    handle.lateFrames = 0;
    handle.lateStatusBlocks = 0;
    handle.card = kvpcie_open(kPath);
    ASSERT_NE(handle.card, nullptr);
    SetFrameRate(other, 0, param.framesPerSecond);
    ASSERT_EQ(kvpcie_set_status_callback(handle.card, 1, CountLateStatus, &handle), KVPCIE_OK);
    ASSERT_EQ(kvpcie_start_capture(handle.card, 0, 0, kWidth, kHeight, KVPCIE_Y8,
                                   handle.buffer.data(), CloseWhenAsked, &handle),
              KVPCIE_OK);
    BusyCardThread holder;
    holder.busyFor = std::chrono::milliseconds(param.cardThreadBusyMs);
    if (param.cardThreadBusyMs > 0) {
        ASSERT_EQ(kvpcie_set_status_callback(other, 3, HoldTheCardThread, &holder), KVPCIE_OK);
        ASSERT_EQ(kvpcie_write_reg(other, Control(3, kPostStatus), 4), KVPCIE_OK);
        ASSERT_TRUE(WaitFor([&] { return holder.busy.load(); }));
    }
    handle.closeNow = true;
    ASSERT_TRUE(WaitFor([&] { return handle.closed.load(); }));
    // Blocks for the closed handle's status callback, while frames keep coming on the card.
    ASSERT_EQ(kvpcie_write_reg(other, Control(1, kPostStatus), 8), KVPCIE_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(param.cardThreadBusyMs + 200));
    EXPECT_EQ(handle.lateFrames, 0);
    EXPECT_EQ(handle.lateStatusBlocks, 0);
    std::array<unsigned char, kFrameBytes> poisoned;
    poisoned.fill(kPoison);
    EXPECT_EQ(std::memcmp(handle.buffer.data(), poisoned.data(), kFrameBytes), 0)
        << "the card wrote into the buffer of a closed handle";
    // The channel is free for another handle once the close has run on the card thread.
    static std::array<unsigned char, kFrameBytes> buffer;
    EXPECT_TRUE(WaitFor([&] {
        const kvpcie_status status = kvpcie_start_capture(other, 0, 0, kWidth, kHeight,
                                                          KVPCIE_Y8, buffer.data(), nullptr,
                                                          nullptr);
        return status == KVPCIE_OK;
    }));
    kvpcie_close(other);
}

INSTANTIATE_TEST_SUITE_P(
    Rates, CloseInCallback,
    ::testing::Values(CloseCase{"at 1,000 frames a second, card thread busy", 1000, 400},
                      CloseCase{"at 200 frames a second, card thread idle", 200, 0},
                      CloseCase{"at 1,000 frames a second, card thread idle", 1000, 0}),
    [](const ::testing::TestParamInfo<CloseCase>& info) {
        return std::to_string(info.param.framesPerSecond) + "fps_" +
               (info.param.cardThreadBusyMs > 0 ? "busy" : "idle");
    });

// ------------------------------------------------------------------ pulled frames

// Whatever ends a pulled channel ends the pulls that wait on it, at once and for every puller.
enum class PullEnd { Stop, Close, Restart };

class PullEnded : public CApiThreads, public ::testing::WithParamInterface<PullEnd> {};

TEST_P(PullEnded, EndsEveryWaitingPull) {
    const Watchdog watchdog("a pull that waits past its channel's end", std::chrono::seconds(20));
    kvpcie_card* card = kvpcie_open(kPath);
    ASSERT_NE(card, nullptr);
    SetFrameRate(card, 2, 0);  // nothing comes: the pulls wait without limit
    ASSERT_EQ(kvpcie_start_pull(card, 2, 0, kWidth, kHeight, KVPCIE_Y8, 2), KVPCIE_OK);
    std::atomic<int> waiting{0};
    std::atomic<int> stopped{0};
    std::vector<std::thread> pullers;
    for (int i = 0; i < 3; ++i) {
        pullers.emplace_back([&] {
            std::array<unsigned char, kFrameBytes> buffer{};
            ++waiting;
            if (kvpcie_pull(card, 2, buffer.data(), buffer.size(), nullptr, -1) == KVPCIE_STOPPED) {
                ++stopped;
            }
        });
    }
    ASSERT_TRUE(WaitFor([&] { return waiting.load() == 3; }));
    // Each puller is inside kvpcie_pull by now: a close frees the handle once they return.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    switch (GetParam()) {
        case PullEnd::Stop:
            ASSERT_EQ(kvpcie_stop_capture(card, 2), KVPCIE_OK);
            break;
        case PullEnd::Close:
            kvpcie_close(card);  // returns once the pulls have
            card = nullptr;
            break;
        case PullEnd::Restart:
            ASSERT_EQ(kvpcie_start_pull(card, 2, 0, kWidth, kHeight, KVPCIE_Y8, 2), KVPCIE_OK);
            break;
    }
    for (std::thread& puller : pullers) {
        puller.join();
    }
    EXPECT_EQ(stopped.load(), 3);
    kvpcie_close(card);
}

INSTANTIATE_TEST_SUITE_P(Ends, PullEnded,
                         ::testing::Values(PullEnd::Stop, PullEnd::Close, PullEnd::Restart),
                         [](const ::testing::TestParamInfo<PullEnd>& info) {
                             return info.param == PullEnd::Stop    ? std::string("Stop")
                                    : info.param == PullEnd::Close ? std::string("Close")
                                                                   : std::string("Restart");
                         });

}  // namespace
}  // namespace kvpcie::testing
