// kvviewer run as a user would, on the simulated card, under an X server with OpenGL.
#include <QColor>
#include <QCoreApplication>
#include <QImage>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRect>
#include <QRegularExpression>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>

namespace {

// Long enough for a loaded machine; the viewer itself quits after at most 2.5 s.
constexpr int kRunLimitMs = 45000;

// Normal.png's background and band colours (see tools/kvviewer/make_status_pictures.py).
const QColor kStatusBackground(12, 24, 48);
const QColor kStatusBand(40, 70, 120);

// The exit code is -1 for a viewer that crashed or had to be killed.
struct ViewerRun {
    int exitCode = -1;
    QString out;
    QString err;
};

bool IsGrey(QRgb pixel) {
    return std::abs(qRed(pixel) - qGreen(pixel)) <= 3 &&
           std::abs(qBlue(pixel) - qGreen(pixel)) <= 3;
}

// Whether some row of `area` climbs at least 80 grey levels over a steady rise of 100 pixels: the
// test pattern's lines are sawtooth ramps, whatever the widget's scaling.
bool ShowsRamp(const QImage& image, const QRect& area) {
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left() + 1, start = -1; x <= area.right(); ++x) {
            const QRgb pixel = image.pixel(x, y);
            const int rise = qGreen(pixel) - qGreen(image.pixel(x - 1, y));
            if (start < 0 || !IsGrey(pixel) || rise < 0 || rise > 8) {
                start = IsGrey(pixel) ? x : -1;
            } else if (x - start >= 100 && qGreen(pixel) - qGreen(image.pixel(start, y)) >= 80) {
                return true;
            }
        }
    }
    return false;
}

double ShareOf(const QImage& image, const QRect& area, const QColor& colour) {
    long long near = 0;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x) {
            const QColor seen = image.pixelColor(x, y);
            near += std::max({std::abs(seen.red() - colour.red()),
                              std::abs(seen.green() - colour.green()),
                              std::abs(seen.blue() - colour.blue())}) <= 6;
        }
    }
    return double(near) / double(area.width() * area.height());
}

long long FramesPrinted(const QString& out, int channel) {
    const QRegularExpression line(
        QStringLiteral("kvviewer: channel %1: (\\d+) frames").arg(channel));
    const auto match = line.match(out);
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

class Kvviewer : public ::testing::Test {
protected:
    void SetUp() override {
        // Under qemu's user-mode emulation (a cross build's suites) QProcess's child dies before
        // it runs anything: scripts/arm64-check.sh runs the viewer there itself.
        if (!QStringLiteral(KVPCIE_PROGRAM_EMULATOR).isEmpty()) {
            GTEST_SKIP() << "QProcess cannot start programs under " << KVPCIE_PROGRAM_EMULATOR;
        }
        ASSERT_TRUE(scratch.isValid());
    }

    ViewerRun Run(const QStringList& args) {
        QProcess viewer;
        viewer.setWorkingDirectory(scratch.path());
        // The settings a user's sessions keep stay out of the way, and these runs keep none.
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), scratch.path());
        viewer.setProcessEnvironment(environment);
        viewer.start(QStringLiteral(KVVIEWER_PATH), args);
        const bool finished =
            viewer.waitForStarted(kRunLimitMs) && viewer.waitForFinished(kRunLimitMs);
        if (!finished) {
            viewer.kill();
            viewer.waitForFinished(kRunLimitMs);
        }
        return {finished && viewer.exitStatus() == QProcess::NormalExit ? viewer.exitCode() : -1,
                QString::fromLocal8Bit(viewer.readAllStandardOutput()),
                QString::fromLocal8Bit(viewer.readAllStandardError())};
    }

    // Runs the viewer on the simulated card and checks its screenshot channel by channel (channel
    // n in quarter n, row by row): live ones show the ramps and count frames, the others show the
    // status picture and count nothing.
    void ExpectScreenshot(QStringList args, const std::array<bool, 4>& live) {
        const QString shot = scratch.filePath(QStringLiteral("shot.png"));
        args << QStringList{"--sim", "--autostart", "--type", "Y8", "--screenshot", shot};
        const ViewerRun run = Run(args);
        ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
        const QImage image = QImage(shot).convertToFormat(QImage::Format_RGB32);
        ASSERT_GE(image.width(), 640) << run.err.toStdString();
        ASSERT_GE(image.height(), 512);
        for (int channel = 0; channel < 4; ++channel) {
            SCOPED_TRACE(channel);
            const int w = image.width() / 2;
            const int h = image.height() / 2;
            const QRect quarter((channel % 2) * w, (channel / 2) * h, w, h);
            EXPECT_EQ(ShowsRamp(image, quarter), live[channel]);
            if (live[channel]) {
                EXPECT_LT(ShareOf(image, quarter, kStatusBand), 0.01);
                EXPECT_GT(FramesPrinted(run.out, channel), 0) << run.out.toStdString();
            } else {
                EXPECT_GT(ShareOf(image, quarter, kStatusBackground), 0.05);
                EXPECT_GT(ShareOf(image, quarter, kStatusBand), 0.05);
                EXPECT_EQ(FramesPrinted(run.out, channel), -1) << run.out.toStdString();
            }
        }
    }

    QTemporaryDir scratch;
};

TEST_F(Kvviewer, ShowsTheTestPatternLiveAndTheStatusPictureOnChannelsNotStarted) {
    ExpectScreenshot({"--channels", "1,2", "--card-timing", "--width", "512", "--height", "256",
                      "--quit-after", "2500"},
                     {false, true, true, false});
}

// On the driver model (with-model.sh): the viewer shows what kvpcie injects in another process.
TEST_F(Kvviewer, ShowsWhatAnotherProcessInjectsThroughTheDriverModel) {
    if (qEnvironmentVariableIsEmpty("KVPCIE_MODEL_ROOT")) {
        GTEST_SKIP() << "runs against kvpcie-simd: start it through with-model.sh";
    }
    const QString tool = QStringLiteral(KVPCIE_TOOL_PATH);
    ASSERT_EQ(QProcess::execute(tool, {"reg", "write", "0x1F1000", "1"}), 0);
    const QStringList geometry{"--type", "Y8", "--width", "512", "--height", "256"};
    QProcess inject;
    inject.start(tool, QStringList{"inject", "--channel", "0", "--rate", "25", "--seconds", "8"} +
                           geometry);
    ASSERT_TRUE(inject.waitForStarted(kRunLimitMs));
    // Its first progress line comes once frames have been queued for a second.
    ASSERT_TRUE(inject.waitForReadyRead(kRunLimitMs));
    const QString shot = scratch.filePath(QStringLiteral("model.png"));
    const ViewerRun run = Run(QStringList{"--channels", "0", "--autostart", "--quit-after",
                                          "2500", "--screenshot", shot} +
                              geometry);
    inject.kill();
    inject.waitForFinished(kRunLimitMs);
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QImage image = QImage(shot).convertToFormat(QImage::Format_RGB32);
    ASSERT_GE(image.width(), 640);
    EXPECT_TRUE(ShowsRamp(image, QRect(0, 0, image.width() / 2, image.height() / 2)));
    EXPECT_GT(FramesPrinted(run.out, 0), 0) << run.out.toStdString();
}

TEST_F(Kvviewer, TheDemoRunsOnTheSimulatedCardWithoutBeingToldSo) {
    if (!qEnvironmentVariableIsEmpty("KVPCIE_MODEL_ROOT")) {
        GTEST_SKIP() << "the driver model's card is named: the demo runs there";
    }
    const QString shot = scratch.filePath(QStringLiteral("demo.png"));
    const QByteArray simulated = qgetenv("KVPCIE_SIM");
    qunsetenv("KVPCIE_SIM");  // nothing but --demo names the card
    const ViewerRun run = Run({"--demo", "--quit-after", "1500", "--screenshot", shot});
    if (!simulated.isNull()) {
        qputenv("KVPCIE_SIM", simulated);
    }
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_FALSE(run.err.contains(QStringLiteral("needs the simulated card")))
        << run.err.toStdString();
    EXPECT_GT(FramesPrinted(run.out, 0), 0) << run.out.toStdString();
}

TEST_F(Kvviewer, RefusesBadCommandLinesAndUnsavableScreenshots) {
    const std::pair<QStringList, const char*> cases[] = {
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
        {{"--card", "4"}, "--card takes a card number from 0 to 3"},
        {{"--width", "65535", "--height", "65535"}, "exceeds the 20 MiB card buffer"},
        {{"-o"}, "--output needs a value"},
        {{"--output="}, "--output needs a folder"},
    };
    for (const auto& [args, message] : cases) {
        SCOPED_TRACE(args.join(' ').toStdString());
        const ViewerRun bad = Run(args);
        EXPECT_EQ(bad.exitCode, 2);
        EXPECT_TRUE(bad.err.contains(QString::fromLatin1(message))) << bad.err.toStdString();
        EXPECT_TRUE(bad.err.contains(QStringLiteral("usage: kvviewer")));
    }
    // A KVPCIE_SIM that would quietly give fewer cards than it names.
    const QByteArray simulated = qgetenv("KVPCIE_SIM");
    qputenv("KVPCIE_SIM", "xdma:5");
    const ViewerRun tooMany = Run({"--quit-after", "0"});
    qputenv("KVPCIE_SIM", simulated);
    EXPECT_EQ(tooMany.exitCode, 2);
    EXPECT_TRUE(tooMany.err.contains(QStringLiteral("asks for 5 XDMA cards")))
        << tooMany.err.toStdString();

    const ViewerRun help = Run({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.contains(QStringLiteral("--screenshot FILE")));

    // A good command line whose screenshot cannot be written must not pass for a success.
    const ViewerRun unsaved =
        Run({"--sim", "--screenshot", scratch.filePath("missing/shot.png"), "--quit-after", "0"});
    EXPECT_EQ(unsaved.exitCode, 1);
    EXPECT_TRUE(unsaved.err.contains(QStringLiteral("could not save the screenshot")))
        << unsaved.err.toStdString();
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
