// Faults on the host's side: capture goes on without an uncounted gap, nothing hangs, and no
// frame reaches a stopped channel.
#include "../support/FileSizeLimit.h"
#include "FaultTestSupport.h"

#include <QFile>
#include <QFileInfo>

namespace kvpcie::testing {
namespace {

using KvPCIeSim::kCtlDmaFaults;

class HostFaults : public FaultTest {
protected:
    // Waits for `count` more frames on the sink.
    bool More(GuardedSink& sink, int count) {
        const int target = sink.delivered + count;
        return WaitFor([&] { return sink.delivered >= target; }, std::chrono::seconds(20));
    }
};

TEST_F(HostFaults, RemovingTheRecordingFolderNeitherStopsCaptureNorTheNextRecording) {
#ifdef _WIN32
    GTEST_SKIP() << "Windows does not remove a folder that holds a file open for recording";
#endif
    GuardedSink sink;
    ASSERT_TRUE(StartCapture(0, sink, 200));
    ASSERT_TRUE(manager.StartRecord(0));
    ASSERT_TRUE(More(sink, 30));
    ASSERT_TRUE(QDir("VideoRecord").removeRecursively());
    ASSERT_TRUE(More(sink, 60));
    ReturnsWithin("StopRecord after the folder went", [&] { manager.StopRecord(0); });
    EXPECT_TRUE(RecordedFiles().empty());

    // The next recording makes its folder again and holds whole pattern frames.
    ASSERT_TRUE(manager.StartRecord(0));
    ASSERT_TRUE(More(sink, 30));
    ReturnsWithin("StopRecord", [&] { manager.StopRecord(0); });
    StopCapture(0, sink);
    ExpectNoUncountedLoss(0, sink);
    const QStringList files = RecordedFiles();
    ASSERT_EQ(files.size(), 1);
    QFile file(files[0]);
    ASSERT_GT(file.size(), 0);
    ASSERT_EQ(file.size() % static_cast<qint64>(kFaultFrameBytes), 0);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray bytes = file.readAll();
    std::uint32_t previous = 0;
    for (int offset = 0; offset < bytes.size(); offset += static_cast<int>(kFaultFrameBytes)) {
        const char* frame = bytes.constData() + offset;
        const std::uint32_t number = FrameNumberOf(frame);
        EXPECT_TRUE(IsPatternFrame(frame, kFaultFrameBytes, 0, number));
        EXPECT_TRUE(offset == 0 || number > previous);
        previous = number;
    }
}

TEST_F(HostFaults, AFullDiskStopsTheRecordingFileButNeverTheCapture) {
    if (FileSizeLimit::kMissing != nullptr) {
        GTEST_SKIP() << FileSizeLimit::kMissing;
    }
    if (OnDriverModel()) {
        // A driver's nodes are character devices, which no file size limit touches; FUSE serves
        // the model's as regular files, and the limit would refuse every register write.
        GTEST_SKIP() << "the file size limit that stands for a full disk also stops writes to "
                        "the driver model's nodes";
    }
    constexpr std::uint64_t kLimit = 10 * kFaultFrameBytes + kFaultFrameBytes / 2;
    GuardedSink sink;
    ASSERT_TRUE(StartCapture(0, sink, 200));
    {
        FileSizeLimit limit(kLimit);
        ASSERT_TRUE(limit.Applied());
        ASSERT_TRUE(manager.StartRecord(0));
        ASSERT_TRUE(More(sink, 80));
        ReturnsWithin("StopRecord on a full disk", [&] { manager.StopRecord(0); });
    }
    ASSERT_TRUE(More(sink, 10));
    StopCapture(0, sink);
    ExpectNoUncountedLoss(0, sink);
    const QStringList files = RecordedFiles();
    ASSERT_EQ(files.size(), 1);
    // Full: the frames that fitted are there, and nothing went past the limit.
    EXPECT_GE(QFileInfo(files[0]).size(), static_cast<qint64>(10 * kFaultFrameBytes));
    EXPECT_LE(QFileInfo(files[0]).size(), static_cast<qint64>(kLimit));
    // The statistics count the whole frames written and every frame that did not fit.
    const KvCaptureStatistics stats = CaptureStats(0);
    EXPECT_EQ(stats.framesRecorded, 10u);
    EXPECT_EQ(stats.bytesRecorded, 10 * kFaultFrameBytes);
    EXPECT_GE(stats.framesNotRecorded, 70u);  // at least 80 came while it recorded
    // The losses are logged once, when they begin, not once per frame.
    const QByteArray begins = "channel 0: the recorder cannot keep up";
    EXPECT_TRUE(WaitFor([&] { return LogText("Capture_AllChannel").contains(begins); }));
    EXPECT_EQ(LogText("Capture_AllChannel").count(begins), 1);
}

// DMA failures mid-stream on four channels, with no folder for the failures' log lines.
TEST_F(HostFaults, DmaFailuresWithAnUnwritableLogLoseOnlyTheFramesTheyHit) {
    manager.CloseCard();
    ASSERT_TRUE(QDir("Log").removeRecursively());
    // A plain file where the folder should be: no log can be made below it, even by root.
    QFile blocker("Log");
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    ASSERT_TRUE(manager.OpenCard(path));
    manager.SetSaveLog(true);
    constexpr int kFaultsPerChannel = 4;
    const auto sinks = StartSinks(4, 200);
    ASSERT_TRUE(WaitFor([&] { return AllDelivered(sinks, 20); }, std::chrono::seconds(20)));
    for (int channel = 0; channel < 4; ++channel) {
        Write(ControlBlock(channel) + kCtlDmaFaults, kFaultsPerChannel);
    }
    ASSERT_TRUE(WaitFor([&] { return AllDelivered(sinks, 100); }, std::chrono::seconds(20)));
    for (int channel = 0; channel < 4; ++channel) {
        StopCapture(channel, *sinks[channel]);
    }
    for (int channel = 0; channel < 4; ++channel) {
        EXPECT_EQ(Peek(ControlBlock(channel) + kCtlDmaFaults), 0u) << "every fault was met";
        const std::vector<std::uint32_t> numbers = sinks[channel]->Numbers();
        EXPECT_GE(static_cast<long>(numbers.back()) + 1 - static_cast<long>(numbers.size()),
                  kFaultsPerChannel);
        ExpectNoUncountedLoss(channel, *sinks[channel], kFaultsPerChannel);
    }
    // A failed DMA on a card that still answers is not a card that went away.
    EXPECT_FALSE(manager.IsCardLost());
    EXPECT_FALSE(CaptureStats(0).cardLost);
    EXPECT_TRUE(QFileInfo("Log").isFile());
}

TEST_F(HostFaults, StopsAndClosesWhileFramesArriveOnFourChannelsLeaveNoLateFrame) {
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        const auto sinks = StartSinks(4, 500);
        ASSERT_TRUE(WaitFor([&] { return AllDelivered(sinks, 5); }, std::chrono::seconds(20)));
        if (round % 2 == 0) {
            for (int channel : {3, 1, 0, 2}) {
                StopCapture(channel, *sinks[channel]);
                for (int other = 0; other < 4; ++other) {
                    ExpectNoUncountedLoss(other, *sinks[other]);
                }
            }
        } else {
            ReturnsWithin("CloseCard while capturing", [&] { manager.CloseCard(); });
            for (const auto& sink : sinks) {
                sink->stopped = true;
            }
            ASSERT_TRUE(manager.OpenCard(path));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        for (const auto& sink : sinks) {
            EXPECT_EQ(sink->lateFrames, 0);
            EXPECT_EQ(sink->badFrames, 0);
        }
        // The frame buffers go now: a late write into one would be caught by ASan.
    }
}

TEST_F(HostFaults, OpenCardReplacesRunningEnginesWithoutALateFrame) {
    auto first = std::make_unique<GuardedSink>();
    auto second = std::make_unique<GuardedSink>();
    ASSERT_TRUE(StartCapture(0, *first, 500));
    ASSERT_TRUE(StartCapture(1, *second, 500));
    ASSERT_TRUE(manager.StartRecord(0));
    std::vector<char> frame(kFaultFrameBytes, 1);
    eErrorCode error = ERR_NO_CARD;
    for (int k = 0; k < 10; ++k) {
        Inject(2, frame, error);
        Inject(3, frame, error);
    }
    // The command worker runs too (whether this command makes its 40 ms or not).
    manager.WriteControlCmd(2, QByteArray(8, 2));
    ASSERT_TRUE(WaitFor([&] { return first->delivered >= 10 && second->delivered >= 10; }));

    ReturnsWithin("OpenCard over running engines", [&] { ASSERT_TRUE(manager.OpenCard(path)); });
    first->stopped = true;
    second->stopped = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(first->lateFrames, 0);
    EXPECT_EQ(second->lateFrames, 0);
    first.reset();
    second.reset();

    // The new engines start from nothing and work.
    for (int channel = 0; channel < 4; ++channel) {
        EXPECT_FALSE(manager.IsStartCapture(channel));
        EXPECT_FALSE(manager.IsStartInject(channel));
    }
    ExpectCaptureWorks(0, 10);
    EXPECT_TRUE(Inject(2, frame, error));
}

}  // namespace
}  // namespace kvpcie::testing
