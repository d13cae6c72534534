// Faults of the card through the facade: nothing hangs, and every frame lost was counted by the
// card or refused with a result.
#include "FaultTestSupport.h"

#include <algorithm>
#include <string>

namespace kvpcie::testing {
namespace {

using KvPCIeSim::kCtlCommandsTaken;
using KvPCIeSim::kCtlFramesDropped;
using KvPCIeSim::kCtlInjectPlayed;
using KvPCIeSim::kCtlInjectUnderruns;

TEST_F(FaultTest, AChannelWithoutItsEventFileIsCapturedByPollingAndStopsAtOnce) {
    KVPCIE_IN_PROCESS_CARD_ONLY("the test makes a device file absent");
    ASSERT_TRUE(KvPCIeSim::SetNodeAbsent(kCard, "event_2", true));
    GuardedSink sink;
    ASSERT_TRUE(StartCapture(2, sink, 200));
    ASSERT_TRUE(WaitFor([&] { return sink.delivered >= 50; }, std::chrono::seconds(20)));
    // The event thread's read fails at once and keeps failing: the stop must not wait on it.
    ReturnsWithin(
        "StopCapture without an event file", [&] { manager.StopCapture(2); },
        std::chrono::seconds(2));
    sink.stopped = true;
    ExpectNoUncountedLoss(2, sink);
}

TEST_F(FaultTest, ACaptureStatusThatNeverClearsStallsTheRingAndTheCardCountsWhatItLost) {
    KVPCIE_IN_PROCESS_CARD_ONLY("the test produces frames on demand");
    GuardedSink sink;
    ASSERT_TRUE(StartCapture(1, sink, 0));
    Write(ControlBlock(1) + KvPCIeSim::kCtlStuckCaptureBuffer, 1);  // buffer 0
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 1, 1));
    ASSERT_TRUE(WaitFor([&] { return sink.delivered == 1; }));
    // Frames 1 to 7 fill the rest of the ring; frame 8 finds buffer 0 still held, and so does
    // every frame after it, since the card fills its buffers in ring order.
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 1, 8));
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 1, 8));
    constexpr std::uint32_t kProduced = 1 + 8 + 8;
    ASSERT_TRUE(WaitFor([&] { return Peek(ControlBlock(1) + kCtlFramesDropped) == 9; }));
    // The host reads the stuck buffer once more, then waits on buffer 1 for good.
    ASSERT_TRUE(WaitFor([&] { return sink.delivered == 9; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const std::vector<std::uint32_t> numbers = sink.Numbers();
    ASSERT_EQ(numbers.size(), 9u);
    EXPECT_EQ(sink.badFrames, 0);
    std::vector<std::uint32_t> distinct = numbers;
    std::sort(distinct.begin(), distinct.end());
    distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
    // The host sees the fault as frame 0 coming back; every frame made is either delivered or
    // counted as dropped by the card.
    EXPECT_EQ(numbers.back(), 0u);
    EXPECT_EQ(distinct.size() + Peek(ControlBlock(1) + kCtlFramesDropped), kProduced);

    // Once the card lets go, a restart of the channel clears the ring and frames flow again.
    StopCapture(1, sink);
    Write(ControlBlock(1) + KvPCIeSim::kCtlStuckCaptureBuffer, 0);
    ExpectCaptureWorks(1, 20);
}

TEST_F(FaultTest, AnInjectStatusThatNeverClearsFillsTheQueueAndFramesAreRefused) {
    KVPCIE_IN_PROCESS_CARD_ONLY("the test sets a buffer status without the card acting on it");
    std::vector<char> frame(kFaultFrameBytes, 7);
    eErrorCode error = ERR_NO_CARD;
    ASSERT_TRUE(Inject(3, frame, error));
    // The card holds buffer 1 for good: it is never played and never handed back. The card
    // plays its ring in order, so once it reaches buffer 1 it counts an underrun every period
    // and frees no buffer any more. The status is set until that happens: the worker may be
    // handing buffer 1 over just then, and its "ready" would overwrite a single setting.
    ASSERT_TRUE(WaitFor([&] {
        EXPECT_TRUE(KvPCIeSim::PokeRegister(kCard, InjectStatus(3, 1), 1));
        return Peek(ControlBlock(3) + kCtlInjectUnderruns) > 0;
    }));
    int accepted = 1;
    ASSERT_TRUE(WaitFor(
        [&] {
            if (Inject(3, frame, error)) {
                ++accepted;
                return false;
            }
            return true;
        },
        std::chrono::seconds(10)));
    EXPECT_EQ(error, ERR_QUEUE_FULL);
    EXPECT_GE(accepted, 15);
    // The queue stays full: the frames wait there rather than go anywhere.
    const std::uint32_t underruns = Peek(ControlBlock(3) + kCtlInjectUnderruns);
    ASSERT_TRUE(
        WaitFor([&] { return Peek(ControlBlock(3) + kCtlInjectUnderruns) > underruns + 2; }));
    EXPECT_FALSE(Inject(3, frame, error));
    EXPECT_EQ(error, ERR_QUEUE_FULL);

    ReturnsWithin("StopInject on a stuck ring", [&] { manager.StopInject(3); });
    // A new start programs the ring afresh, and frames are played again.
    ASSERT_TRUE(KvPCIeSim::PokeRegister(kCard, InjectStatus(3, 1), 0));
    ASSERT_TRUE(Inject(3, frame, error));
    const std::uint32_t played = Peek(ControlBlock(3) + kCtlInjectPlayed);
    EXPECT_TRUE(WaitFor([&] { return Peek(ControlBlock(3) + kCtlInjectPlayed) > played + 2; }));
    ReturnsWithin("StopInject", [&] { manager.StopInject(3); });
}

TEST_F(FaultTest, ACardRemovedDuringCaptureInjectionAndCommandsIsLostClosesAndReopens) {
    const auto sinks = StartSinks(2, 200);
    std::atomic<bool> running{true};
    std::atomic<int> injected{0};
    std::thread feeder([&] {
        std::vector<char> frame(kFaultFrameBytes, 3);
        eErrorCode error = ERR_NONE;
        while (running) {
            for (int channel = 2; channel < 4; ++channel) {
                if (Inject(channel, frame, error)) {
                    ++injected;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    std::thread commander([&] {
        while (running) {
            manager.WriteControlCmd(2, QByteArray(32, 9));
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
    });
    ASSERT_TRUE(WaitFor([&] { return AllDelivered(sinks, 20) && injected > 20; },
                        std::chrono::seconds(20)));

    ASSERT_TRUE(DropCardOffTheBus(kCard));
    // The capture's next transfer finds it gone (the counts say so: test_card_lost).
    ASSERT_TRUE(WaitFor([&] { return manager.IsCardLost(); }));
    // The calls that reach the card say so.
    EXPECT_NE(manager.WriteReg(ControlBlock(0) + KvPCIeSim::kCtlExternalFrameRate, 200), 4);
    unsigned value = 7;
    EXPECT_FALSE(manager.ReadReg(KvPCIeSim::kRegIdentity, value));
    EXPECT_EQ(value, 0u);
    EXPECT_NE(std::string(manager.LastErrorText()).find("is gone"), std::string::npos)
        << manager.LastErrorText();
    // Nothing more is handed to the card, once a transfer that was under way has ended.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    KvInjectStatistics inject;
    ASSERT_TRUE(manager.GetInjectStatistics(2, inject));
    EXPECT_TRUE(inject.cardLost);
    const std::uint64_t toCardAtRemoval = inject.framesToCard;
    const int deliveredAtRemoval = sinks[0]->delivered + sinks[1]->delivered;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    ASSERT_TRUE(manager.GetInjectStatistics(2, inject));
    EXPECT_EQ(inject.framesToCard, toCardAtRemoval);
    // At most the frames whose reads were under way can still arrive; none of them is garbage.
    EXPECT_LE(sinks[0]->delivered + sinks[1]->delivered, deliveredAtRemoval + 2);
    running = false;
    feeder.join();
    commander.join();

    ReturnsWithin("CloseCard of a removed card", [&] { manager.CloseCard(); });
    for (const auto& sink : sinks) {
        sink->stopped = true;
        EXPECT_EQ(sink->badFrames, 0);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    for (const auto& sink : sinks) {
        EXPECT_EQ(sink->lateFrames, 0);
    }

    // The reopen restarts the device, which brings the card back.
    ASSERT_TRUE(manager.OpenCard(path));
    EXPECT_FALSE(manager.IsCardLost());
    EXPECT_EQ(manager.ReadReg(KvPCIeSim::kRegIdentity), KvPCIeSim::kIdentityValue);
    ExpectCaptureWorks(0, 10);
    std::vector<char> frame(kFaultFrameBytes, 5);
    eErrorCode error = ERR_NO_CARD;
    ASSERT_TRUE(Inject(2, frame, error));
    EXPECT_TRUE(WaitFor([&] { return Peek(ControlBlock(2) + kCtlInjectPlayed) > 0; }));
    const std::uint32_t taken = Peek(ControlBlock(2) + kCtlCommandsTaken);
    EXPECT_TRUE(manager.WriteControlCmd(2, QByteArray(4, 1)));
    EXPECT_TRUE(WaitFor([&] { return Peek(ControlBlock(2) + kCtlCommandsTaken) > taken; }));
}

}  // namespace
}  // namespace kvpcie::testing
