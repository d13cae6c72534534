// The display widget on a real OpenGL context: what each tick shows, and the refresh period.
#include <KvPCIeInjectSdk/GLWidget.h>
#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <QApplication>
#include <QColor>
#include <QDeadlineTimer>
#include <QDir>
#include <QImage>
#include <QPainter>
#include <QTemporaryDir>
#include <QTimer>
#include <QWidget>

#include <gtest/gtest.h>

#include <algorithm>
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

// An RGBA picture as a producer hands it over (32-bit rows are never padded): red, green / blue,
// yellow, so that any flip or turn of the picture moves a colour.
QImage Quadrants(int w, int h) {
    QImage picture(w, h, QImage::Format_RGBA8888);
    QPainter painter(&picture);
    painter.fillRect(0, 0, w, h, Qt::red);
    painter.fillRect(w / 2, 0, w - w / 2, h / 2, Qt::green);
    painter.fillRect(0, h / 2, w / 2, h - h / 2, Qt::blue);
    painter.fillRect(w / 2, h / 2, w - w / 2, h - h / 2, Qt::yellow);
    return picture;
}

::testing::AssertionResult Shows(const QImage& frame, int x, int y, const QColor& expected) {
    if (frame.isNull()) {
        return ::testing::AssertionFailure() << "no framebuffer to read";
    }
    const QColor seen = frame.pixelColor(x, y);
    if (std::max({std::abs(seen.red() - expected.red()), std::abs(seen.green() - expected.green()),
                  std::abs(seen.blue() - expected.blue())}) <= 8) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure()
           << "pixel (" << x << ", " << y << ") is " << qPrintable(seen.name()) << ", expected "
           << qPrintable(expected.name());
}

// Reads the framebuffer until the pixel has the colour, for at most three seconds.
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

class GLWidgetTest : public ::testing::Test {
protected:
    static constexpr int kWidth = 200;
    static constexpr int kHeight = 150;

    void SetUp() override {
        widget.resize(kWidth, kHeight);
        const auto timers = widget.findChildren<QTimer*>(QString(), Qt::FindDirectChildrenOnly);
        ASSERT_EQ(timers.size(), 1);
        timer = timers.front();
    }
    // Lets the picture queue deliver, as the refresh timer would.
    void Tick() { widget.OnTimer_UpdataVideoView(); }
    bool Push(const QColor& colour) {
        QImage picture(16, 12, QImage::Format_RGBA8888);
        picture.fill(colour);
        return widget.PushImageData(picture.constBits());
    }
    ::testing::AssertionResult CentreShowsSoon(const QColor& colour) {
        return ShowsSoon(widget, kWidth / 2, kHeight / 2, colour);
    }

    GLWidget widget;
    QTimer* timer = nullptr;
};

TEST_F(GLWidgetTest, StartsShowingNormalOnceASecondThenEachStatusPicture) {
    EXPECT_TRUE(widget.isVisible());
    EXPECT_TRUE(timer->isActive());
    EXPECT_EQ(timer->interval(), 1000);
    EXPECT_EQ(timer->timerType(), Qt::PreciseTimer);
    for (int status = 0; status < static_cast<int>(kStatusColours.size()); ++status) {
        if (status > 0) {
            widget.SetBackImage(status);
        }
        Tick();
        EXPECT_TRUE(CentreShowsSoon(kStatusColours[status])) << "status " << status;
    }
}

TEST(GLWidgetBeforeGL, TickBeforeTheContextExistsUploadsNothing) {
    QWidget hiddenParent;
    auto* widget = new GLWidget(&hiddenParent);
    widget->resize(64, 48);
    EXPECT_FALSE(widget->isVisible());
    widget->OnTimer_UpdataVideoView();
    // Reading back creates the context; no picture has reached it, so only the clear colour.
    EXPECT_TRUE(Shows(widget->grabFramebuffer(), 32, 24, Qt::black));
    widget->OnTimer_UpdataVideoView();
    EXPECT_TRUE(ShowsSoon(*widget, 32, 24, kNormal));
}

TEST_F(GLWidgetTest, PictureIsStretchedOverTheWholeWidgetTheRightWayUp) {
    widget.resize(800, 600);
    // 64 x 48 is stretched 12.5 times: the white block, columns 24-39 and rows 18-29, covers
    // x 300-500 and y 225-375.
    QImage picture = Quadrants(64, 48);
    QPainter(&picture).fillRect(24, 18, 16, 12, Qt::white);
    widget.SetImageSize(picture.width(), picture.height());
    ASSERT_TRUE(widget.PushImageData(picture.constBits()));
    Tick();
    ASSERT_TRUE(ShowsSoon(widget, 400, 300, Qt::white));
    const QImage frame = widget.grabFramebuffer();
    ASSERT_EQ(frame.size(), QSize(800, 600));
    const std::tuple<int, int, QColor> expected[] = {
        {2, 2, Qt::red},       {797, 2, Qt::green},    {2, 597, Qt::blue},  {797, 597, Qt::yellow},
        {310, 235, Qt::white}, {490, 365, Qt::white},  {285, 235, Qt::red}, {515, 235, Qt::green},
        {310, 210, Qt::red},   {490, 390, Qt::yellow},
    };
    for (const auto& [x, y, colour] : expected) {
        EXPECT_TRUE(Shows(frame, x, y, colour));
    }
}

TEST_F(GLWidgetTest, SecondPictureWithinOneTickIsDropped) {
    widget.SetImageSize(16, 12);
    EXPECT_TRUE(Push(Qt::red));
    EXPECT_TRUE(Push(Qt::green));
    Tick();
    ASSERT_TRUE(CentreShowsSoon(Qt::red));
    Tick();
    EXPECT_TRUE(CentreShowsSoon(Qt::red)) << "the second picture was queued";
    EXPECT_TRUE(Push(Qt::blue));
    Tick();
    EXPECT_TRUE(CentreShowsSoon(Qt::blue));
}

TEST_F(GLWidgetTest, TimerShowsPicturesPushedFromAnotherThread) {
    widget.SetImageSize(16, 12);
    EXPECT_EQ(timer->interval(), 5);
    bool pushed = false;
    std::thread producer([&] { pushed = Push(Qt::yellow); });
    producer.join();
    EXPECT_TRUE(pushed);
    EXPECT_TRUE(CentreShowsSoon(Qt::yellow));  // no Tick(): the timer delivers it
}

TEST_F(GLWidgetTest, APushBeforeAnySizeCopiesNothingAndANullPushChangesNothing) {
    // Before a size there is nothing to copy, yet the push is taken and pictures are awaited:
    // the first one pushed after SetImageSize shows.
    EXPECT_TRUE(Push(Qt::green)) << "refused before any size";
    Tick();
    widget.SetImageSize(16, 12);
    ASSERT_TRUE(Push(Qt::blue));
    Tick();
    EXPECT_TRUE(CentreShowsSoon(Qt::blue));

    widget.SetImageSize(16, 12);
    widget.SetBackImage(3);  // a push wrongly taken would keep this from the screen
    EXPECT_FALSE(widget.PushImageData(nullptr));
    Tick();
    EXPECT_TRUE(CentreShowsSoon(kLinkFail)) << "a refused push switched to pictures";

    ASSERT_TRUE(Push(Qt::red));
    Tick();
    ASSERT_TRUE(CentreShowsSoon(Qt::red));
    EXPECT_FALSE(widget.PushImageData(nullptr));
    Tick();
    EXPECT_TRUE(CentreShowsSoon(Qt::red)) << "a refused push switched back to the status picture";
}

TEST_F(GLWidgetTest, StatusWhileLive) {
    widget.SetImageSize(16, 12);
    ASSERT_TRUE(Push(Qt::red));
    Tick();
    ASSERT_TRUE(CentreShowsSoon(Qt::red));
    // A failure keeps the fast refresh, so that pictures come back as soon as they arrive.
    widget.SetBackImage(3);
    EXPECT_EQ(timer->interval(), 5);
    Tick();
    EXPECT_TRUE(CentreShowsSoon(kLinkFail));

    // An unknown status falls back on the last known one's picture.
    ASSERT_TRUE(Push(Qt::red));
    Tick();
    ASSERT_TRUE(CentreShowsSoon(Qt::red));
    widget.SetBackImage(9);
    EXPECT_EQ(timer->interval(), 5);
    Tick();
    EXPECT_TRUE(CentreShowsSoon(kLinkFail));

    // Normal slows the refresh until the next size.
    widget.SetBackImage(0);
    EXPECT_EQ(timer->interval(), 1000);
    EXPECT_TRUE(timer->isActive());
    Tick();
    EXPECT_TRUE(CentreShowsSoon(kNormal));
    widget.SetImageSize(16, 12);
    EXPECT_EQ(timer->interval(), 5);
}

// The inject engine sizes a widget to its channel's frames (1280 x 1024 if never started).
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
        EXPECT_TRUE(widget.PushImageData(Quadrants(width, height).constBits()));
        Tick();
        EXPECT_TRUE(ShowsSoon(widget, kWidth / 4, kHeight / 4, Qt::red));
        EXPECT_TRUE(ShowsSoon(widget, 3 * kWidth / 4, 3 * kHeight / 4, Qt::yellow));
    }
    manager.StopInject(2);
    manager.CloseCard();
    QDir::setCurrent(previous);
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Kept to the end of the process on purpose: destroying it closes the X connection, which
    // unloads Mesa's driver and D-Bus state with blocks still allocated, and the leak checker
    // then reports them as lost, from a library that is gone, against the test.
    static auto* application = new QApplication(argc, argv);
    (void)application;
    return RUN_ALL_TESTS();
}
