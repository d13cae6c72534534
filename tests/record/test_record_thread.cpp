// The raw recorder: file names, byte-exact frames, rollover, takes in one second, and folders
// or disks that refuse the data while the producer keeps going.
#include "record/RecordThread.h"

#include "../support/FileSizeLimit.h"
#include "../support/TempDir.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

namespace kvpcie {
namespace {

using namespace std::chrono_literals;

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

// Pushes until the queue takes the frame, at most 5 s.
bool PushEventually(RecordThread& recorder, const std::vector<char>& frame) {
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (!recorder.PushFrame(frame.data())) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Waits, at most 5 s, until the files of the take hold `bytes` in all.
bool AwaitTakeBytes(const RecordThread& recorder, qint64 bytes) {
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    for (;;) {
        qint64 total = 0;
        for (const QFileInfo& file : QDir(recorder.TakeDir()).entryInfoList(QDir::Files)) {
            total += file.size();
        }
        if (total == bytes) {
            return true;
        }
        if (total > bytes || std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
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
    testing::ScratchDir scratch;
    const KvFrameFormat format = Format(640, 512, 2, Y16);
    RecordThread recorder(format);
    recorder.SetFrameSize(FrameBytes(format));
    recorder.SetRecordDir(scratch.path() + "/Capture1");
    recorder.StartRecord();
    EXPECT_TRUE(recorder.IsRecording());
    EXPECT_TRUE(QDir(recorder.TakeDir()).dirName().contains(QRegularExpression("^\\d{8}_\\d{6}$")));
    QByteArray expected;
    for (int n = 0; n < 20; ++n) {
        const std::vector<char> frame = Frame(FrameBytes(format), n);
        ASSERT_TRUE(PushEventually(recorder, frame));
        expected.append(frame.data(), static_cast<int>(frame.size()));
    }
    ASSERT_TRUE(AwaitTakeBytes(recorder, expected.size()));
    recorder.StopRecord();
    EXPECT_FALSE(recorder.IsRecording());
    QFile file(recorder.TakeDir() + "/0_640x512_ParamLine2_Fps50_Y16.raw");
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(file.readAll() == expected);
}

TEST(RecordThread, AFramePastTheLimitOpensTheNextFile) {
    testing::ScratchDir scratch;
    const KvFrameFormat format = Format(10, 10, 0, Y8);  // 100-byte frames
    RecordThread recorder(format, /*sizeLimit=*/250);
    recorder.SetFrameSize(100);
    recorder.SetRecordDir(scratch.path());
    recorder.StartRecord();
    for (int n = 0; n < 7; ++n) {
        ASSERT_TRUE(PushEventually(recorder, Frame(100, n)));
    }
    ASSERT_TRUE(AwaitTakeBytes(recorder, 700));
    recorder.StopRecord();
    // Frames 1-2 fill file 0; frame 3 passes 250, opens file 1 and restarts the count there.
    const QString dir = recorder.TakeDir() + "/";
    EXPECT_EQ(QFileInfo(dir + "0_10x10_ParamLine0_Fps50_Y8.raw").size(), 200);
    EXPECT_EQ(QFileInfo(dir + "1_10x10_ParamLine0_Fps50_Y8.raw").size(), 300);
    EXPECT_EQ(QFileInfo(dir + "2_10x10_ParamLine0_Fps50_Y8.raw").size(), 200);
    QFile second(dir + "1_10x10_ParamLine0_Fps50_Y8.raw");
    ASSERT_TRUE(second.open(QIODevice::ReadOnly));
    const std::vector<char> third = Frame(100, 2);
    EXPECT_EQ(second.read(100), QByteArray(third.data(), 100));
}

TEST(RecordThread, TwoTakesInOneSecondAppendToOneFile) {
    testing::ScratchDir scratch;
    RecordThread recorder(Format(8, 8, 0, Y8));
    recorder.SetFrameSize(64);
    for (int attempt = 0; attempt < 3; ++attempt) {
        recorder.SetRecordDir(scratch.path() + "/attempt" + QString::number(attempt));
        recorder.StartRecord();
        const QString firstTake = recorder.TakeDir();
        ASSERT_TRUE(PushEventually(recorder, Frame(64, 1)));
        ASSERT_TRUE(AwaitTakeBytes(recorder, 64));
        recorder.StopRecord();
        recorder.StartRecord();
        if (recorder.TakeDir() != firstTake) {
            recorder.StopRecord();  // crossed a second boundary: try again
            continue;
        }
        ASSERT_TRUE(PushEventually(recorder, Frame(64, 2)));
        ASSERT_TRUE(AwaitTakeBytes(recorder, 128));
        recorder.StopRecord();
        EXPECT_EQ(QDir(firstTake).entryList(QDir::Files).size(), 1);
        return;
    }
    FAIL() << "never managed two takes within one second";
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
        RecordThread recorder(format);
        recorder.SetFrameSize(FrameBytes(format));
        recorder.SetRecordDir(c.dir);
        recorder.StartRecord();
        for (int n = 0; n < 40; ++n) {  // more than the queue holds: it must keep draining
            ASSERT_TRUE(PushEventually(recorder, Frame(FrameBytes(format), n)));
        }
        recorder.StopRecord();
        EXPECT_TRUE(QDir(recorder.TakeDir()).entryList(QDir::Files).isEmpty());
    }
}

TEST(RecordThread, AFullDiskNeitherStopsTheDrainNorBlocksTheProducer) {
    testing::ScratchDir scratch;
    if (testing::FileSizeLimit::kMissing != nullptr) {
        GTEST_SKIP() << testing::FileSizeLimit::kMissing;
    }
    testing::FileSizeLimit limit(3 * 1024);
    ASSERT_TRUE(limit.Applied());
    {
        const KvFrameFormat format = Format(32, 32, 0, Y8);  // 1 KiB frames
        RecordThread recorder(format);
        recorder.SetFrameSize(1024);
        recorder.SetRecordDir(scratch.path());
        recorder.StartRecord();
        for (int n = 0; n < 40; ++n) {
            ASSERT_TRUE(PushEventually(recorder, Frame(1024, n)));
        }
        recorder.StopRecord();
        EXPECT_LE(QFileInfo(recorder.TakeDir() + "/0_32x32_ParamLine0_Fps50_Y8.raw").size(),
                  3 * 1024);
    }
}

TEST(RecordThread, DestroyingARecordingRecorderStopsItFirst) {
    testing::ScratchDir scratch;
    auto recorder = std::make_unique<RecordThread>(Format(8, 8, 0, Y8));
    recorder->SetFrameSize(64);
    recorder->SetRecordDir(scratch.path());
    recorder->StartRecord();
    ASSERT_TRUE(PushEventually(*recorder, Frame(64, 0)));
    recorder.reset();  // joins the thread; a crash or a hang here is the failure
    SUCCEED();
}

}  // namespace
}  // namespace kvpcie
