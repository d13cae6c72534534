// Frame and status callbacks that call back into the library, each test under a watchdog.
#include "../faults/FaultTestSupport.h"
#include "../inject/InjectTestSupport.h"
#include "../support/Application.h"

#include <QCoreApplication>

namespace kvpcie::testing {
namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 48;
constexpr std::size_t kFrameBytes = kWidth * kHeight * 2;  // Y16

// A sink whose callback runs `onFrame(frames seen so far)` on the library's polling thread.
struct CallingSink : FrameSink {
    using FrameSink::FrameSink;
    std::function<void(int seen)> onFrame;
    std::atomic<int> afterStop{0};
    std::atomic<bool> stopped{false};

    static void OnFrame(int channel, const char* frame, void* context) {
        auto* sink = static_cast<CallingSink*>(context);
        if (sink->stopped) {
            ++sink->afterStop;
        }
        sink->Take(channel, frame, false);
        if (sink->onFrame) {
            sink->onFrame(sink->delivered);
        }
    }
};

class Reentrant : public InjectTest {
protected:
    // A deadlock in a callback ends the process, naming the test.
    const Watchdog watchdog_{"the test"};

    bool StartQuiet(int channel, CallingSink& sink) {
        return StartQuietCapture(channel, kWidth, kHeight, &CallingSink::OnFrame, sink);
    }
};

TEST_F(Reentrant, AStopOfTheOwnChannelTakesEffectWhenTheCallbackReturns) {
    const unsigned idleCores = FreeCores();
    CallingSink sink(kFrameBytes);
    sink.onFrame = [&](int seen) {
        if (seen == 3) {
            manager.StopCapture(0);
            sink.stopped = true;
        }
    };
    ASSERT_TRUE(StartQuiet(0, sink));
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 0, 6));
    ASSERT_TRUE(WaitFor([&] { return sink.stopped.load(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(sink.delivered, 3);
    EXPECT_EQ(sink.afterStop, 0);
    EXPECT_FALSE(manager.IsStartCapture(0));
    // Every frame handed to the callback is counted, the one that stopped the channel too.
    EXPECT_EQ(CaptureStats(0).framesDelivered, 3u);
    // The last channel stopped: once the callback has returned, the polling thread has
    // ended and every core the capture took is free again.
    EXPECT_TRUE(WaitFor([&] { return FreeCores() == idleCores; }))
        << FreeCores() << " cores free, " << idleCores << " before the capture";
    // A new polling thread serves the next start from the control thread.
    CallingSink next(kFrameBytes);
    ASSERT_TRUE(StartQuiet(0, next));
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 0, 2));
    EXPECT_TRUE(WaitFor([&] { return next.delivered == 2; }));
    EXPECT_EQ(next.badFrames, 0);
    manager.StopCapture(0);
}

TEST_F(Reentrant, ARestartOfTheOwnChannelDeliversTheNewRunToTheNewContext) {
    CallingSink first(kFrameBytes);
    CallingSink second(kFrameBytes);
    first.onFrame = [&](int seen) {
        if (seen == 2) {
            eErrorCode error = ERR_NO_CARD;
            manager.StopCapture(0);
            EXPECT_TRUE(manager.StartCapture(0, false, kWidth, kHeight, Y16, error,
                                             &CallingSink::OnFrame, &second, second.buffer.data()));
            EXPECT_EQ(error, ERR_NONE);
            first.stopped = true;
        }
    };
    ASSERT_TRUE(StartQuiet(0, first));
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 0, 5));
    ASSERT_TRUE(WaitFor([&] { return first.stopped.load(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(first.delivered, 2);
    EXPECT_EQ(first.afterStop, 0);
    // The card started the channel afresh: its frames start again at 0.
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 0, 3));
    ASSERT_TRUE(WaitFor([&] { return second.delivered == 3; }));
    EXPECT_EQ(second.badFrames, 0);
    EXPECT_EQ(second.Numbers(), (std::vector<std::uint32_t>{0, 1, 2}));
    // The counts start again with the new run: the frame of the old one is not among them.
    EXPECT_EQ(CaptureStats(0).framesDelivered, 3u);
    manager.StopCapture(0);
}

TEST_F(Reentrant, OtherChannelsRecordingsCommandsAndInjectionFromInsideACallback) {
    CallingSink sink(kFrameBytes);
    CallingSink other(kFrameBytes);
    std::vector<char> frame(kFrameBytes, 5);
    std::atomic<int> steps{0};
    sink.onFrame = [&](int seen) {
        eErrorCode error = ERR_NO_CARD;
        if (seen == 1) {
            Write(ControlBlock(1) + kCtlExternalRate, 0);
            EXPECT_TRUE(manager.StartCapture(1, false, kWidth, kHeight, Y16, error,
                                             &CallingSink::OnFrame, &other, other.buffer.data()));
            EXPECT_TRUE(manager.StartRecord(0));
            EXPECT_TRUE(manager.StartInject(2, 25, kWidth, kHeight, Y16, 0, frame.data(), error));
            EXPECT_TRUE(manager.WriteControlCmd(0, QByteArray(4, 1)));
            ++steps;
        } else if (seen == 2) {
            manager.ImgSnapShot(0);
            manager.StopRecord(0);
            manager.StopCapture(1);
            manager.StopInject(2);
            CaptureStats(0);
            ++steps;
        }
    };
    ASSERT_TRUE(StartQuiet(0, sink));
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 0, 1));
    ASSERT_TRUE(WaitFor([&] { return steps == 1; }));
    EXPECT_TRUE(manager.IsStartCapture(1));
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 1, 2));
    ASSERT_TRUE(WaitFor([&] { return other.delivered == 2; }));
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 0, 1));
    ASSERT_TRUE(WaitFor([&] { return steps == 2; }));
    EXPECT_FALSE(manager.IsStartCapture(1));
    EXPECT_FALSE(manager.IsStartInject(2));
    // The recording held the one frame that came while it ran.
    EXPECT_EQ(CaptureStats(0).framesRecorded, 1u);
    manager.StopCapture(0);
}

TEST_F(Reentrant, CloseCardAndOpenCardInsideAFrameCallbackAreRefused) {
    CallingSink sink(kFrameBytes);
    std::string closeText;
    std::string openText;
    bool opened = true;
    sink.onFrame = [&](int) {
        manager.CloseCard();
        closeText = manager.LastErrorText();
        opened = manager.OpenCard(path);
        openText = manager.LastErrorText();
        sink.stopped = true;
    };
    ASSERT_TRUE(StartQuiet(0, sink));
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 0, 1));
    ASSERT_TRUE(WaitFor([&] { return sink.stopped.load(); }));
    sink.onFrame = nullptr;
    EXPECT_FALSE(opened);
    EXPECT_NE(closeText.find("CloseCard is refused inside a frame or status callback"),
              std::string::npos)
        << closeText;
    EXPECT_NE(openText.find("OpenCard is refused"), std::string::npos) << openText;
    // Nothing happened to the card or the channel.
    EXPECT_EQ(manager.ReadReg(KvPCIeSim::kRegIdentity), KvPCIeSim::kIdentityValue);
    EXPECT_TRUE(manager.IsStartCapture(0));
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 0, 1));
    EXPECT_TRUE(WaitFor([&] { return sink.delivered == 2; }));
    manager.StopCapture(0);
}

class ReentrantStatus : public Reentrant {
protected:
    void SetUp() override {
        Application();
        Reentrant::SetUp();
    }
};

TEST_F(ReentrantStatus, AStatusCallbackMayStopAndStartCaptureButNotCloseTheCard) {
    struct Context {
        PCIeDataManager* manager = nullptr;
        std::function<bool()> restart;
        int calls = 0;
        bool restarted = false;
        std::string closeText;
    };
    CallingSink sink(kFrameBytes);
    Context context;
    context.manager = &manager;
    context.restart = [&] { return StartQuiet(3, sink); };
    ASSERT_TRUE(StartQuiet(3, sink));
    manager.SetSystemStatusCallback(
        3,
        [](int, const QByteArray&, void* raw) {
            auto* c = static_cast<Context*>(raw);
            ++c->calls;
            c->manager->CloseCard();
            c->closeText = c->manager->LastErrorText();
            c->manager->StopCapture(3);
            c->restarted = c->restart();
        },
        &context, true);
    Write(ControlBlock(3) + KvPCIeSim::kCtlPostStatus, 4);
    ASSERT_TRUE(WaitFor([&] {
        QCoreApplication::processEvents();
        return context.calls == 1;
    }));
    EXPECT_TRUE(context.restarted);
    EXPECT_NE(context.closeText.find("refused"), std::string::npos) << context.closeText;
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 3, 1));
    EXPECT_TRUE(WaitFor([&] { return sink.delivered == 1; }));
    manager.SetSystemStatusCallback(3, nullptr, nullptr, false);
    manager.StopCapture(3);
}

}  // namespace
}  // namespace kvpcie::testing
