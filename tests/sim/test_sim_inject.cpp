// What the simulated card decides on its inject side.
#include "../support/WaitFor.h"
#include "SimCardTest.h"

#include "platform/DeviceInterfaces.h"

#include "drivers/XdmaCardRegisters.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

namespace kvpcie {
namespace {

using testing::WaitFor;
using namespace xdma;
using KvPCIeSim::ControlBlock;

constexpr std::uint32_t kFastPeriod = 300000;  // 3 ms of the timing clock

class SimInject : public SimCardTest {
protected:
    std::uint32_t Played(unsigned channel) { return Ctl(channel, KvPCIeSim::kCtlInjectPlayed); }
    std::uint32_t Underruns(unsigned channel) {
        return Ctl(channel, KvPCIeSim::kCtlInjectUnderruns);
    }
    std::uint32_t Head(unsigned channel) { return Ctl(channel, KvPCIeSim::kCtlLastInjectHead); }
    std::uint32_t Status(unsigned channel, unsigned buffer) {
        return Read(InjectBlock(channel) + InjBufferStatus(buffer));
    }

    // Distinct content per frame; the first word is `head` when the frame holds one.
    static std::vector<std::uint8_t> Frame(std::size_t size, std::uint32_t head) {
        std::vector<std::uint8_t> frame(size);
        for (std::size_t k = 0; k < size; ++k) {
            frame[k] = static_cast<std::uint8_t>(k < 4 ? head >> (8 * k) : k * 7 + head);
        }
        return frame;
    }

    // As the host does it: claim the buffer, write the frame, then hand it over.
    void HandOver(unsigned channel, unsigned buffer, const std::vector<std::uint8_t>& frame) {
        const std::uint32_t block = InjectBlock(channel);
        Write(block + InjBufferStatus(buffer), kStatusHostWriting);
        std::uint32_t moved = 0;
        EXPECT_TRUE(h2c_->Seek(InjectBufferAddress(channel, buffer)) &&
                    h2c_->Write(frame.data(), static_cast<std::uint32_t>(frame.size()), moved) &&
                    moved == frame.size());
        Write(block + InjBufferLength(buffer), static_cast<std::uint32_t>(frame.size()));
        Write(block + InjBufferStatus(buffer), kStatusInjectReady);
    }

    void Enable(unsigned channel, std::uint32_t period) {
        Write(InjectBlock(channel) + kInjFramePeriod, period);
        Write(kRegInjectEnableMask, Read(kRegInjectEnableMask) | 1u << channel);
    }
};

TEST_F(SimInject, OnlyTheNextBufferOfTheRingPlaysAndComesBackFree) {
    Enable(0, kFastPeriod);
    HandOver(0, 1, Frame(32, 0x11111111));
    Write(InjectBlock(0) + InjBufferStatus(0), kStatusHostWriting);  // still being filled
    ASSERT_TRUE(WaitFor([&] { return Underruns(0) >= 3; }));
    EXPECT_EQ(Played(0), 0u);
    EXPECT_EQ(Status(0, 1), kStatusInjectReady) << "buffer 1 waits for buffer 0";

    HandOver(0, 0, Frame(32, 0x22222222));
    ASSERT_TRUE(WaitFor([&] { return Played(0) == 2; }));
    EXPECT_EQ(Head(0), 0x11111111u) << "buffer 1 played after buffer 0";
    EXPECT_EQ(Status(0, 0), 0u);
    EXPECT_EQ(Status(0, 1), 0u);

    HandOver(0, 2, {0xAA, 0xBB});
    ASSERT_TRUE(WaitFor([&] { return Played(0) == 3; }));
    EXPECT_EQ(Head(0), 0xBBAAu) << "zero-filled past the frame";
    Write(ControlBlock(0) + KvPCIeSim::kCtlInjectPlayed, 0);
    Write(ControlBlock(0) + KvPCIeSim::kCtlLastInjectHead, 0);
    EXPECT_EQ(Played(0), 3u) << "the card's own record";
    EXPECT_EQ(Head(0), 0xBBAAu);
}

// The length comes after the ready status: a buffer played before it plays the transfer size.
TEST_F(SimInject, ABufferPlayedBeforeItsLengthCamePlaysTheTransferSize) {
    const std::uint32_t block = InjectBlock(0);
    Write(block + kInjTransferBytes, 2048);
    const std::vector<std::uint8_t> frame = Frame(2048, 0x33333333);
    std::uint32_t moved = 0;
    ASSERT_TRUE(h2c_->Seek(InjectBufferAddress(0, 0)) &&
                h2c_->Write(frame.data(), static_cast<std::uint32_t>(frame.size()), moved));
    Write(block + InjBufferStatus(0), kStatusInjectReady);  // and no length yet
    Enable(0, kFastPeriod);
    ASSERT_TRUE(WaitFor([&] { return Played(0) == 1; }));
    EXPECT_EQ(Head(0), 0x33333333u);
}

TEST_F(SimInject, ARefillIsTimedFromItsBuffersReleaseAndARestartForgetsTheEarlierOnes) {
    const auto refills = [](std::int64_t& longest) {
        std::uint64_t count = 0;
        EXPECT_TRUE(KvPCIeSim::InjectRefillTimes(0, 0, longest, count));
        return count;
    };
    std::int64_t longest = 0;
    Enable(0, kFastPeriod);
    HandOver(0, 0, Frame(32, 1));
    ASSERT_TRUE(WaitFor([&] { return Played(0) == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    HandOver(0, 0, Frame(32, 2));
    EXPECT_EQ(refills(longest), 1u);
    EXPECT_GE(longest, 60'000'000);

    ASSERT_TRUE(KvPCIeSim::RestartInjectRefillTimes(0, 0));
    EXPECT_EQ(refills(longest), 0u);
    EXPECT_EQ(longest, 0);
    HandOver(0, 1, Frame(32, 3));  // never released: not a refill
    EXPECT_EQ(refills(longest), 0u);
    ASSERT_TRUE(WaitFor([&] { return Played(0) == 2; }));
    HandOver(0, 1, Frame(32, 4));
    EXPECT_EQ(refills(longest), 1u);
    EXPECT_LT(longest, 60'000'000) << "the first refill is forgotten";
    EXPECT_FALSE(KvPCIeSim::RestartInjectRefillTimes(0, 4));
}

TEST_F(SimInject, ReenablingStartsTheRingOverAtBufferZeroAndARestartDisables) {
    Enable(0, kFastPeriod);
    HandOver(0, 0, Frame(16, 0x100));
    HandOver(0, 1, Frame(16, 0x101));
    ASSERT_TRUE(WaitFor([&] { return Played(0) == 2; }));
    Write(kRegInjectEnableMask, 0);
    HandOver(0, 2, Frame(16, 0x102));
    // At the default 25 per second the first tick is far enough off to see the counts reset.
    Write(InjectBlock(0) + kInjFramePeriod, 0);
    Write(kRegInjectEnableMask, 1);
    EXPECT_EQ(Played(0), 0u);
    EXPECT_EQ(Underruns(0), 0u);
    Write(InjectBlock(0) + kInjFramePeriod, kFastPeriod);
    ASSERT_TRUE(WaitFor([&] { return Underruns(0) >= 2; }));
    EXPECT_EQ(Played(0), 0u) << "buffer 2 is not next: the ring started over at 0";
    RestartCard();
    EXPECT_EQ(Read(kRegInjectEnableMask), 0u);
}

TEST_F(SimInject, LoopbackCutsThePlayedFrameToTheCaptureSizeOrZeroFillsIt) {
    const std::vector<std::uint8_t> played = Frame(0x180000, 0x5A5A0001);  // over a memory page
    const std::uint32_t larger = 0x180000 + 4096;
    HandOver(1, 0, played);
    Enable(1, kFastPeriod);
    ASSERT_TRUE(WaitFor([&] { return Played(1) == 1; }));

    const std::vector<std::uint8_t> stale(larger, 0xFF);
    ASSERT_TRUE(KvPCIeSim::PokeMemory(0, CaptureBufferAddress(1, 1), stale.data(), larger));
    Write(ControlBlock(1) + KvPCIeSim::kCtlCaptureSource, 1);
    Write(ControlBlock(1) + KvPCIeSim::kCtlExternalFrameRate, 0);
    Write(kRegCaptureEnableMask, 2);
    for (const std::uint32_t bytes : {1000u, larger}) {
        Write(CaptureBlock(1) + kCapFrameBytes, bytes);
        ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 1, 1));
    }
    std::vector<std::uint8_t> got(larger, 0xEE);
    ASSERT_TRUE(ReadCard(CaptureBufferAddress(1, 0), got.data(), 1004));
    EXPECT_TRUE(std::equal(got.begin(), got.begin() + 1000, played.begin()));
    EXPECT_EQ(got[1000], 0) << "cut at the capture size";
    ASSERT_TRUE(ReadCard(CaptureBufferAddress(1, 1), got.data(), larger));
    EXPECT_TRUE(std::equal(played.begin(), played.end(), got.begin()));
    EXPECT_TRUE(std::all_of(got.begin() + played.size(), got.end(), [](auto b) { return b == 0; }));
}

TEST_F(SimInject, AStartWhileBusyIsLostAndAShorterCommandLeavesNothingOfTheLonger) {
    const std::uint32_t control = InjectBlock(1) + kInjCommandControl;
    const std::uint32_t data = InjectBlock(1) + kInjCommandData;
    Write(ControlBlock(1) + KvPCIeSim::kCtlCommandBusyMicros, 200000);
    Write(data, 0x44332211);
    Write(data + 4, 0xEEFF6655);
    Write(control, kCommandBusy | 5);
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlCommandsTaken), 1u);
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlLastCommand + 4), 0x6655u);

    Write(data, 0x99999999);
    Write(control, kCommandBusy);
    EXPECT_EQ(Read(control), kCommandBusy | 5) << "a start while busy is lost";
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlCommandsTaken), 1u);
    ASSERT_TRUE(WaitFor([&] { return (Read(control) & kCommandBusy) == 0; }));
    EXPECT_EQ(Read(control), 5u);
    Write(ControlBlock(1) + KvPCIeSim::kCtlCommandBusyMicros, 1000);
    Write(control, kCommandBusy);  // one byte
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlCommandsTaken), 2u);
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlLastCommand), 0x99u);
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlLastCommand + 4), 0u);

    ASSERT_TRUE(WaitFor([&] { return Read(control) == 0; }));
    Write(ControlBlock(1) + KvPCIeSim::kCtlCommandBusyMicros, 0xFFFFFFFF);  // never taken
    Write(control, kCommandBusy | 3);
    RestartCard();
    EXPECT_EQ(Read(control), 3u) << "a restarted card is idle";
    Write(ControlBlock(1) + KvPCIeSim::kCtlCommandBusyMicros, 0);
    Write(control, kCommandBusy | kCommandLengthMask);
    EXPECT_EQ(Read(control), kCommandLengthMask) << "no busy time: done at once";
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlLastCommandLength), 1024u);
}

}  // namespace
}  // namespace kvpcie
