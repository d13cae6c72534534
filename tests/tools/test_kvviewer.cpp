// kvviewer run as a user would, on the simulated card: what its screenshot shows, what it prints,
// and how it takes bad command lines. Needs an X server with OpenGL (xvfb-run gives one).
#include <QColor>
#include <QCoreApplication>
#include <QImage>
#include <QProcess>
#include <QRect>
#include <QRegularExpression>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace {

// Long enough for a loaded machine; the viewer itself quits after at most 2.5 s.
constexpr int kRunLimitMs = 45000;

// Normal.png's background and band colours (see tools/kvviewer/make_status_pictures.py).
const QColor kStatusBackground(12, 24, 48);
const QColor kStatusBand(40, 70, 120);

struct ViewerRun {
    bool finished = false;
    int exitCode = -1;
    QString out;
    QString err;
};

ViewerRun RunViewer(const QStringList& args, const QString& workDir) {
    QProcess viewer;
    viewer.setWorkingDirectory(workDir);
    viewer.start(QStringLiteral(KVVIEWER_PATH), args);
    ViewerRun run;
    run.finished = viewer.waitForStarted(kRunLimitMs) && viewer.waitForFinished(kRunLimitMs);
    if (!run.finished) {
        viewer.kill();
        viewer.waitForFinished(kRunLimitMs);
    }
    run.exitCode = viewer.exitStatus() == QProcess::NormalExit ? viewer.exitCode() : -1;
    run.out = QString::fromLocal8Bit(viewer.readAllStandardOutput());
    run.err = QString::fromLocal8Bit(viewer.readAllStandardError());
    return run;
}

int Grey(QRgb pixel) {
    return qGreen(pixel);
}

bool IsGrey(QRgb pixel) {
    return std::abs(qRed(pixel) - qGreen(pixel)) <= 3 &&
           std::abs(qBlue(pixel) - qGreen(pixel)) <= 3;
}

// The largest rise in grey over a steadily rising stretch of row y within [x0, x1): the test
// pattern's lines are sawtooth ramps, whatever the widget's scaling.
int LargestRise(const QImage& image, int y, int x0, int x1) {
    int best = 0;
    int start = -1;
    for (int x = x0; x < x1; ++x) {
        const QRgb pixel = image.pixel(x, y);
        const bool continues = start >= 0 && IsGrey(pixel) &&
                               Grey(pixel) >= Grey(image.pixel(x - 1, y)) &&
                               Grey(pixel) - Grey(image.pixel(x - 1, y)) <= 8;
        if (!continues) {
            start = IsGrey(pixel) ? x : -1;
            continue;
        }
        if (x - start >= 100) {
            best = std::max(best, Grey(pixel) - Grey(image.pixel(start, y)));
        }
    }
    return best;
}

// Whether some row of `area` holds a ramp over 100 pixels that climbs at least 80 grey levels.
bool ShowsRamp(const QImage& image, const QRect& area) {
    for (int y = area.top(); y <= area.bottom(); ++y) {
        if (LargestRise(image, y, area.left(), area.right() + 1) >= 80) {
            return true;
        }
    }
    return false;
}

double ShareOf(const QImage& image, const QRect& area, const QColor& colour) {
    long long near = 0;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x) {
            const QColor seen = image.pixelColor(x, y);
            if (std::abs(seen.red() - colour.red()) <= 6 &&
                std::abs(seen.green() - colour.green()) <= 6 &&
                std::abs(seen.blue() - colour.blue()) <= 6) {
                ++near;
            }
        }
    }
    return double(near) / double(area.width() * area.height());
}

// Channel n sits in quarter n, row by row.
QRect Quarter(const QImage& image, int channel) {
    const int w = image.width() / 2;
    const int h = image.height() / 2;
    return QRect((channel % 2) * w, (channel / 2) * h, w, h);
}

long long FramesPrinted(const QString& out, int channel) {
    const QRegularExpression line(
        QStringLiteral("kvviewer: channel %1: (\\d+) frames").arg(channel));
    const auto match = line.match(out);
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

TEST(Kvviewer, ShowsTheTestPatternOfEveryChannelLive) {
    QTemporaryDir scratch;
    ASSERT_TRUE(scratch.isValid());
    const QString shot = scratch.filePath(QStringLiteral("shot.png"));
    const ViewerRun run =
        RunViewer({"--sim", "--card-timing", "--autostart", "--width", "512", "--height", "256",
                   "--type", "Y8", "--screenshot", shot, "--quit-after", "2500"},
                  scratch.path());
    ASSERT_TRUE(run.finished) << run.err.toStdString();
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();

    QImage image;
    ASSERT_TRUE(image.load(shot)) << run.err.toStdString();
    image = image.convertToFormat(QImage::Format_RGB32);
    ASSERT_GE(image.width(), 640);
    ASSERT_GE(image.height(), 512);
    for (int channel = 0; channel < 4; ++channel) {
        SCOPED_TRACE(channel);
        EXPECT_TRUE(ShowsRamp(image, Quarter(image, channel)));
        EXPECT_LT(ShareOf(image, Quarter(image, channel), kStatusBand), 0.01);
        EXPECT_GT(FramesPrinted(run.out, channel), 0) << run.out.toStdString();
    }
}

TEST(Kvviewer, ShowsTheStatusPictureOnChannelsNotStarted) {
    QTemporaryDir scratch;
    ASSERT_TRUE(scratch.isValid());
    const QString shot = scratch.filePath(QStringLiteral("shot.png"));
    const ViewerRun run =
        RunViewer({"--sim", "--autostart", "--channels", "1", "--width", "256", "--height", "128",
                   "--type", "Y8", "--screenshot", shot, "--quit-after", "1500"},
                  scratch.path());
    ASSERT_TRUE(run.finished) << run.err.toStdString();
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();

    QImage image;
    ASSERT_TRUE(image.load(shot));
    image = image.convertToFormat(QImage::Format_RGB32);
    EXPECT_TRUE(ShowsRamp(image, Quarter(image, 1)));
    EXPECT_GT(FramesPrinted(run.out, 1), 0) << run.out.toStdString();
    for (int channel : {0, 2, 3}) {
        SCOPED_TRACE(channel);
        const QRect quarter = Quarter(image, channel);
        EXPECT_FALSE(ShowsRamp(image, quarter));
        EXPECT_GT(ShareOf(image, quarter, kStatusBackground), 0.05);
        EXPECT_GT(ShareOf(image, quarter, kStatusBand), 0.05);
        EXPECT_EQ(FramesPrinted(run.out, channel), -1) << run.out.toStdString();
    }
}

TEST(Kvviewer, FailsWhenTheScreenshotCannotBeSaved) {
    QTemporaryDir scratch;
    ASSERT_TRUE(scratch.isValid());
    const ViewerRun run = RunViewer(
        {"--sim", "--screenshot", scratch.filePath("missing/shot.png"), "--quit-after", "0"},
        scratch.path());
    ASSERT_TRUE(run.finished);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains(QStringLiteral("could not save the screenshot")))
        << run.err.toStdString();
}

TEST(Kvviewer, RefusesBadCommandLinesBeforeOpeningAWindow) {
    QTemporaryDir scratch;
    ASSERT_TRUE(scratch.isValid());
    const struct {
        QStringList args;
        const char* message;
    } cases[] = {
        {{"--bogus"}, "unknown option --bogus"},
        {{"--width", "0"}, "--width must be from 1 to 65535"},
        {{"--height=65536"}, "--height must be from 1 to 65535"},
        {{"--width", "-5"}, "--width must be from 1 to 65535"},
        {{"--width"}, "--width needs a value"},
        {{"--type", "RGB"}, "unknown pixel type"},
        {{"--channels", "4"}, "--channels takes channels 0 to 3"},
        {{"--channels", "0,,1"}, "--channels takes channels 0 to 3"},
        {{"--quit-after", "soon"}, "--quit-after takes milliseconds"},
        {{"--sim=1"}, "--sim takes no value"},
        {{"--width", "65535", "--height", "65535"}, "larger than the card's 20 MiB buffer"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.join(' ').toStdString());
        const ViewerRun run = RunViewer(c.args, scratch.path());
        ASSERT_TRUE(run.finished);
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_TRUE(run.err.contains(QString::fromLatin1(c.message))) << run.err.toStdString();
        EXPECT_TRUE(run.err.contains(QStringLiteral("usage: kvviewer")));
    }
    const ViewerRun help = RunViewer({"--help"}, scratch.path());
    ASSERT_TRUE(help.finished);
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.contains(QStringLiteral("--screenshot FILE")));
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
