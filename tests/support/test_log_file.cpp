// Log files: stamped and cut lines, rotation, and a log whose folder cannot be made.
#include "Common/LogFile.h"
#include "Common/thread.h"
#include "platform/TextFiles.h"

#include "TempDir.h"
#include "WaitFor.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <cstdlib>

namespace kvpcie {
namespace {

QStringList LogFiles(const QString& name) {
    return QDir("Log/" + name).entryList(QDir::Files, QDir::Name);
}

QByteArray ReadAll(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Waits until the log's files hold `bytes` bytes in all; false if they never do or hold more.
bool AwaitBytes(const QString& name, qint64 bytes) {
    qint64 total = 0;
    testing::WaitFor([&] {
        total = 0;
        for (const QString& file : LogFiles(name)) {
            total += QFileInfo("Log/" + name + "/" + file).size();
        }
        return total >= bytes;
    });
    return total == bytes;
}

const QRegularExpression kLineStamp("^\\d{4}_\\d\\d_\\d\\d_\\d\\d_\\d\\d_\\d\\d_\\d{3}:$");
const QRegularExpression kFileName("^\\d{4}_\\d\\d_\\d\\d_\\d\\d_\\d\\d_\\d{3}_(\\d+)\\.txt$");
constexpr int kStampBytes = 24;
// A line feed on disk: CR LF on Windows, where the log is a text-mode stream.
constexpr qint64 kFeed = platform::kTextLineFeedBytes;
constexpr qint64 kRotateBytes = 10485760;

// A second start, or a join of a thread that is not started, is a programming error: debug
// builds stop with the assertion text that names the helper's file and line.
TEST(ThreadDeathTest, MisuseAssertsWithTheHelpersFileAndLine) {
#ifdef NDEBUG
    GTEST_SKIP() << "assertions are compiled out of this release build";
#else
    // Re-executing the suite is what keeps its threads out of the child, but under user-mode
    // emulation the child would be started natively: there it is forked as it stands.
    GTEST_FLAG_SET(death_test_style,
                   std::getenv("KVPCIE_UNDER_EMULATOR") != nullptr ? "fast" : "threadsafe");
    const auto nothing = [](void*) {};
    EXPECT_DEATH(
        {
            Thread thread(nullptr, nothing);
            thread.Start();
            thread.Start();
        },
        "Assertion failed: !started_, file \\.\\.\\\\Common\\\\thread, line 20");
    EXPECT_DEATH(
        {
            Thread thread(nullptr, nothing);
            thread.Join();
        },
        "Assertion failed: started_, file \\.\\.\\\\Common\\\\thread, line 35");
#endif
}

TEST(LogFile, LinesQueuedBeforeTheStartReachTheFirstFileStampedAndCut) {
    testing::ScratchDir scratch(/*enter=*/true);
    LogFile log("Capture_AllChannel");
    EXPECT_TRUE(QDir("Log/Capture_AllChannel").exists());
    log.WriteLog("%s", std::string(6000, 'a').c_str());
    log.WriteLog("channel %d", 3);
    log.StartLog();
    const qint64 expected = (kStampBytes + 4999 + kFeed) + (kStampBytes + 9 + kFeed);
    ASSERT_TRUE(AwaitBytes("Capture_AllChannel", expected));
    log.StopLog();

    const QStringList files = LogFiles("Capture_AllChannel");
    ASSERT_EQ(files.size(), 1);
    const QRegularExpressionMatch name = kFileName.match(files[0]);
    ASSERT_TRUE(name.hasMatch()) << files[0].toStdString();
    EXPECT_EQ(name.captured(1), "0");
    QByteArray text = ReadAll("Log/Capture_AllChannel/" + files[0]);
    text.replace("\r\n", "\n");
    const QList<QByteArray> lines = text.split('\n');
    ASSERT_EQ(lines.size(), 3);
    EXPECT_TRUE(kLineStamp.match(QString(lines[0].left(kStampBytes))).hasMatch());
    EXPECT_EQ(lines[0].mid(kStampBytes), QByteArray(4999, 'a'));
    EXPECT_EQ(lines[1].mid(kStampBytes), "channel 3");
}

TEST(LogFile, AFullFileRotatesToTheNextIndexWhichSurvivesAStopAndStart) {
    testing::ScratchDir scratch(/*enter=*/true);
    LogFile log("Inject_AllChannel");
    log.StartLog();
    // Lines of 24 + 4999 + a line feed: the file that reaches 10,485,760 bytes on disk ends with
    // the line that took it there (2,088 lines, or 2,087 where a line feed is CR LF).
    constexpr qint64 kLine = kStampBytes + 4999 + kFeed;
    constexpr qint64 kLinesInFirst = (kRotateBytes + kLine - 1) / kLine;
    const std::string text(4999, 'a');
    for (int i = 0; i < 2090; ++i) {
        log.WriteLog("%s", text.c_str());
    }
    ASSERT_TRUE(AwaitBytes("Inject_AllChannel", 2090 * kLine));
    log.StopLog();
    log.WriteLog("while stopped");
    log.StartLog();
    ASSERT_TRUE(AwaitBytes("Inject_AllChannel", 2090 * kLine + kStampBytes + 13 + kFeed));
    log.StopLog();

    qint64 firstFile = 0;
    QByteArray rotated;
    for (const QString& file : LogFiles("Inject_AllChannel")) {
        const QString index = kFileName.match(file).captured(1);
        if (index == "0") {
            firstFile += QFileInfo("Log/Inject_AllChannel/" + file).size();
        } else {
            EXPECT_EQ(index, "1") << file.toStdString();
            rotated += ReadAll("Log/Inject_AllChannel/" + file);
        }
    }
    EXPECT_EQ(firstFile, kLinesInFirst * kLine)
        << "the first file ends with the line that passed the limit";
    EXPECT_EQ(rotated.count('\n'), 2090 - kLinesInFirst + 1);
    rotated.replace("\r\n", "\n");
    EXPECT_TRUE(rotated.endsWith("while stopped\n")) << "index 1 is kept across stop and start";
}

TEST(LogFile, AnUnwritableLogKeepsAtMostItsLimitAndSaysHowManyLinesItDropped) {
    testing::ScratchDir scratch(/*enter=*/true);
    ASSERT_TRUE(QDir().mkpath("Log"));
    {
        QFile blocker("Log/Capture_AllChannel");
        ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    }
    const std::string text(4000, 'x');
    {
        LogFile log("Capture_AllChannel");
        log.StartLog();
        // 28 MB of lines that have nowhere to go. The writer may take one batch out of the
        // queue before it finds no file, and then holds it: at most 16 MiB find room.
        for (int i = 0; i < 7000; ++i) {
            log.WriteLog("%s", text.c_str());
        }
        EXPECT_LE(log.QueuedBytes(), LogFile::kQueueLimitBytes);
        EXPECT_GT(log.DroppedLines(), 0u);
        EXPECT_LE(log.DroppedLines(), 7000u - 2000u);  // some 2,000 lines fit in 8 MiB
        log.StopLog();
        log.StopLog();  // stopping a stopped log does nothing more
    }
    EXPECT_TRUE(QFileInfo("Log/Capture_AllChannel").isFile()) << "the log made no folder of it";
    // A log whose queue filled before its start: the lines that waited reach the file, and the
    // count of those that were dropped comes once, before the next line.
    ASSERT_TRUE(QFile::remove("Log/Capture_AllChannel"));
    ASSERT_TRUE(QDir().mkpath("Log/Capture_AllChannel"));
    LogFile log("Capture_AllChannel");
    for (int i = 0; i < 3000; ++i) {
        log.WriteLog("%s", text.c_str());
    }
    const std::uint64_t dropped = log.DroppedLines();
    log.StartLog();
    EXPECT_TRUE(testing::WaitFor([&] { return log.QueuedBytes() == 0; }));
    log.WriteLog("after");
    QByteArray all;
    testing::WaitFor([&] {
        all.clear();
        for (const QString& file : LogFiles("Capture_AllChannel")) {
            all += ReadAll("Log/Capture_AllChannel/" + file);
        }
        return all.contains("after");
    });
    log.StopLog();
    const QByteArray notice = QByteArray::number(static_cast<qulonglong>(dropped)) +
                              " lines were dropped here: the log's queue was full";
    EXPECT_EQ(all.count(notice), 1) << dropped;
    EXPECT_TRUE(all.contains("after"));
    EXPECT_LT(all.indexOf(notice), all.indexOf("after"));
}

}  // namespace
}  // namespace kvpcie
