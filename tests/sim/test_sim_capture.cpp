// The simulated card's capture side, where a host cannot tell it apart.
#include "../support/WaitFor.h"
#include "SimCardTest.h"

#include "platform/DeviceInterfaces.h"

#include "drivers/XdmaCardRegisters.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace kvpcie {
namespace {

using namespace std::chrono_literals;
using testing::WaitFor;
using namespace xdma;
using KvPCIeSim::ControlBlock;

constexpr std::uint32_t kNoFrameYet = 7;

class SimCapture : public SimCardTest {
protected:
    std::uint32_t Status(unsigned channel, unsigned buffer) {
        return Read(CaptureBlock(channel) + CapBufferStatus(buffer));
    }
    std::uint32_t Latest(unsigned channel) {
        return Read(CaptureBlock(channel) + kCapLatestBuffer);
    }
    std::uint32_t Produced(unsigned channel) { return Ctl(channel, KvPCIeSim::kCtlFramesProduced); }

    // Frames only from ProduceCaptureFrames, for a fixed sequence.
    void EnableWithoutClock(unsigned channel, std::uint32_t frameBytes) {
        Write(ControlBlock(channel) + KvPCIeSim::kCtlExternalFrameRate, 0);
        Write(CaptureBlock(channel) + kCapFrameBytes, frameBytes);
        Write(kRegCaptureEnableMask, Read(kRegCaptureEnableMask) | 1u << channel);
    }
};

TEST_F(SimCapture, AHostNeverSeesHalfABatchAndAWrappedBatchIsReadyAtOnce) {
    EnableWithoutClock(0, 4 << 20);  // large frames keep the batch's writing long
    std::atomic<bool> torn{false};
    std::atomic<bool> finished{false};
    auto watcher = std::async(std::launch::async, [&] {
        const auto deadline = std::chrono::steady_clock::now() + 3s;
        while (!finished && std::chrono::steady_clock::now() < deadline) {
            // Latest first: once it moved, the batch's last status must already be ready.
            if (Latest(0) != kNoFrameYet && Status(0, 6) != kStatusCaptureReady) {
                torn = true;
            }
            std::this_thread::yield();
        }
    });
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 0, 7));
    finished = true;
    watcher.get();
    EXPECT_FALSE(torn);
    EXPECT_EQ(Latest(0), 6u);

    for (unsigned buffer = 0; buffer < 7; ++buffer) {
        Write(CaptureBlock(0) + CapBufferStatus(buffer), 0);
    }
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 0, 3));  // buffers 7, 0, 1
    EXPECT_EQ(Latest(0), 1u);
    std::int64_t before = 0, first = 0, last = 0;
    ASSERT_TRUE(KvPCIeSim::CaptureReadyTime(0, 0, 6, before));
    ASSERT_TRUE(KvPCIeSim::CaptureReadyTime(0, 0, 7, first));
    ASSERT_TRUE(KvPCIeSim::CaptureReadyTime(0, 0, 9, last));
    EXPECT_EQ(first, last);
    EXPECT_LE(before, first);
    EXPECT_FALSE(KvPCIeSim::CaptureReadyTime(0, 0, 10, last));
    KvPCIeSim::CardCounters counters{};
    ASSERT_TRUE(KvPCIeSim::ReadCounters(0, counters));
    EXPECT_EQ(counters.userEventsRaised, 10u) << "one event per frame";
}

TEST_F(SimCapture, ReadyTimesThroughTheRegistersAreTheControlApisAndZeroOnceForgotten) {
    EnableWithoutClock(1, 4096);
    const auto registerTime = [&](std::uint32_t frame) {
        Write(ControlBlock(1) + KvPCIeSim::kCtlReadyTimeFrame, frame);
        return std::uint64_t{Ctl(1, KvPCIeSim::kCtlReadyTimeHigh)} << 32 |
               Ctl(1, KvPCIeSim::kCtlReadyTimeLow);
    };
    EXPECT_EQ(registerTime(0), 0u) << "no frame yet";
    for (int batch = 0; batch < 9; ++batch) {  // 72 frames: the first 8 are forgotten
        ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 1, 8));
        for (unsigned buffer = 0; buffer < 8; ++buffer) {
            Write(CaptureBlock(1) + CapBufferStatus(buffer), 0);
        }
    }
    for (std::uint32_t frame : {8u, 40u, 71u}) {
        std::int64_t expected = 0;
        ASSERT_TRUE(KvPCIeSim::CaptureReadyTime(0, 1, frame, expected));
        EXPECT_EQ(registerTime(frame), static_cast<std::uint64_t>(expected)) << frame;
    }
    EXPECT_EQ(registerTime(7), 0u);
    EXPECT_EQ(registerTime(72), 0u);
    Write(ControlBlock(1) + KvPCIeSim::kCtlReadyTimeLow, 5);  // read-only
    EXPECT_EQ(registerTime(72), 0u);
}

TEST_F(SimCapture, ErrorFramesAreFlaggedAndNothingIsWrittenPastTheFrame) {
    EnableWithoutClock(2, 1000);
    Write(ControlBlock(2) + KvPCIeSim::kCtlErrorFrameEvery, 3);
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 2, 3));
    EXPECT_EQ(Status(2, 1), kStatusCaptureReady);
    EXPECT_EQ(Status(2, 2), kStatusCaptureReady | kStatusErrorFrame);  // (2 + 1) % 3 == 0
    std::vector<std::uint8_t> frame(1004, 0xEE);
    ASSERT_TRUE(ReadCard(CaptureBufferAddress(2, 1), frame.data(), 1004));
    EXPECT_EQ(frame[999], 1000 % 256);
    EXPECT_EQ(frame[1000], 0);

    Write(CaptureBlock(2) + kCapFrameBytes, 0);  // no frame at all, not even a drop
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 2, 1));
    EXPECT_EQ(Produced(2), 3u);
    EXPECT_EQ(Ctl(2, KvPCIeSim::kCtlFramesDropped), 0u);
}

TEST_F(SimCapture, StatusPostsOfNoBytesOrMoreThanTheMailboxAreIgnored) {
    const std::uint32_t control = CaptureBlock(3) + kCapStatusControl;
    for (const std::uint32_t length : {0u, std::uint32_t{kMailboxBytes} + 1}) {
        Write(ControlBlock(3) + KvPCIeSim::kCtlPostStatus, length);
        EXPECT_EQ(Read(control), 0u) << length;
    }
    Write(ControlBlock(3) + KvPCIeSim::kCtlPostStatus, kMailboxBytes);
    EXPECT_EQ(Read(control), kMailboxFull | kMailboxLengthMask);
}

TEST_F(SimCapture, ProduceRefusesWhatIsNotThereAndAPokeChangesOnlyItsRegister) {
    EXPECT_FALSE(KvPCIeSim::ProduceCaptureFrames(0, 0, 1)) << "not enabled";
    EnableWithoutClock(0, 16);
    const int refused[][3] = {{0, 0, 0}, {0, 0, 9}, {0, 4, 1}, {5, 0, 1}};  // card, channel, count
    for (const auto& r : refused) {
        EXPECT_FALSE(KvPCIeSim::ProduceCaptureFrames(r[0], r[1], r[2]))
            << r[0] << " " << r[1] << " " << r[2];
    }
    EXPECT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 0, 1));
    RestartCard();
    EXPECT_FALSE(KvPCIeSim::ProduceCaptureFrames(0, 0, 1)) << "channels come back disabled";

    EXPECT_TRUE(KvPCIeSim::PokeRegister(0, kRegCaptureEnableMask, 1));
    EXPECT_FALSE(KvPCIeSim::ProduceCaptureFrames(0, 0, 1)) << "a poked enable starts nothing";
    KvPCIeSim::TakeAccessLog(0);
    EXPECT_TRUE(KvPCIeSim::PokeRegister(0, CaptureBlock(0) + CapBufferStatus(4), 2));
    EXPECT_TRUE(KvPCIeSim::TakeAccessLog(0).empty());
    EXPECT_EQ(Status(0, 4), 2u);
    EXPECT_FALSE(KvPCIeSim::PokeRegister(5, 0, 0));
}

TEST_F(SimCapture, TheCardTimedClockDeliversFramesUntilDisabled) {
    Write(CaptureBlock(0) + kCapFrameBytes, 4096);
    Write(CaptureBlock(0) + kCapSyncMode, 1);
    Write(CaptureBlock(0) + kCapFramePeriod, 1000000);  // 10 ms of the timing clock
    Write(kRegCaptureEnableMask, 1);
    ASSERT_TRUE(WaitFor([&] { return Produced(0) >= 3; }));
    std::int64_t first = 0, second = 0;
    ASSERT_TRUE(KvPCIeSim::CaptureReadyTime(0, 0, 0, first));
    ASSERT_TRUE(KvPCIeSim::CaptureReadyTime(0, 0, 1, second));
    EXPECT_LT(first, second);

    Write(kRegCaptureEnableMask, 0);
    const std::uint32_t produced = Produced(0);
    const std::uint32_t dropped = Ctl(0, KvPCIeSim::kCtlFramesDropped);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(Produced(0), produced);
    EXPECT_EQ(Ctl(0, KvPCIeSim::kCtlFramesDropped), dropped);
}

}  // namespace
}  // namespace kvpcie
