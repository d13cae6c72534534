// The display widget on a real OpenGL context: what each tick puts on screen, read back from the
// framebuffer, and the refresh period that each call leaves behind.
#include <KvPCIeInjectSdk/GLWidget.h>
#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <QApplication>
#include <QColor>
#include <QDeadlineTimer>
#include <QDir>
#include <QImage>
#include <QTemporaryDir>
#include <QTimer>
#include <QWidget>

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <thread>
#include <tuple>
#include <vector>

namespace {

// The colours of the pictures in GLBackImg/, by status number (see make_status_pictures.py).
const std::array<QColor, 6> kStatusColours = {
    QColor(0, 128, 128), QColor(128, 0, 0),   QColor(0, 128, 0),
    QColor(128, 128, 0), QColor(128, 0, 128), QColor(0, 0, 128),
};
const QColor kNormal = kStatusColours[0];
const QColor kLinkFail = kStatusColours[3];
const QColor kBlack(0, 0, 0);
const QColor kRed(255, 0, 0);
const QColor kGreen(0, 255, 0);
const QColor kBlue(0, 0, 255);
const QColor kYellow(255, 255, 0);
const QColor kWhite(255, 255, 255);

// An RGBA picture as a producer hands it over.
struct Picture {
    Picture(int w, int h, const QColor& colour) : width(w), height(h), bytes(4 * w * h) {
        Fill(0, 0, w, h, colour);
    }
    void Fill(int x0, int y0, int x1, int y1, const QColor& colour) {
        for (int y = y0; y < y1; ++y) {
            for (int x = x0; x < x1; ++x) {
                unsigned char* pixel = &bytes[4 * (y * width + x)];
                pixel[0] = static_cast<unsigned char>(colour.red());
                pixel[1] = static_cast<unsigned char>(colour.green());
                pixel[2] = static_cast<unsigned char>(colour.blue());
                pixel[3] = 255;
            }
        }
    }
    const unsigned char* data() const { return bytes.data(); }

    int width;
    int height;
    std::vector<unsigned char> bytes;
};

// Red, green / blue, yellow: any flip or turn of the picture moves a colour.
Picture Quadrants(int w, int h) {
    Picture picture(w, h, kRed);
    picture.Fill(w / 2, 0, w, h / 2, kGreen);
    picture.Fill(0, h / 2, w / 2, h, kBlue);
    picture.Fill(w / 2, h / 2, w, h, kYellow);
    return picture;
}

::testing::AssertionResult Shows(const QImage& frame, int x, int y, const QColor& expected) {
    if (frame.isNull()) {
        return ::testing::AssertionFailure() << "no framebuffer to read";
    }
    const QColor seen = frame.pixelColor(x, y);
    const bool near = std::abs(seen.red() - expected.red()) <= 8 &&
                      std::abs(seen.green() - expected.green()) <= 8 &&
                      std::abs(seen.blue() - expected.blue()) <= 8;
    if (near) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure()
           << "pixel (" << x << ", " << y << ") is " << qPrintable(seen.name()) << ", expected "
           << qPrintable(expected.name());
}

// Reads the framebuffer until the pixel has the colour, letting Qt run in between, for at most
// three seconds.
::testing::AssertionResult ShowsSoon(GLWidget& widget, int x, int y, const QColor& expected) {
    const QDeadlineTimer deadline(3000);
    for (;;) {
        ::testing::AssertionResult result = Shows(widget.grabFramebuffer(), x, y, expected);
        if (result || deadline.hasExpired()) {
            return result;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
}

QTimer* RefreshTimer(GLWidget& widget) {
    const QList<QTimer*> timers =
        widget.findChildren<QTimer*>(QString(), Qt::FindDirectChildrenOnly);
    return timers.size() == 1 ? timers.front() : nullptr;
}

class GLWidgetTest : public ::testing::Test {
protected:
    static constexpr int kWidth = 200;
    static constexpr int kHeight = 150;

    void SetUp() override {
        widget.resize(kWidth, kHeight);
        timer = RefreshTimer(widget);
        ASSERT_NE(timer, nullptr);
    }
    // Lets the picture queue deliver, as the refresh timer would.
    void Tick() { widget.OnTimer_UpdataVideoView(); }
    ::testing::AssertionResult CentreShowsSoon(const QColor& colour) {
        return ShowsSoon(widget, kWidth / 2, kHeight / 2, colour);
    }
    ::testing::AssertionResult CentreShows(const QColor& colour) {
        return Shows(widget.grabFramebuffer(), kWidth / 2, kHeight / 2, colour);
    }

    GLWidget widget;
    QTimer* timer = nullptr;
};

// --- construction and status pictures ---

TEST_F(GLWidgetTest, StartsVisibleShowingNormalOnceASecond) {
    EXPECT_TRUE(widget.isVisible());
    EXPECT_TRUE(timer->isActive());
    EXPECT_EQ(timer->interval(), 1000);
    EXPECT_EQ(timer->timerType(), Qt::PreciseTimer);
    Tick();
    EXPECT_TRUE(CentreShowsSoon(kNormal));
}

TEST_F(GLWidgetTest, EachStatusNumberShowsItsPicture) {
    for (int status = 0; status < static_cast<int>(kStatusColours.size()); ++status) {
        widget.SetBackImage(status);
        Tick();
        EXPECT_TRUE(CentreShowsSoon(kStatusColours[status])) << "status " << status;
    }
}

TEST_F(GLWidgetTest, SlotsCanBeCalledByName) {
    QImage image(8, 8, QImage::Format_RGBA8888);
    image.fill(kBlue);
    ASSERT_TRUE(QMetaObject::invokeMethod(&widget, "setTextureImage", Q_ARG(QImage, image)));
    EXPECT_TRUE(CentreShowsSoon(kBlue));
    ASSERT_TRUE(QMetaObject::invokeMethod(&widget, "OnTimer_UpdataVideoView"));
    EXPECT_TRUE(CentreShowsSoon(kNormal));
}

TEST(GLWidgetBeforeGL, TickBeforeTheContextExistsUploadsNothing) {
    QWidget hiddenParent;
    auto* widget = new GLWidget(&hiddenParent);
    widget->resize(64, 48);
    EXPECT_FALSE(widget->isVisible());
    widget->OnTimer_UpdataVideoView();
    // Reading back creates the context; no picture has reached it, so only the clear colour.
    EXPECT_TRUE(Shows(widget->grabFramebuffer(), 32, 24, kBlack));
    widget->OnTimer_UpdataVideoView();
    EXPECT_TRUE(ShowsSoon(*widget, 32, 24, kNormal));
}

// --- pictures ---

TEST_F(GLWidgetTest, PictureKeepsItsOrientation) {
    const Picture picture = Quadrants(32, 24);
    widget.SetImageSize(picture.width, picture.height);
    ASSERT_TRUE(widget.PushImageData(picture.data()));
    Tick();
    ASSERT_TRUE(ShowsSoon(widget, kWidth / 4, kHeight / 4, kRed));
    const QImage frame = widget.grabFramebuffer();
    EXPECT_TRUE(Shows(frame, 3 * kWidth / 4, kHeight / 4, kGreen));
    EXPECT_TRUE(Shows(frame, kWidth / 4, 3 * kHeight / 4, kBlue));
    EXPECT_TRUE(Shows(frame, 3 * kWidth / 4, 3 * kHeight / 4, kYellow));
}

TEST_F(GLWidgetTest, SmallPictureIsStretchedOverTheWholeWidget) {
    widget.resize(800, 600);
    // 64 x 48 is stretched 12.5 times: the white block, columns 24-39 and rows 18-29, covers
    // x 300-500 and y 225-375.
    Picture picture = Quadrants(64, 48);
    picture.Fill(24, 18, 40, 30, kWhite);
    widget.SetImageSize(picture.width, picture.height);
    ASSERT_TRUE(widget.PushImageData(picture.data()));
    Tick();
    ASSERT_TRUE(ShowsSoon(widget, 400, 300, kWhite));
    const QImage frame = widget.grabFramebuffer();
    ASSERT_EQ(frame.size(), QSize(800, 600));
    EXPECT_TRUE(Shows(frame, 2, 2, kRed));
    EXPECT_TRUE(Shows(frame, 797, 2, kGreen));
    EXPECT_TRUE(Shows(frame, 2, 597, kBlue));
    EXPECT_TRUE(Shows(frame, 797, 597, kYellow));
    EXPECT_TRUE(Shows(frame, 310, 235, kWhite));
    EXPECT_TRUE(Shows(frame, 490, 365, kWhite));
    EXPECT_TRUE(Shows(frame, 285, 235, kRed));
    EXPECT_TRUE(Shows(frame, 515, 235, kGreen));
    EXPECT_TRUE(Shows(frame, 310, 210, kRed));
    EXPECT_TRUE(Shows(frame, 490, 390, kYellow));
}

TEST_F(GLWidgetTest, SecondPictureWithinOneTickIsRefused) {
    widget.SetImageSize(16, 12);
    const Picture first(16, 12, kRed);
    const Picture second(16, 12, kGreen);
    const Picture third(16, 12, kBlue);
    EXPECT_TRUE(widget.PushImageData(first.data()));
    EXPECT_TRUE(widget.PushImageData(second.data()));
    Tick();
    ASSERT_TRUE(CentreShowsSoon(kRed));
    Tick();
    EXPECT_TRUE(CentreShows(kRed)) << "the second picture was queued";
    EXPECT_TRUE(widget.PushImageData(third.data()));
    Tick();
    EXPECT_TRUE(CentreShowsSoon(kBlue));
}

TEST_F(GLWidgetTest, TimerShowsPicturesPushedFromAnotherThread) {
    widget.SetImageSize(16, 12);
    EXPECT_EQ(timer->interval(), 5);
    const Picture picture(16, 12, kYellow);
    bool pushed = false;
    std::thread producer([&] { pushed = widget.PushImageData(picture.data()); });
    producer.join();
    EXPECT_TRUE(pushed);
    EXPECT_TRUE(CentreShowsSoon(kYellow));  // no Tick(): the timer delivers it
}

TEST_F(GLWidgetTest, MissingPictureIsRefusedAndChangesNothing) {
    widget.SetImageSize(16, 12);
    EXPECT_FALSE(widget.PushImageData(nullptr));
    Tick();
    EXPECT_TRUE(CentreShowsSoon(kNormal)) << "a refused push switched to pictures";

    const Picture picture(16, 12, kRed);
    ASSERT_TRUE(widget.PushImageData(picture.data()));
    Tick();
    ASSERT_TRUE(CentreShowsSoon(kRed));
    EXPECT_FALSE(widget.PushImageData(nullptr));
    Tick();
    EXPECT_TRUE(CentreShows(kRed)) << "a refused push switched back to the status picture";
}

TEST_F(GLWidgetTest, PushBeforeAnySizeIsRefused) {
    const Picture picture(16, 12, kRed);
    EXPECT_FALSE(widget.PushImageData(picture.data()));
    Tick();
    EXPECT_TRUE(CentreShowsSoon(kNormal));
    EXPECT_EQ(timer->interval(), 1000);
}

// --- status while live ---

TEST_F(GLWidgetTest, FailureStatusWhileLiveKeepsTheFastRefresh) {
    const Picture picture(16, 12, kRed);
    widget.SetImageSize(16, 12);
    ASSERT_TRUE(widget.PushImageData(picture.data()));
    Tick();
    ASSERT_TRUE(CentreShowsSoon(kRed));
    widget.SetBackImage(3);
    EXPECT_EQ(timer->interval(), 5);
    Tick();
    EXPECT_TRUE(CentreShowsSoon(kLinkFail));
}

TEST_F(GLWidgetTest, NormalStatusSlowsTheRefreshUntilTheNextSize) {
    const Picture picture(16, 12, kRed);
    widget.SetImageSize(16, 12);
    ASSERT_TRUE(widget.PushImageData(picture.data()));
    Tick();
    ASSERT_TRUE(CentreShowsSoon(kRed));
    widget.SetBackImage(0);
    EXPECT_EQ(timer->interval(), 1000);
    EXPECT_TRUE(timer->isActive());
    Tick();
    EXPECT_TRUE(CentreShowsSoon(kNormal));
    widget.SetImageSize(16, 12);
    EXPECT_EQ(timer->interval(), 5);
}

TEST_F(GLWidgetTest, UnknownStatusKeepsThePreviousStatusPicture) {
    const Picture picture(16, 12, kRed);
    widget.SetImageSize(16, 12);
    widget.SetBackImage(3);
    ASSERT_TRUE(widget.PushImageData(picture.data()));
    Tick();
    ASSERT_TRUE(CentreShowsSoon(kRed));
    widget.SetBackImage(9);
    EXPECT_EQ(timer->interval(), 5);
    Tick();
    EXPECT_TRUE(CentreShowsSoon(kLinkFail));
}

}  // namespace

// The inject engine sizes a widget handed to it to the channel's frames (1280 x 1024 for a
// channel never started), so that the host's pictures of that size fill it.
TEST_F(GLWidgetTest, TheInjectEngineSizesTheWidgetToItsChannel) {
    QTemporaryDir scratch;
    const QString previous = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(scratch.path()));  // the engines' logs go to ./Log
    ASSERT_TRUE(KvPCIeSim::Configure("xdma:1"));
    PCIeDataManager manager;
    char path[] = "sim:xdma0";
    ASSERT_TRUE(manager.OpenCard(path));

    std::vector<char> frame(64 * 48);
    eErrorCode error = ERR_NO_CARD;
    ASSERT_TRUE(manager.StartInject(2, 50, 64, 48, Y8, 0, frame.data(), error));
    for (const auto& [channel, width, height] : {std::tuple{2, 64, 48}, {3, 1280, 1024}}) {
        SCOPED_TRACE(channel);
        widget.SetBackImage(0);
        manager.SetInjectFullScreenWgt(channel, &widget);
        EXPECT_EQ(timer->interval(), 5);
        const Picture picture = Quadrants(width, height);
        EXPECT_TRUE(widget.PushImageData(picture.data()));
        Tick();
        EXPECT_TRUE(ShowsSoon(widget, kWidth / 4, kHeight / 4, kRed));
        EXPECT_TRUE(ShowsSoon(widget, 3 * kWidth / 4, 3 * kHeight / 4, kYellow));
    }
    manager.StopInject(2);
    manager.CloseCard();
    QDir::setCurrent(previous);
}

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Kept to the end of the process on purpose: destroying it closes the X connection, which
    // unloads Mesa's driver and D-Bus state with blocks still allocated, and the leak checker
    // then reports them as lost, from a library that is gone, against the test.
    static auto* application = new QApplication(argc, argv);
    (void)application;
    return RUN_ALL_TESTS();
}
