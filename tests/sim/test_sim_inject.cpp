// The inject side of the simulated XDMA card, seen through the host's device files: the ring of
// handed-over buffers, underruns, enable and restart, loopback into capture, the delay read-back
// and the command mailbox.
#include "../support/WaitFor.h"
#include "SimCardTest.h"

#include "platform/DeviceFile.h"
#include "platform/DeviceInterfaces.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaCardRegisters.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

namespace kvpcie {
namespace {

using namespace std::chrono_literals;
using testing::WaitFor;
using namespace xdma;
using KvPCIeSim::ControlBlock;

constexpr std::uint32_t kFastPeriod = 300000;  // 3 ms of the timing clock

class SimInject : public SimCardTest {
protected:
    std::uint32_t Ctl(unsigned channel, std::uint32_t offset) {
        return Read(ControlBlock(channel) + offset);
    }
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

// --- the ring ---

TEST_F(SimInject, HandedOverBuffersPlayInRingOrderAndComeBackFree) {
    Enable(0, kFastPeriod);
    // One buffer ready at a time: a card looking anywhere but the next buffer would stall.
    for (std::uint32_t round = 0; round < 10; ++round) {
        const unsigned buffer = round % kCardBufferCount;
        HandOver(0, buffer, Frame(64 + round, 0xC0DE0000 + round));
        ASSERT_TRUE(WaitFor([&] { return Played(0) == round + 1; })) << round;
        EXPECT_EQ(Status(0, buffer), 0u);
        EXPECT_EQ(Head(0), 0xC0DE0000 + round);
    }
    HandOver(0, 2, {0xAA, 0xBB});
    ASSERT_TRUE(WaitFor([&] { return Played(0) == 11; }));
    EXPECT_EQ(Head(0), 0xBBAAu) << "zero-filled past the frame";

    Write(ControlBlock(0) + KvPCIeSim::kCtlInjectPlayed, 0);
    Write(ControlBlock(0) + KvPCIeSim::kCtlLastInjectHead, 0);
    EXPECT_EQ(Played(0), 11u) << "the card's own record";
    EXPECT_EQ(Head(0), 0xBBAAu);
}

TEST_F(SimInject, ABufferNotHandedOverHoldsTheRingAndCountsUnderruns) {
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
    EXPECT_GE(Underruns(0), 3u);
}

TEST_F(SimInject, DisablingStopsThePlayAndReenablingStartsOverAtBufferZero) {
    Enable(0, kFastPeriod);
    Enable(1, kFastPeriod);  // its ticks show the clock still running
    HandOver(0, 0, Frame(16, 0x100));
    HandOver(0, 1, Frame(16, 0x101));
    ASSERT_TRUE(WaitFor([&] { return Played(0) == 2; }));

    Write(kRegInjectEnableMask, 2);
    HandOver(0, 2, Frame(16, 0x102));
    const std::uint32_t ticks = Underruns(1);
    ASSERT_TRUE(WaitFor([&] { return Underruns(1) >= ticks + 3; }));
    EXPECT_EQ(Played(0), 2u);
    EXPECT_EQ(Status(0, 2), kStatusInjectReady);

    // At the default 25 per second the first tick is far enough off to see the counts reset.
    Write(InjectBlock(0) + kInjFramePeriod, 0);
    Write(kRegInjectEnableMask, 3);
    EXPECT_EQ(Played(0), 0u);
    EXPECT_EQ(Underruns(0), 0u);
    Write(InjectBlock(0) + kInjFramePeriod, kFastPeriod);
    HandOver(0, 0, Frame(16, 0x200));
    ASSERT_TRUE(WaitFor([&] { return Played(0) == 1; }));
    EXPECT_EQ(Head(0), 0x200u);
    const std::uint32_t afterPlay = Underruns(0);
    ASSERT_TRUE(WaitFor([&] { return Underruns(0) >= afterPlay + 2; }));
    EXPECT_EQ(Played(0), 1u) << "buffer 2 is not next: the ring started over at 0";

    platform::RestartXilinxDevices();
    EXPECT_EQ(Read(kRegInjectEnableMask), 0u);
    HandOver(0, 1, Frame(16, 0x201));
    Enable(1, kFastPeriod);
    ASSERT_TRUE(WaitFor([&] { return Underruns(1) >= 3; }));
    EXPECT_EQ(Played(0), 1u) << "the restart stopped channel 0";
}

// --- what the card does with the frames ---

TEST_F(SimInject, LoopbackCaptureRepeatsThePlayedFrameCutOrZeroFilled) {
    const std::vector<std::uint8_t> small = Frame(3000, 0x5A5A0001);
    const std::vector<std::uint8_t> large = Frame(3 << 20, 0x5A5A0002);
    const std::uint32_t largeCapture = static_cast<std::uint32_t>(large.size()) + 4096;
    HandOver(1, 0, small);
    HandOver(2, 0, large);
    Write(InjectBlock(1) + kInjFramePeriod, kFastPeriod);
    Write(InjectBlock(2) + kInjFramePeriod, kFastPeriod);
    Write(kRegInjectEnableMask, 6);
    ASSERT_TRUE(WaitFor([&] { return Played(1) == 1 && Played(2) == 1; }));

    const std::vector<std::uint8_t> stale(largeCapture, 0xFF);
    ASSERT_TRUE(KvPCIeSim::PokeMemory(0, CaptureBufferAddress(2, 0), stale.data(), stale.size()));
    const std::pair<unsigned, std::uint32_t> captures[] = {{1, 1000}, {2, largeCapture}};
    for (const auto& [channel, bytes] : captures) {
        Write(ControlBlock(channel) + KvPCIeSim::kCtlCaptureSource, 1);
        Write(CaptureBlock(channel) + kCapFrameBytes, bytes);
        Write(CaptureBlock(channel) + kCapSyncMode, 1);
        Write(CaptureBlock(channel) + kCapFramePeriod, 500000);
    }
    Write(kRegCaptureEnableMask, 6);
    const auto produced = [&](unsigned channel) {
        return Ctl(channel, KvPCIeSim::kCtlFramesProduced);
    };
    // Two frames on channel 1: the second comes after ticks that played nothing.
    ASSERT_TRUE(WaitFor([&] { return produced(1) >= 2 && produced(2) >= 1; }));

    std::vector<std::uint8_t> got(1000);
    for (unsigned buffer : {0u, 1u}) {
        ASSERT_TRUE(ReadCard(CaptureBufferAddress(1, buffer), got.data(), 1000));
        EXPECT_TRUE(std::equal(got.begin(), got.end(), small.begin())) << buffer;
    }
    got.assign(largeCapture, 0xEE);
    ASSERT_TRUE(ReadCard(CaptureBufferAddress(2, 0), got.data(), largeCapture));
    EXPECT_TRUE(std::equal(large.begin(), large.end(), got.begin()));
    EXPECT_TRUE(std::all_of(got.begin() + large.size(), got.end(), [](auto b) { return b == 0; }));
}

TEST_F(SimInject, DelayCountersMeasureTheHandOverAndThePlay) {
    const auto delay = [&](unsigned buffer, std::uint32_t selector) {
        Write(InjectBlock(3) + InjBufferDelay(buffer), selector << kDelaySelectorShift);
        const std::uint32_t value = Read(InjectBlock(3) + InjBufferDelay(buffer));
        EXPECT_EQ(value >> kDelaySelectorShift, selector);
        return value & kDelayCountMask;
    };
    HandOver(3, 0, Frame(4096, 1));
    Enable(3, kFastPeriod);
    ASSERT_TRUE(WaitFor([&] { return Played(3) == 1; }));
    HandOver(3, 1, Frame(4096, 2));
    ASSERT_TRUE(WaitFor([&] { return Played(3) == 2; }));

    EXPECT_GT(delay(0, 0), 0u);  // the frame went in between the two status writes
    const std::uint32_t readyToPlay = delay(0, 1);
    EXPECT_GT(readyToPlay, 0u);
    EXPECT_GE(delay(0, 3), readyToPlay);
    EXPECT_GE(delay(0, 3), delay(0, 0));
    EXPECT_EQ(delay(0, 2), 0u) << "the first play since the enable";
    EXPECT_GT(delay(1, 2), 0u);
    EXPECT_EQ(delay(1, 9), 0u);
    EXPECT_EQ(delay(5, 1), 0u) << "never played";

    Write(InjectBlock(3) + InjBufferStatus(0), kStatusHostWriting);
    EXPECT_EQ(delay(0, 1), readyToPlay) << "kept while the host fills the buffer again";
}

// --- the command mailbox ---

TEST_F(SimInject, TheCardTakesACommandAndIgnoresStartsWhileBusy) {
    const std::uint32_t control = InjectBlock(1) + kInjCommandControl;
    const std::uint32_t data = InjectBlock(1) + kInjCommandData;
    Write(ControlBlock(1) + KvPCIeSim::kCtlCommandBusyMicros, 200000);
    Write(data, 0x44332211);
    Write(data + 4, 0xEEFF6655);
    Write(control, kCommandBusy | 5);
    EXPECT_EQ(Read(control), kCommandBusy | 5);
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlCommandsTaken), 1u);
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlLastCommandLength), 6u);
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlLastCommand), 0x44332211u);
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlLastCommand + 4), 0x6655u);
    EXPECT_EQ(Ctl(0, KvPCIeSim::kCtlCommandsTaken), 0u);

    Write(data, 0x99999999);
    Write(control, kCommandBusy);
    EXPECT_EQ(Read(control), kCommandBusy | 5) << "a start while busy is lost";
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlCommandsTaken), 1u);
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlLastCommand), 0x44332211u);

    ASSERT_TRUE(WaitFor([&] { return (Read(control) & kCommandBusy) == 0; }));
    EXPECT_EQ(Read(control), 5u);
    Write(control, kCommandBusy);  // one byte
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlCommandsTaken), 2u);
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlLastCommandLength), 1u);
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlLastCommand), 0x99u);
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlLastCommand + 4), 0u) << "nothing left of the longer one";

    Write(ControlBlock(1) + KvPCIeSim::kCtlCommandsTaken, 0);
    Write(ControlBlock(1) + KvPCIeSim::kCtlLastCommand, 0x1234);
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlCommandsTaken), 2u);
    EXPECT_EQ(Ctl(1, KvPCIeSim::kCtlLastCommand), 0x99u);
}

TEST_F(SimInject, AFullCommandFillsTheWholeRecord) {
    const std::uint32_t data = InjectBlock(2) + kInjCommandData;
    for (std::uint32_t word = 0; word < kCommandMaxBytes / 4; ++word) {
        Write(data + word * 4, 0x01010101 * word + 0x10203);
    }
    Write(InjectBlock(2) + kInjCommandControl, kCommandBusy | kCommandLengthMask);
    EXPECT_EQ(Ctl(2, KvPCIeSim::kCtlLastCommandLength), 1024u);
    for (std::uint32_t word : {0u, 100u, 255u}) {
        EXPECT_EQ(Ctl(2, KvPCIeSim::kCtlLastCommand + word * 4), 0x01010101 * word + 0x10203);
    }
}

TEST_F(SimInject, ACardThatNeverTakesACommandLeavesTheStartSet) {
    const std::uint32_t control = InjectBlock(0) + kInjCommandControl;
    Write(ControlBlock(0) + KvPCIeSim::kCtlCommandBusyMicros, 0xFFFFFFFF);
    Write(control, kCommandBusy | 3);
    Enable(0, kFastPeriod);  // its ticks show time passing
    ASSERT_TRUE(WaitFor([&] { return Underruns(0) >= 5; }));
    EXPECT_EQ(Read(control), kCommandBusy | 3);
    EXPECT_EQ(Ctl(0, KvPCIeSim::kCtlCommandsTaken), 0u);
    EXPECT_EQ(Ctl(0, KvPCIeSim::kCtlLastCommandLength), 0u);

    Write(control, 3);  // the host gives up
    EXPECT_EQ(Read(control), 3u);
    Write(control, kCommandBusy | 3);
    platform::RestartXilinxDevices();
    EXPECT_EQ(Read(control), 3u) << "a restarted card is idle";

    Write(ControlBlock(0) + KvPCIeSim::kCtlCommandBusyMicros, 0);
    Write(control, kCommandBusy | 3);
    EXPECT_EQ(Read(control), 3u) << "no busy time: done at once";
    EXPECT_EQ(Ctl(0, KvPCIeSim::kCtlCommandsTaken), 1u);
    EXPECT_EQ(Ctl(0, KvPCIeSim::kCtlLastCommandLength), 4u);
}

}  // namespace
}  // namespace kvpcie
