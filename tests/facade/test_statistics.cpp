// Stream statistics through the facade, each count checked against the simulated card's own.
#include "../inject/InjectTestSupport.h"
#include "../support/Application.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>

#include <KvPCIeInjectSdk/KvPCIeRecording.h>

#include <atomic>
#include <thread>

namespace kvpcie::testing {
namespace {

using KvPCIeSim::kCtlCommandsTaken;
using KvPCIeSim::kCtlErrorFrameEvery;
using KvPCIeSim::kCtlFramesProduced;
using KvPCIeSim::kCtlInjectPlayed;

constexpr int kWidth = 64;
constexpr int kHeight = 48;
constexpr std::size_t kFrameBytes = kWidth * kHeight * 2;  // Y16

// Without an application object: recordings then go below the scratch directory.
class Statistics : public InjectTest {
protected:
    bool StartQuiet(int channel, FrameSink& sink) {
        return StartQuietCapture(channel, kWidth, kHeight, &FrameSink::OnFrameEx, sink);
    }
};

TEST_F(Statistics, CaptureCountsMatchTheCardsAndStartAgainWithEachStart) {
    FrameSink sink(kFrameBytes);
    ASSERT_TRUE(StartQuiet(2, sink));
    EXPECT_STREQ(manager.LastErrorText(), "");
    KvCaptureStatistics stats = CaptureStats(2);
    EXPECT_EQ(stats.framesDelivered, 0u);
    EXPECT_EQ(stats.lastCardBuffer, -1);

    Write(ControlBlock(2) + kCtlErrorFrameEvery, 3);
    Write(ControlBlock(2) + kCtlDmaFaults, 2);
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 2, 8));
    ASSERT_TRUE(WaitFor([&] { return CaptureStats(2).framesDelivered == 6; }));
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 2, 3));
    // Counted as the callback is called; the sink counts inside it.
    ASSERT_TRUE(
        WaitFor([&] { return CaptureStats(2).framesDelivered == 9 && sink.delivered == 9; }));
    stats = CaptureStats(2);
    EXPECT_EQ(Peek(ControlBlock(2) + kCtlFramesProduced), 11u);
    EXPECT_EQ(Peek(ControlBlock(2) + kCtlFramesDropped), 0u);
    EXPECT_EQ(stats.framesDelivered, static_cast<std::uint64_t>(sink.delivered.load()));
    EXPECT_EQ(stats.framesFailed, 2u);
    // Frames 2, 5 and 8 are flagged; the two that failed (0 and 1) were not.
    std::uint64_t flagged = 0;
    {
        std::lock_guard<std::mutex> lock(sink.mutex);
        for (bool flag : sink.flags) {
            flagged += flag ? 1 : 0;
        }
    }
    EXPECT_EQ(flagged, 3u);
    EXPECT_EQ(stats.errorFrames, flagged);
    EXPECT_EQ(stats.lastCardBuffer, 10 % 8);
    EXPECT_EQ(stats.framesRecorded + stats.framesNotRecorded, 0u);

    // A start begins every frame count again; the card's own counts too.
    manager.StopCapture(2);
    EXPECT_EQ(CaptureStats(2).framesDelivered, 9u) << "kept after the stop";
    EXPECT_EQ(CaptureStats(2).framesPerSecond, 0.0);
    FrameSink again(kFrameBytes);
    ASSERT_TRUE(StartQuiet(2, again));
    stats = CaptureStats(2);
    EXPECT_EQ(stats.framesDelivered + stats.framesFailed + stats.errorFrames, 0u);
    EXPECT_EQ(stats.lastCardBuffer, -1);
    manager.StopCapture(2);
}

TEST_F(Statistics, TheLongestCallbackAndTheRateAreMeasured) {
    struct SlowSink : FrameSink {
        using FrameSink::FrameSink;
        static void OnFrame(int channel, const char* frame, void* context) {
            auto* sink = static_cast<SlowSink*>(context);
            if (sink->delivered == 3) {
                std::this_thread::sleep_for(std::chrono::milliseconds(15));
            }
            sink->Take(channel, frame, false);
        }
    } sink(kFrameBytes);
    Write(ControlBlock(1) + kCtlExternalRate, 50);
    eErrorCode error = ERR_NO_CARD;
    ASSERT_TRUE(manager.StartCapture(1, false, kWidth, kHeight, Y16, error, &SlowSink::OnFrame,
                                     &sink, sink.buffer.data()));
    ASSERT_TRUE(
        WaitFor([&] { return CaptureStats(1).framesPerSecond > 0.0; }, std::chrono::seconds(5)));
    const KvCaptureStatistics stats = CaptureStats(1);
    manager.StopCapture(1);
    EXPECT_GE(stats.callbackMicrosMax, 15000u);
    EXPECT_LT(stats.callbackMicrosMax, 5000000u);
    // Over a whole second of a 50 fps source: the card drops what the host does not take.
    EXPECT_GT(stats.framesPerSecond, 5.0);
    EXPECT_LE(stats.framesPerSecond, 60.0);
}

// Status blocks are delivered from the event loop of the thread that opened the card.
class StatusStatistics : public Statistics {
protected:
    void SetUp() override {
        Application();
        Statistics::SetUp();
    }
};

// Blocks posted before the event loop runs: whole ones are kept while below 1,536 bytes.
struct StatusFill {
    std::vector<int> blocks;
    std::uint64_t delivered;
    std::uint64_t dropped;
};

void PrintTo(const StatusFill& fill, std::ostream* out) {
    *out << fill.blocks.size() << " blocks";
}

class StatusBufferFill : public StatusStatistics,
                         public ::testing::WithParamInterface<StatusFill> {};

TEST_P(StatusBufferFill, WholeBlocksAreKeptWhileTheyFitAndTheRestIsCounted) {
    const StatusFill& fill = GetParam();
    std::vector<QByteArray> blocks;
    manager.SetSystemStatusCallback(
        0,
        [](int, const QByteArray& data, void* context) {
            static_cast<std::vector<QByteArray>*>(context)->push_back(data);
        },
        &blocks, true);
    for (int length : fill.blocks) {
        Write(ControlBlock(0) + KvPCIeSim::kCtlPostStatus, static_cast<std::uint32_t>(length));
    }
    // The card posts its next block only once the host has taken the one before.
    ASSERT_TRUE(WaitFor([&] {
        const KvCaptureStatistics stats = CaptureStats(0);
        return stats.statusBytesDropped == fill.dropped &&
               (Peek(CaptureBlock(0) + 0x028) & 0x400) == 0;
    }));
    ASSERT_TRUE(WaitFor([&] {
        QCoreApplication::processEvents();
        return CaptureStats(0).statusBytesDelivered >= fill.delivered;
    }));
    const KvCaptureStatistics stats = CaptureStats(0);
    EXPECT_EQ(stats.statusBytesDelivered, fill.delivered);
    EXPECT_EQ(stats.statusBytesDropped, fill.dropped);
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(static_cast<std::uint64_t>(blocks[0].size()), fill.delivered);
    manager.SetSystemStatusCallback(0, nullptr, nullptr, false);
}

INSTANTIATE_TEST_SUITE_P(Blocks, StatusBufferFill,
                         ::testing::Values(StatusFill{{1024, 1024}, 1024, 1024},
                                           StatusFill{{1024, 511}, 1535, 0},
                                           StatusFill{{1024, 512}, 1024, 512},
                                           StatusFill{{1024, 512, 1}, 1025, 512},
                                           StatusFill{{1024, 511, 1}, 1535, 1},
                                           StatusFill{{1000, 1000}, 1000, 1000}),
                         [](const ::testing::TestParamInfo<StatusFill>& info) {
                             std::string name;
                             for (int length : info.param.blocks) {
                                 name += (name.empty() ? "" : "_then_") + std::to_string(length);
                             }
                             return name;
                         });

TEST_F(StatusStatistics, BytesTakenFromTheCardAndSwitchedOffBeforeDeliveryCountAsDropped) {
    int calls = 0;
    manager.SetSystemStatusCallback(
        3, [](int, const QByteArray&, void* context) { ++*static_cast<int*>(context); }, &calls,
        true);
    Write(ControlBlock(3) + KvPCIeSim::kCtlPostStatus, 700);
    // Taken from the card's mailbox, not yet delivered: the event loop has not run.
    ASSERT_TRUE(WaitFor([&] { return (Peek(CaptureBlock(3) + 0x028) & 0x400) == 0; }));
    manager.SetSystemStatusCallback(3, nullptr, nullptr, false);
    QCoreApplication::processEvents();
    const KvCaptureStatistics stats = CaptureStats(3);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(stats.statusBytesDelivered, 0u);
    EXPECT_EQ(stats.statusBytesDropped, 700u);
}

TEST_F(Statistics, FramesOnTheirWayAtStopRecordAreWrittenAndEachTakeHasItsOwnFile) {
    FrameSink sink(kFrameBytes);
    ASSERT_TRUE(StartQuiet(0, sink));
    // Two takes within a second, each stopped while its last frame may still be queued.
    for (int take = 0; take < 2; ++take) {
        ASSERT_TRUE(manager.StartRecord(0));
        ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 0, 8));
        ASSERT_TRUE(WaitFor([&] { return sink.delivered == 8 * (take + 1); }));
        manager.StopRecord(0);
    }
    const KvCaptureStatistics stats = CaptureStats(0);
    EXPECT_EQ(stats.framesRecorded, 16u);
    EXPECT_EQ(stats.bytesRecorded, 16 * kFrameBytes);
    EXPECT_EQ(stats.framesNotRecorded, 0u);
    const QStringList files = RecordedFiles("VideoRecord/Capture1");
    ASSERT_EQ(files.size(), 2);
    for (int take = 0; take < 2; ++take) {
        QFile file(files[take]);
        EXPECT_TRUE(file.fileName().endsWith("/0_64x48_ParamLine0_Fps25_Y16.raw"));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        ASSERT_EQ(bytes.size(), static_cast<int>(8 * kFrameBytes)) << file.fileName().toStdString();
        for (int k = 0; k < 8; ++k) {
            EXPECT_TRUE(IsPatternFrame(bytes.constData() + k * kFrameBytes, kFrameBytes, 0,
                                       static_cast<std::uint32_t>(8 * take + k)));
        }
    }
    manager.StopCapture(0);
}

TEST_F(Statistics, ARecordingFolderThatCannotBeMadeRefusesStartRecord) {
    FrameSink sink(kFrameBytes);
    ASSERT_TRUE(StartQuiet(1, sink));
    QDir("VideoRecord").removeRecursively();
    QFile blocker("VideoRecord");  // a plain file where the folder should be
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    EXPECT_FALSE(manager.StartRecord(1));
    EXPECT_NE(std::string(manager.LastErrorText()).find("could not be created"), std::string::npos)
        << manager.LastErrorText();
    ASSERT_TRUE(QFile::remove("VideoRecord"));
    EXPECT_TRUE(manager.StartRecord(1));
    EXPECT_STREQ(manager.LastErrorText(), "");
    manager.StopRecord(1);
    manager.StopCapture(1);
}

// A relative root is fixed when chosen, and "" brings the default back.
TEST_F(Statistics, TakesGoBelowTheChosenRootAndCapturingAloneWritesNothing) {
    QDir("VideoRecord").removeRecursively();
    QDir("chosen").removeRecursively();
    KvPCIe::SetRecordRoot("chosen/takes");
    const QString root = QDir::current().absoluteFilePath("chosen/takes");
    EXPECT_EQ(KvPCIe::RecordRoot(), root);
    EXPECT_EQ(manager.GetRecordTakeFolder(2), QString());

    FrameSink sink(kFrameBytes);
    ASSERT_TRUE(StartQuiet(2, sink));
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 2, 2));
    ASSERT_TRUE(WaitFor([&] { return sink.delivered == 2; }));
    EXPECT_FALSE(QDir("chosen").exists());
    EXPECT_FALSE(QDir("VideoRecord").exists());

    ASSERT_TRUE(manager.StartRecord(2));
    const QString take = manager.GetRecordTakeFolder(2);
    EXPECT_TRUE(take.startsWith(root + "/Capture3/")) << take.toStdString();
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 2, 3));
    ASSERT_TRUE(WaitFor([&] { return sink.delivered == 5; }));
    manager.StopRecord(2);
    manager.StopCapture(2);
    EXPECT_EQ(manager.GetRecordTakeFolder(2), take);  // the last take, after the stop too
    EXPECT_EQ(QFileInfo(take + "/0_64x48_ParamLine0_Fps25_Y16.raw").size(),
              static_cast<qint64>(3 * kFrameBytes));

    KvPCIe::SetRecordRoot("");
    EXPECT_EQ(KvPCIe::RecordRoot(), QDir::currentPath() + "/VideoRecord");
    QDir("chosen").removeRecursively();
}

TEST_F(Statistics, InjectCountsMatchTheCardsPlayout) {
    std::vector<char> frame(kFrameBytes, 7);
    eErrorCode error = ERR_NO_CARD;
    int accepted = 0;
    int refused = 0;
    // Offered faster than the card plays at 100 fps: the queue fills and refuses.
    while (accepted < 40) {
        if (manager.StartInject(1, 100, kWidth, kHeight, Y16, 0, frame.data(), error)) {
            ++accepted;
        } else {
            ASSERT_EQ(error, ERR_QUEUE_FULL);
            EXPECT_NE(std::string(manager.LastErrorText()).find("holds 15 frames"),
                      std::string::npos);
            ++refused;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    KvInjectStatistics stats = InjectStats(1);
    EXPECT_EQ(stats.framesQueued, static_cast<std::uint64_t>(accepted));
    EXPECT_EQ(stats.framesRefused, static_cast<std::uint64_t>(refused));
    EXPECT_GT(refused, 0);
    // Let the queue run dry, so periods without a frame come.
    ASSERT_TRUE(WaitFor([&] { return InjectStats(1).framesToCard == 40; }));
    const std::uint64_t emptyBefore = InjectStats(1).periodsWithoutFrame;
    ASSERT_TRUE(WaitFor([&] { return InjectStats(1).periodsWithoutFrame > emptyBefore + 2; }));
    manager.StopInject(1);
    stats = InjectStats(1);
    const std::uint32_t played = Peek(ControlBlock(1) + kCtlInjectPlayed);
    const std::uint64_t handedOver = stats.framesToCard + stats.periodsWithoutFrame;
    // At most the ring of eight was handed over and not yet played when the card stopped.
    EXPECT_LE(played, handedOver);
    EXPECT_LE(handedOver, played + 8u);
    EXPECT_EQ(stats.framesToCard + stats.framesDroppedAtStop, stats.framesQueued);
    EXPECT_EQ(stats.framesToCard, 40u);
    EXPECT_EQ(stats.transfersFailed, 0u);
    EXPECT_EQ(stats.framesWaiting, 0u);
}

TEST_F(Statistics, FramesStillQueuedAtTheStopAreCountedAsDropped) {
    std::vector<char> frame(kFrameBytes, 3);
    eErrorCode error = ERR_NO_CARD;
    // One frame a second: the ring takes eight at once, the queue fifteen more.
    int accepted = 0;
    while (manager.StartInject(0, 1, kWidth, kHeight, Y16, 0, frame.data(), error)) {
        ++accepted;
    }
    EXPECT_GT(InjectStats(0).framesWaiting, 0u);
    manager.StopInject(0);
    const KvInjectStatistics stats = InjectStats(0);
    EXPECT_EQ(stats.framesQueued, static_cast<std::uint64_t>(accepted));
    EXPECT_GT(stats.framesDroppedAtStop, 0u);
    EXPECT_EQ(stats.framesToCard + stats.framesDroppedAtStop, stats.framesQueued);
    // A new start begins the frame counts again.
    ASSERT_TRUE(manager.StartInject(0, 25, kWidth, kHeight, Y16, 0, frame.data(), error));
    EXPECT_EQ(InjectStats(0).framesQueued, 1u);
    EXPECT_EQ(InjectStats(0).framesDroppedAtStop, 0u);
    manager.StopInject(0);
}

TEST_F(Statistics, CommandsAndStatisticsFromOtherThreadsSurviveOpenAndCloseOfTheCard) {
    std::atomic<bool> run{true};
    std::atomic<int> calls{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < 2; ++t) {
        callers.emplace_back([&, t] {
            KvInjectStatistics inject;
            KvCaptureStatistics capture;
            while (run) {
                manager.WriteControlCmd(t, QByteArray(4, static_cast<char>(t)));
                manager.GetInjectStatistics(t, inject);
                manager.GetCaptureStatistics(t, capture);
                ++calls;
            }
        });
    }
    for (int round = 0; round < 20; ++round) {
        manager.CloseCard();
        ASSERT_TRUE(manager.OpenCard(path)) << "round " << round << ": " << manager.LastErrorText();
    }
    run = false;
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_GT(calls.load(), 0);
    // The reopened card still takes commands (the card's count: the 40 ms depend on the load).
    const std::uint32_t takenBefore = Peek(ControlBlock(3) + kCtlCommandsTaken);
    manager.WriteControlCmd(3, QByteArray(4, 9));
    EXPECT_TRUE(
        WaitFor([&] { return Peek(ControlBlock(3) + kCtlCommandsTaken) == takenBefore + 1; }));
}

TEST_F(Statistics, ChannelsOutsideTheRangeAndMissingEnginesAreRefusedWithAReason) {
    KvCaptureStatistics capture;
    KvInjectStatistics inject;
    EXPECT_FALSE(manager.GetCaptureStatistics(4, capture));
    EXPECT_STREQ(manager.LastErrorText(), "channel 4 is outside 0 to 3");
    EXPECT_FALSE(manager.GetInjectStatistics(-1, inject));
    EXPECT_STREQ(manager.LastErrorText(), "channel -1 is outside 0 to 3");
    manager.CloseCard();
    EXPECT_FALSE(manager.GetCaptureStatistics(0, capture));
    EXPECT_NE(std::string(manager.LastErrorText()).find("no capture engine"), std::string::npos);
    EXPECT_FALSE(manager.GetInjectStatistics(0, inject));
    EXPECT_NE(std::string(manager.LastErrorText()).find("no inject engine"), std::string::npos);
    // Kept per thread: another thread's failure leaves this thread's reason alone.
    std::thread([&] { EXPECT_FALSE(manager.WriteControlCmd(9, QByteArray(1, 1))); }).join();
    EXPECT_NE(std::string(manager.LastErrorText()).find("no inject engine"), std::string::npos);
    ASSERT_TRUE(KvPCIeSim::Configure("xdma:0"));
    eErrorCode error = ERR_NONE;
    std::vector<char> buffer(kFrameBytes);
    EXPECT_FALSE(manager.StartCapture(0, false, kWidth, kHeight, Y16, error, &FrameSink::OnFrame,
                                      nullptr, buffer.data()));
    EXPECT_STREQ(manager.LastErrorText(), "no XDMA card is listed");
    EXPECT_TRUE(manager.IsCardOpen());
    EXPECT_STREQ(manager.LastErrorText(), "");
}

}  // namespace
}  // namespace kvpcie::testing
