// The raw recorder: names, byte-exact frames, rollover, takes, and folders or disks that refuse.
#include "record/RecordThread.h"

#include "Common/KvCycleQueue.h"

#include "../support/FileSizeLimit.h"
#include "../support/TempDir.h"
#include "../support/WaitFor.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStringList>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace kvpcie {
namespace {

KvFrameFormat Format(int width, int height, int paramLines, ePixelType pixelType) {
    KvFrameFormat format;
    format.width = width;
    format.height = height;
    format.paramLines = paramLines;
    format.frameRate = 50;
    format.pixelType = pixelType;
    return format;
}

int FrameBytes(const KvFrameFormat& f) {
    return static_cast<int>(KvFrameSizeBytes(f.pixelType, f.width, f.height, f.paramLines));
}

std::vector<char> Frame(int bytes, int n) {
    std::vector<char> frame(static_cast<std::size_t>(bytes));
    for (std::size_t k = 0; k < frame.size(); ++k) {
        frame[k] = static_cast<char>(k * 7 + static_cast<std::size_t>(n));
    }
    return frame;
}

// A recorder of `format` writing takes below `dir`, already recording.
std::unique_ptr<RecordThread> Recording(const KvFrameFormat& format, const QString& dir,
                                        std::int64_t sizeLimit = RecordThread::kDefaultSizeLimit) {
    auto recorder = std::make_unique<RecordThread>(format, sizeLimit);
    recorder->SetFrameSize(FrameBytes(format));
    recorder->SetRecordDir(dir);
    recorder->StartRecord();
    return recorder;
}

bool PushEventually(RecordThread& recorder, const std::vector<char>& frame) {
    return testing::WaitFor([&] { return recorder.PushFrame(frame.data()); });
}

// Until the files of the take hold `bytes` in all; false if they never do or hold more.
bool AwaitTakeBytes(const RecordThread& recorder, qint64 bytes) {
    qint64 total = 0;
    testing::WaitFor([&] {
        total = 0;
        for (const QFileInfo& file : QDir(recorder.TakeDir()).entryInfoList(QDir::Files)) {
            total += file.size();
        }
        return total >= bytes;
    });
    return total == bytes;
}

TEST(RecordThread, NamesFilesByIndexGeometryRateAndPixelType) {
    const struct {
        ePixelType type;
        const char* name;
    } cases[] = {
        {UYVY422, "0_640x512_ParamLine2_Fps50_UYVY422.raw"},
        {Y8, "0_640x512_ParamLine2_Fps50_Y8.raw"},
        {Y16, "0_640x512_ParamLine2_Fps50_Y16.raw"},
        {Y16_Y8, "0_640x512_ParamLine2_Fps50_Y16&Y8.raw"},
        {BGR24, "0_640x512_ParamLine2_Fps50_BGR24.raw"},
        {PIXEL32, ""},
        {static_cast<ePixelType>(9), ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(RecordThread::FileName(Format(640, 512, 2, c.type), 0).toStdString(), c.name);
    }
    EXPECT_EQ(RecordThread::FileName(Format(1280, 1024, 0, Y8), 12).toStdString(),
              "12_1280x1024_ParamLine0_Fps50_Y8.raw");
}

TEST(RecordThread, WritesEveryFrameByteForByteIntoATimedTakeFolder) {
    // Whole-page frames go around the page cache where the file system allows; others do not.
    for (const int paramLines : {2, 0}) {
        SCOPED_TRACE(paramLines);
        testing::ScratchDir scratch;
        const KvFrameFormat format = Format(640, 512, paramLines, Y16);
        const auto recorder = Recording(format, scratch.path() + "/Capture1");
        EXPECT_TRUE(recorder->IsRecording());
        EXPECT_TRUE(
            QDir(recorder->TakeDir()).dirName().contains(QRegularExpression("^\\d{8}_\\d{6}$")));
        QByteArray expected;
        for (int n = 0; n < 20; ++n) {
            const std::vector<char> frame = Frame(FrameBytes(format), n);
            ASSERT_TRUE(PushEventually(*recorder, frame));
            expected.append(frame.data(), static_cast<int>(frame.size()));
        }
        ASSERT_TRUE(AwaitTakeBytes(*recorder, expected.size()));
        recorder->StopRecord();
        EXPECT_FALSE(recorder->IsRecording());
        QFile file(recorder->TakeDir() + "/" + RecordThread::FileName(format, 0));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        EXPECT_TRUE(file.readAll() == expected);
        EXPECT_EQ(recorder->FramesWritten(), 20u);
    }
}

TEST(RecordThread, AFramePastTheLimitOpensTheNextFile) {
    testing::ScratchDir scratch;
    const auto recorder = Recording(Format(10, 10, 0, Y8), scratch.path(), 250);  // 100 B a frame
    for (int n = 0; n < 7; ++n) {
        ASSERT_TRUE(PushEventually(*recorder, Frame(100, n)));
    }
    ASSERT_TRUE(AwaitTakeBytes(*recorder, 700));
    recorder->StopRecord();
    // Frames 1-2 fill file 0; frame 3 passes 250, opens file 1 and restarts the count there.
    const QString dir = recorder->TakeDir() + "/";
    EXPECT_EQ(QFileInfo(dir + "0_10x10_ParamLine0_Fps50_Y8.raw").size(), 200);
    EXPECT_EQ(QFileInfo(dir + "1_10x10_ParamLine0_Fps50_Y8.raw").size(), 300);
    EXPECT_EQ(QFileInfo(dir + "2_10x10_ParamLine0_Fps50_Y8.raw").size(), 200);
    QFile second(dir + "1_10x10_ParamLine0_Fps50_Y8.raw");
    ASSERT_TRUE(second.open(QIODevice::ReadOnly));
    const std::vector<char> third = Frame(100, 2);
    EXPECT_EQ(second.read(100), QByteArray(third.data(), 100));
}

TEST(RecordThread, EveryTakeHasItsOwnFolderEvenWithinOneSecond) {
    testing::ScratchDir scratch;
    auto recorder = Recording(Format(8, 8, 0, Y8), scratch.path());
    QStringList takes;
    for (int take = 0; take < 3; ++take) {
        if (take > 0) {
            recorder->StartRecord();
        }
        takes << recorder->TakeDir();
        ASSERT_TRUE(PushEventually(*recorder, Frame(64, static_cast<char>(take))));
        ASSERT_TRUE(AwaitTakeBytes(*recorder, 64));
        if (take < 2) {
            recorder->StopRecord();
        }
    }
    recorder.reset();  // destroyed while recording: it stops first, or crashes or hangs here
    // Three takes in well under a second: the later ones carry a number after the time.
    EXPECT_EQ(takes.removeDuplicates(), 0);
    EXPECT_TRUE(takes[1] == takes[0] + "_2" || takes[2] == takes[1] + "_2" ||
                takes[2] == takes[0] + "_3")
        << takes.join(' ').toStdString();
    for (const QString& take : takes) {
        const QStringList files = QDir(take).entryList(QDir::Files);
        ASSERT_EQ(files.size(), 1);
        EXPECT_EQ(QFileInfo(take + "/" + files[0]).size(), 64);
    }
}

TEST(RecordThread, FramesStillQueuedAtTheStopAreWrittenBeforeItReturns) {
    testing::ScratchDir scratch;
    KvCycleQueue upstream;
    ASSERT_TRUE(upstream.Init(64, 8));
    const auto recorder = Recording(Format(8, 8, 0, Y8), scratch.path());
    for (int k = 0; k < 15; ++k) {
        recorder->PushFrame(Frame(64, static_cast<char>(k)).data());
    }
    for (int k = 15; k < 22; ++k) {
        int full = 0;
        ASSERT_TRUE(upstream.Push(Frame(64, static_cast<char>(k)).data(), 64, full));
    }
    recorder->StopRecord(&upstream);
    EXPECT_TRUE(upstream.IsEmpty());
    const std::uint64_t written = recorder->FramesWritten();
    EXPECT_EQ(written + recorder->FramesLost(), 22u);
    QFile file(recorder->TakeDir() + "/" + RecordThread::FileName(Format(8, 8, 0, Y8), 0));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray bytes = file.readAll();
    ASSERT_EQ(static_cast<std::uint64_t>(bytes.size()), written * 64);
    // In order, whatever the recorder's thread had written before the stop.
    for (int k = 0; k + 1 < bytes.size() / 64; ++k) {
        EXPECT_LT(bytes[k * 64], bytes[(k + 1) * 64]);
    }
    EXPECT_EQ(bytes[bytes.size() - 64], 21);
}

TEST(RecordThread, UnrecordedPixelTypesAndBadFoldersStillDrainTheQueue) {
    testing::ScratchDir scratch;
    QFile blocker(scratch.path() + "/NotAFolder");
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    const struct {
        ePixelType type;
        QString dir;
    } cases[] = {{PIXEL32, scratch.path() + "/Pixel32"}, {Y8, scratch.path() + "/NotAFolder"}};
    for (const auto& c : cases) {
        const KvFrameFormat format = Format(16, 16, 0, c.type);
        const auto recorder = Recording(format, c.dir);
        for (int n = 0; n < 40; ++n) {  // more than the queue holds: it must keep draining
            ASSERT_TRUE(PushEventually(*recorder, Frame(FrameBytes(format), n)));
        }
        recorder->StopRecord();
        EXPECT_TRUE(QDir(recorder->TakeDir()).entryList(QDir::Files).isEmpty());
    }
}

TEST(RecordThread, AFullDiskNeitherStopsTheDrainNorBlocksTheProducer) {
    testing::ScratchDir scratch;
    if (testing::FileSizeLimit::kMissing != nullptr) {
        GTEST_SKIP() << testing::FileSizeLimit::kMissing;
    }
    // 1 KiB frames go through the page cache, 4 KiB ones around it.
    for (const int side : {32, 64}) {
        SCOPED_TRACE(side);
        const int frameBytes = side * side;
        testing::FileSizeLimit limit(3 * frameBytes);
        ASSERT_TRUE(limit.Applied());
        const KvFrameFormat format = Format(side, side, 0, Y8);
        const auto recorder = Recording(format, scratch.path());
        for (int n = 0; n < 40; ++n) {
            ASSERT_TRUE(PushEventually(*recorder, Frame(frameBytes, n)));
        }
        recorder->StopRecord();
        EXPECT_EQ(QFileInfo(recorder->TakeDir() + "/" + RecordThread::FileName(format, 0)).size(),
                  3 * frameBytes);
        EXPECT_EQ(recorder->FramesWritten(), 3u);
        EXPECT_GE(recorder->FramesLost(), 37u);  // and any push that found the queue full
    }
}

}  // namespace
}  // namespace kvpcie
