// The capture side of the simulated XDMA card, seen through the host's device files: the ring,
// drops, frame content, delay read-back, status mailbox, DMA faults and the frame clock.
#include "../support/WaitFor.h"
#include "SimCardTest.h"

#include "platform/DeviceFile.h"
#include "platform/DeviceInterfaces.h"

#include "sim/SimRegistry.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaCardRegisters.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
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
constexpr std::uint32_t kTicksPerMs = 125000;  // the delay clock

class SimCapture : public SimCardTest {
protected:
    std::uint32_t Status(unsigned channel, unsigned buffer) {
        return Read(CaptureBlock(channel) + CapBufferStatus(buffer));
    }
    std::uint32_t Produced(unsigned channel) {
        return Read(ControlBlock(channel) + KvPCIeSim::kCtlFramesProduced);
    }

    // Frames only from ProduceCaptureFrames, for a fixed sequence.
    void EnableWithoutClock(unsigned channel, std::uint32_t frameBytes) {
        Write(ControlBlock(channel) + KvPCIeSim::kCtlExternalFrameRate, 0);
        Write(CaptureBlock(channel) + kCapFrameBytes, frameBytes);
        Write(kRegCaptureEnableMask, Read(kRegCaptureEnableMask) | 1u << channel);
    }
};

TEST_F(SimCapture, FramesFillTheRingInOrderAndAWrapIsPublishedInOnePass) {
    EXPECT_EQ(Read(CaptureBlock(1) + kCapLatestBuffer), kNoFrameYet);
    EnableWithoutClock(1, 64);
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 1, 7));
    for (unsigned buffer = 0; buffer < 7; ++buffer) {
        EXPECT_EQ(Status(1, buffer), kStatusCaptureReady) << buffer;
        Write(CaptureBlock(1) + CapBufferStatus(buffer), 0);
    }
    EXPECT_EQ(Status(1, 7), 0u);
    EXPECT_EQ(Read(CaptureBlock(1) + kCapLatestBuffer), 6u);

    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 1, 3));  // buffers 7, 0, 1
    EXPECT_EQ(Read(CaptureBlock(1) + kCapLatestBuffer), 1u);
    for (unsigned buffer : {7u, 0u, 1u}) {
        EXPECT_EQ(Status(1, buffer), kStatusCaptureReady) << buffer;
    }
    EXPECT_EQ(Status(1, 2), 0u);
    EXPECT_EQ(Produced(1), 10u);
    KvPCIeSim::CardCounters counters{};
    ASSERT_TRUE(KvPCIeSim::ReadCounters(0, counters));
    EXPECT_EQ(counters.userEventsRaised, 10u);

    std::int64_t first = 0, last = 0, before = 0;
    ASSERT_TRUE(KvPCIeSim::CaptureReadyTime(0, 1, 6, before));
    ASSERT_TRUE(KvPCIeSim::CaptureReadyTime(0, 1, 7, first));
    ASSERT_TRUE(KvPCIeSim::CaptureReadyTime(0, 1, 9, last));
    EXPECT_EQ(first, last);
    EXPECT_LE(before, first);
    EXPECT_FALSE(KvPCIeSim::CaptureReadyTime(0, 1, 10, last));
    EXPECT_FALSE(KvPCIeSim::CaptureReadyTime(0, 0, 6, last));
}

TEST_F(SimCapture, AHostWatchingNeverSeesHalfABatch) {
    EnableWithoutClock(0, 4 << 20);  // large frames keep the batch's writing long
    std::atomic<bool> torn{false};
    std::atomic<bool> finished{false};
    auto watcher = std::async(std::launch::async, [&] {
        const auto deadline = std::chrono::steady_clock::now() + 3s;
        while (!finished && std::chrono::steady_clock::now() < deadline) {
            // Latest first: once it moved, the batch's last status must already be ready.
            if (Read(CaptureBlock(0) + kCapLatestBuffer) != kNoFrameYet &&
                Status(0, 6) != kStatusCaptureReady) {
                torn = true;
            }
            std::this_thread::yield();
        }
    });
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 0, 7));
    finished = true;
    watcher.get();
    EXPECT_FALSE(torn);
    EXPECT_EQ(Read(CaptureBlock(0) + kCapLatestBuffer), 6u);
}

TEST_F(SimCapture, AFrameDueInABufferTheHostHoldsIsDropped) {
    EnableWithoutClock(0, 16);
    Write(ControlBlock(0) + KvPCIeSim::kCtlFrameEventOff, 1);
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 0, 8));
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 0, 2));  // frames 8 and 9: ring full
    EXPECT_EQ(Produced(0), 8u);
    EXPECT_EQ(Read(ControlBlock(0) + KvPCIeSim::kCtlFramesDropped), 2u);
    EXPECT_EQ(Read(CaptureBlock(0) + kCapLatestBuffer), 7u);

    Write(CaptureBlock(0) + CapBufferStatus(0), 0);
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 0, 1));  // frame 10, in buffer 0
    EXPECT_EQ(Read(CaptureBlock(0) + kCapLatestBuffer), 0u);
    std::uint32_t header[2] = {};
    ASSERT_TRUE(ReadCard(CaptureBufferAddress(0, 0), header, 8));
    EXPECT_EQ(header[0], 10u);
    std::int64_t ready = 0;
    EXPECT_FALSE(KvPCIeSim::CaptureReadyTime(0, 0, 9, ready));
    KvPCIeSim::CardCounters counters{};
    ASSERT_TRUE(KvPCIeSim::ReadCounters(0, counters));
    EXPECT_EQ(counters.userEventsRaised, 0u);
}

TEST_F(SimCapture, FramesCarryThePatternTheLoopbackFrameOrTheErrorBit) {
    EnableWithoutClock(2, 1000);
    Write(ControlBlock(2) + KvPCIeSim::kCtlErrorFrameEvery, 3);
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 2, 3));
    EXPECT_EQ(Status(2, 1), kStatusCaptureReady);
    EXPECT_EQ(Status(2, 2), kStatusCaptureReady | kStatusErrorFrame);  // (2 + 1) % 3 == 0

    std::vector<std::uint8_t> frame(1004, 0xEE);
    ASSERT_TRUE(ReadCard(CaptureBufferAddress(2, 1), frame.data(), 1004));
    EXPECT_EQ(frame[0] | frame[1] << 8 | frame[2] << 16 | frame[3] << 24, 1);
    EXPECT_EQ(frame[4] | frame[5] << 8 | frame[6] << 16 | frame[7] << 24, 2);
    for (std::size_t k = 8; k < 1000; ++k) {
        ASSERT_EQ(frame[k], (k + 1) % 256) << k;
    }
    EXPECT_EQ(frame[1000], 0) << "nothing written past the frame";

    // Loopback: the inject frame, zero-filled to the capture frame's size.
    const std::vector<std::uint8_t> played(600, 0xAB);
    sim::SimRegistry::Instance().FindXdmaCard(0)->SetLoopbackFrame(2, played.data(), 600);
    const std::vector<std::uint8_t> stale(1000, 0xFF);
    ASSERT_TRUE(KvPCIeSim::PokeMemory(0, CaptureBufferAddress(2, 3), stale.data(), 1000));
    Write(ControlBlock(2) + KvPCIeSim::kCtlCaptureSource, 1);
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 2, 1));
    ASSERT_TRUE(ReadCard(CaptureBufferAddress(2, 3), frame.data(), 1000));
    EXPECT_EQ(frame[0], 0xAB);
    EXPECT_EQ(frame[599], 0xAB);
    EXPECT_EQ(frame[600], 0);
    EXPECT_EQ(frame[999], 0);

    Write(CaptureBlock(2) + kCapFrameBytes, 0);  // no frame at all, not even a drop
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 2, 1));
    EXPECT_EQ(Produced(2), 4u);
    EXPECT_EQ(Read(ControlBlock(2) + KvPCIeSim::kCtlFramesDropped), 0u);
}

TEST_F(SimCapture, DelayCountersEchoTheSelectorAndMeasureTheBuffer) {
    EnableWithoutClock(0, 1 << 20);
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 0, 2));
    std::this_thread::sleep_for(20ms);
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 0, 1));  // buffer 2, 20 ms after buffer 1
    const auto delay = [&](unsigned buffer, std::uint32_t selector) {
        Write(CaptureBlock(0) + CapBufferDelay(buffer), selector << kDelaySelectorShift);
        const std::uint32_t value = Read(CaptureBlock(0) + CapBufferDelay(buffer));
        EXPECT_EQ(value >> kDelaySelectorShift, selector);
        return value & kDelayCountMask;
    };
    EXPECT_GT(delay(0, 0), 0u);  // writing 1 MiB takes time
    EXPECT_EQ(delay(1, 2), 0u);  // published together with buffer 0
    EXPECT_GE(delay(2, 2), 20 * kTicksPerMs);

    const std::uint32_t held = delay(0, 1);
    std::this_thread::sleep_for(20ms);
    const std::uint32_t heldLonger = delay(0, 1);
    EXPECT_GE(heldLonger - held, 20 * kTicksPerMs);
    Write(CaptureBlock(0) + CapBufferStatus(0), 0);  // release
    const std::uint32_t released = delay(0, 1);
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(delay(0, 1), released);
    EXPECT_GE(delay(0, 3), released);  // from the frame's start, not its ready
    EXPECT_EQ(delay(0, 5), 0u);
    EXPECT_EQ(delay(7, 1), 0u);  // no frame yet
}

TEST_F(SimCapture, StatusMailboxPostsQueuesAndIgnoresBadLengths) {
    const std::uint32_t staging = ControlBlock(3) + KvPCIeSim::kCtlStatusStaging;
    const std::uint32_t post = ControlBlock(3) + KvPCIeSim::kCtlPostStatus;
    const std::uint32_t control = CaptureBlock(3) + kCapStatusControl;
    Write(staging, 0x04030201);
    Write(staging + 4, 0x08070605);
    Write(post, 6);
    EXPECT_EQ(Read(control), kMailboxFull | 5);
    EXPECT_EQ(Read(CaptureBlock(3) + kCapStatusData), 0x04030201u);
    EXPECT_EQ(Read(CaptureBlock(3) + kCapStatusData + 4), 0x0605u);

    Write(staging, 0x11111111);
    Write(post, 4);  // the mailbox is full: queued
    Write(post, 0);
    Write(post, kMailboxBytes + 1);
    EXPECT_EQ(Read(control), kMailboxFull | 5);
    EXPECT_EQ(Read(CaptureBlock(3) + kCapStatusData), 0x04030201u);

    Write(control, 0);  // the host took the block
    EXPECT_EQ(Read(control), kMailboxFull | 3);
    EXPECT_EQ(Read(CaptureBlock(3) + kCapStatusData), 0x11111111u);
    Write(control, 0);
    EXPECT_EQ(Read(control), 0u) << "the bad lengths queued nothing";
    Write(post, kMailboxBytes);
    EXPECT_EQ(Read(control), kMailboxFull | kMailboxLengthMask);
}

TEST_F(SimCapture, DmaFaultsHitOnlyTheChannelsMemory) {
    Write(ControlBlock(1) + KvPCIeSim::kCtlDmaFaults, 2);
    std::uint8_t bytes[16];
    EXPECT_TRUE(ReadCard(CaptureBufferAddress(0, 7), bytes, 16));
    EXPECT_TRUE(ReadCard(CaptureBufferAddress(2, 0), bytes, 16));
    EXPECT_FALSE(ReadCard(CaptureBufferAddress(1, 0), bytes, 16));
    EXPECT_EQ(Read(ControlBlock(1) + KvPCIeSim::kCtlDmaFaults), 1u);
    EXPECT_FALSE(ReadCard(CaptureBufferAddress(1, 7) + 16, bytes, 16));
    EXPECT_TRUE(ReadCard(CaptureBufferAddress(1, 0), bytes, 16));
    EXPECT_EQ(Read(ControlBlock(1) + KvPCIeSim::kCtlDmaFaults), 0u);
    KvPCIeSim::CardCounters counters{};
    ASSERT_TRUE(KvPCIeSim::ReadCounters(0, counters));
    EXPECT_EQ(counters.refusedTransfers, 2u);
}

TEST_F(SimCapture, ProduceAndPokeRefuseWhatIsNotThere) {
    EXPECT_FALSE(KvPCIeSim::ProduceCaptureFrames(0, 0, 1)) << "not enabled";
    EnableWithoutClock(0, 16);
    EXPECT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 0, 1));
    EXPECT_FALSE(KvPCIeSim::ProduceCaptureFrames(0, 0, 0));
    EXPECT_FALSE(KvPCIeSim::ProduceCaptureFrames(0, 0, 9));
    EXPECT_FALSE(KvPCIeSim::ProduceCaptureFrames(0, 4, 1));
    EXPECT_FALSE(KvPCIeSim::ProduceCaptureFrames(5, 0, 1));
    platform::RestartXilinxDevices();  // channels come back disabled
    EXPECT_FALSE(KvPCIeSim::ProduceCaptureFrames(0, 0, 1));

    // A poked register changes no state of the card beyond itself.
    EXPECT_TRUE(KvPCIeSim::PokeRegister(0, kRegCaptureEnableMask, 1));
    EXPECT_FALSE(KvPCIeSim::ProduceCaptureFrames(0, 0, 1));
    EXPECT_TRUE(KvPCIeSim::PokeRegister(0, CaptureBlock(0) + CapBufferStatus(4), 2));
    EXPECT_EQ(Status(0, 4), 2u);
    KvPCIeSim::TakeAccessLog(0);
    EXPECT_TRUE(KvPCIeSim::PokeRegister(0, CaptureBlock(0) + kCapLatestBuffer, 3));
    EXPECT_TRUE(KvPCIeSim::TakeAccessLog(0).empty());
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
    const std::uint32_t dropped = Read(ControlBlock(0) + KvPCIeSim::kCtlFramesDropped);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(Produced(0), produced);
    EXPECT_EQ(Read(ControlBlock(0) + KvPCIeSim::kCtlFramesDropped), dropped);
}

TEST_F(SimCapture, TheExternalRateStartsAndStopsTheClock) {
    Write(ControlBlock(1) + KvPCIeSim::kCtlExternalFrameRate, 0);
    Write(CaptureBlock(1) + kCapFrameBytes, 4096);
    Write(kRegCaptureEnableMask, 2);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(Produced(1), 0u) << "rate 0: no frames from the clock";

    Write(ControlBlock(1) + KvPCIeSim::kCtlExternalFrameRate, 200);
    ASSERT_TRUE(WaitFor([&] { return Produced(1) >= 2; }));
    Write(ControlBlock(1) + KvPCIeSim::kCtlExternalFrameRate, 0);
    const std::uint32_t produced = Produced(1);  // one frame may still have been on its way
    std::this_thread::sleep_for(50ms);
    EXPECT_LE(Produced(1), produced + 1);
}

}  // namespace
}  // namespace kvpcie
