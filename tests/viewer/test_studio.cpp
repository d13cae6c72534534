// kvviewer's window driven in-process, on the simulated card or the driver model's.
#include "StudioWindow.h"
#include "TestFrames.h"
#include "ZoomView.h"

#include <KvPCIeInjectSdk/GLWidget.h>
#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QMouseEvent>
#include <QPushButton>
#include <QScreen>
#include <QSettings>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QtTest>

#include <cstring>
#include <memory>

using namespace kvpcie::viewer;
using namespace KvPCIeSim;

namespace {

constexpr int kWaitMs = 15000;

std::uint32_t FrameNumber(const std::vector<char>& frame) {
    std::uint32_t n = 0;
    std::memcpy(&n, frame.data(), sizeof n);
    return n;
}

// Byte k of frame n of the card's test pattern (k >= 8).
unsigned PatternByte(std::size_t k, std::uint32_t n) {
    return static_cast<unsigned>((k + n) % 256);
}

// What the inspector says of pixel `pixel` of frame n of the card's pattern.
QString ExpectedPixelText(ePixelType type, std::size_t pixel, std::uint32_t n) {
    const auto b = [n](std::size_t k) { return PatternByte(k, n); };
    const auto word = [&b](std::size_t k) {
        const unsigned value = b(k) | b(k + 1) << 8;
        return QStringLiteral("%1 (0x%2)").arg(value).arg(value, 4, 16, QLatin1Char('0'));
    };
    const std::size_t pair = (pixel & ~std::size_t{1}) * 2;
    switch (type) {
        case Y8:
            return QString::number(b(pixel));
        case Y16:
            return word(2 * pixel);
        case UYVY422:
            return QStringLiteral("Y %1 U %2 V %3")
                .arg(b(pair + 1 + (pixel & 1) * 2))
                .arg(b(pair))
                .arg(b(pair + 2));
        case Y16_Y8:
            return word(3 * pixel) + QStringLiteral(", Y8 %1").arg(b(3 * pixel + 2));
        default:
            return QStringLiteral("B %1 G %2 R %3")
                .arg(b(3 * pixel))
                .arg(b(3 * pixel + 1))
                .arg(b(3 * pixel + 2));
    }
}

}  // namespace

class StudioTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void aStartedChannelCountsFrames();
    void aCardThatGoesAwayShowsABannerAndALogLine();
    void theFormatChangesWhileTheChannelRuns();
    void aFormatTheCardCannotTakeIsRefusedBeforeAnythingIsSized();
    void aKeptGeometryLargerThanTheScreenIsBroughtOntoIt();
    void theInspectorShowsTheCardPatternsValue_data();
    void theInspectorShowsTheCardPatternsValue();
    void anInjectedPatternComesBackInThatChannelsPicture();
    void aCommandIsSentAndCounted();
    void aStatusBlockOfTheCardAppears();
    void aRegisterWrittenInThePanelReadsBack();
    void theFormatAndCardAreKeptForTheNextSession();
    void anotherCardOpensInPlaceOfTheFirstWhichIsLetGo();
    void aRiffaDeviceLeavesNoStartOrPlayButtonToPress();
    void takesAndNumberedSnapshotsGoToTheChosenFolder();
    void theHistogramCountsEveryPixelOfAKnownPicture();
    void theY16WindowIsTakenOrRefusedAndShownOverThePicture();
    void theDemoShowsTheCardsMovingScene();

private:
    std::unique_ptr<StudioWindow> MakeWindow(bool keepSettings = false);
    bool WriteRegister(unsigned address, unsigned value);

    QTemporaryDir scratch_;
    std::unique_ptr<StudioWindow> window_;
};

void StudioTest::initTestCase() {
    QVERIFY(scratch_.isValid());
    qputenv("XDG_CONFIG_HOME", scratch_.path().toLocal8Bit());
    if (qEnvironmentVariableIsEmpty("KVPCIE_MODEL_ROOT")) {
        qputenv("KVPCIE_SIM", "1");
    }
    QDir::setCurrent(scratch_.path());
}

std::unique_ptr<StudioWindow> StudioTest::MakeWindow(bool keepSettings) {
    ViewerOptions options;
    options.noSettings = !keepSettings;
    options.width = 320;
    options.height = 256;
    options.pixelType = Y8;
    auto window = std::make_unique<StudioWindow>(options);
    window->resize(1400, 900);
    window->show();
    return window;
}

void StudioTest::init() {
    window_ = MakeWindow();
    QVERIFY(QTest::qWaitForWindowExposed(window_.get()));
    QVERIFY2(window_->IsCardOpen(), qPrintable(window_->Log()->toPlainText()));
}

void StudioTest::cleanup() {
    if (window_ != nullptr) {
        // Leaves the card as it found it for the next case.
        for (int c = 0; c < 4; ++c) {
            window_->Manager().WriteReg(ControlBlock(c) + kCtlCaptureSource, 0);
            window_->Manager().WriteReg(ControlBlock(c) + kCtlExternalFrameRate, 25);
        }
        window_->Shutdown();
    }
    window_.reset();
}

bool StudioTest::WriteRegister(unsigned address, unsigned value) {
    window_->Registers()->SetConfirmation([](const QString&) { return true; });
    return window_->Registers()->Write(address, value);
}

void StudioTest::aStartedChannelCountsFrames() {
    CapturePanel* panel = window_->Capture(2);
    QTest::mouseClick(panel->findChild<QPushButton*>(QStringLiteral("start")), Qt::LeftButton);
    QVERIFY2(panel->IsRunning(), qPrintable(window_->Log()->toPlainText()));
    QTRY_VERIFY_WITH_TIMEOUT(panel->Frames() >= 10, kWaitMs);
    // The card's own count of frames it had no buffer for stands beside the host's.
    QTRY_VERIFY_WITH_TIMEOUT(panel->StateText().contains(QRegularExpression(QStringLiteral(
                                 "[0-9]+ failed, [0-9]+ flagged, [0-9]+ lost on the card"))),
                             kWaitMs);
    window_->SetCurrentChannel(2);
    QTRY_VERIFY_WITH_TIMEOUT(window_->Inspect()->StatisticsText().contains(
                                 QRegularExpression(QStringLiteral("delivered [1-9]"))),
                             kWaitMs);
    // Every count of the library's table has its row, the card's state too.
    QVERIFY(window_->Inspect()->StatisticsText().contains(QStringLiteral("card lost no")));
    QVERIFY(
        window_->Inspect()->StatisticsText().contains(QStringLiteral("status bytes dropped 0")));
    QVERIFY(window_->Log()->toPlainText().contains(QStringLiteral("channel 2: capturing")));
    // Stopped, it counts no more.
    panel->Stop();
    const auto frames = panel->Frames();
    QTest::qWait(200);
    QCOMPARE(panel->Frames(), frames);
}

void StudioTest::aCardThatGoesAwayShowsABannerAndALogLine() {
    CapturePanel* panel = window_->Capture(0);
    QVERIFY(panel->Start());
    QTRY_VERIFY_WITH_TIMEOUT(panel->Frames() >= 3, kWaitMs);
    // The card's own removal register: it drops off the bus, in-process or on the driver model.
    window_->Manager().WriteReg(0x1F0008, 1);
    auto* banner = window_->findChild<QLabel*>(QStringLiteral("banner"));
    QVERIFY(banner != nullptr);
    QTRY_VERIFY_WITH_TIMEOUT(banner->isVisible() && banner->text().contains(QStringLiteral("gone")),
                             kWaitMs);
    QVERIFY(window_->Log()->toPlainText().contains(QStringLiteral("is gone")));
    const auto frames = panel->Frames();
    QTest::qWait(200);
    QCOMPARE(panel->Frames(), frames);
}

void StudioTest::theFormatChangesWhileTheChannelRuns() {
    CapturePanel* panel = window_->Capture(0);
    QVERIFY(panel->Start());
    QTRY_VERIFY_WITH_TIMEOUT(panel->Frames() >= 3, kWaitMs);
    // Chosen in the panel's own controls, as a user does.
    auto* type = panel->findChild<QComboBox*>(QStringLiteral("type"));
    type->setCurrentIndex(type->findText(QStringLiteral("Y16")));
    panel->findChild<QSpinBox*>(QStringLiteral("width"))->setValue(200);
    panel->findChild<QSpinBox*>(QStringLiteral("height"))->setValue(100);
    QTest::mouseClick(panel->findChild<QPushButton*>(QStringLiteral("apply")), Qt::LeftButton);
    QVERIFY(panel->IsRunning());
    QCOMPARE(panel->Format().pixelType, Y16);
    QCOMPARE(panel->Format().width, 200);
    QCOMPARE(panel->Format().height, 100);
    // The current channel's inspector takes the new copies: the latest one is read here.
    std::vector<char> frame;
    CaptureFormat shown;
    QTRY_VERIFY_WITH_TIMEOUT((panel->AskForFrame(), panel->LatestFrame(frame, shown)), kWaitMs);
    QCOMPARE(frame.size(), std::size_t{200 * 100 * 2});
    // The frames of the new format are the card's pattern for it.
    QCOMPARE(static_cast<unsigned char>(frame[20]), PatternByte(20, FrameNumber(frame)));
}

// The largest format the boxes take; the library's other refusals are the facade suite's.
void StudioTest::aFormatTheCardCannotTakeIsRefusedBeforeAnythingIsSized() {
    const CaptureFormat tooLarge{65535, 65535, Y16, false};
    CapturePanel* panel = window_->Capture(0);
    QVERIFY(panel->Start());
    const int windowWidth = window_->width();
    const std::size_t held = panel->HeldFrameBytes();
    const std::uint64_t frames = panel->Frames();
    QVERIFY(!panel->SetFormat(tooLarge));
    const QString log = window_->Log()->toPlainText();
    QVERIFY2(log.contains(QStringLiteral("exceeds the 20 MiB card buffer")), qPrintable(log));
    // Nothing was sized for it, and the channel goes on as it was.
    QCOMPARE(panel->HeldFrameBytes(), held);
    QCOMPARE(panel->Format().width, 320);
    QVERIFY(panel->IsRunning());
    QTRY_VERIFY_WITH_TIMEOUT(panel->Frames() > frames, kWaitMs);
    QCOMPARE(window_->width(), windowWidth);
    // Stopped, the same format is refused at the start and nothing is held for it.
    panel->Stop();
    QVERIFY(!panel->SetFormat(tooLarge));
    QVERIFY(panel->Start());
}

void StudioTest::aKeptGeometryLargerThanTheScreenIsBroughtOntoIt() {
    window_->Shutdown();
    window_.reset();
    {
        // As a window that something had widened far past the screen would have kept it.
        QWidget huge;
        huge.setGeometry(3000, 2000, 22297, 9000);
        QSettings(QStringLiteral("KvPCIeInjectSdk"), QStringLiteral("kvviewer"))
            .setValue(QStringLiteral("window/geometry"), huge.saveGeometry());
    }
    ViewerOptions options;
    options.noSettings = false;
    StudioWindow window(options);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    const QRect available = QGuiApplication::primaryScreen()->availableGeometry();
    QVERIFY2(available.contains(window.geometry()), qPrintable(QStringLiteral("%1 x %2 at %3, %4")
                                                                   .arg(window.width())
                                                                   .arg(window.height())
                                                                   .arg(window.x())
                                                                   .arg(window.y())));
    window.Shutdown();
    // The next cases start from no kept settings.
    QSettings(QStringLiteral("KvPCIeInjectSdk"), QStringLiteral("kvviewer")).clear();
}

void StudioTest::theInspectorShowsTheCardPatternsValue_data() {
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("x");
    QTest::addColumn<int>("y");
    QTest::addColumn<int>("zoom");  // screen pixels per picture pixel
    QTest::newRow("Y8 1:1") << int(Y8) << 37 << 5 << 1;
    QTest::newRow("Y16 zoomed") << int(Y16) << 100 << 2 << 2;
    QTest::newRow("UYVY422 odd pixel") << int(UYVY422) << 41 << 3 << 1;
    QTest::newRow("Y16&Y8 zoomed") << int(Y16_Y8) << 12 << 7 << 2;
    QTest::newRow("BGR24 1:1") << int(BGR24) << 250 << 1 << 1;
}

void StudioTest::theInspectorShowsTheCardPatternsValue() {
    QFETCH(int, type);
    QFETCH(int, x);
    QFETCH(int, y);
    QFETCH(int, zoom);
    CapturePanel* panel = window_->Capture(1);
    const CaptureFormat format{320, 256, static_cast<ePixelType>(type), false};
    QVERIFY(panel->SetFormat(format));
    QVERIFY(panel->Start());
    window_->SetCurrentChannel(1);
    QTRY_VERIFY_WITH_TIMEOUT(!window_->Inspect()->InspectedFrame().empty(), kWaitMs);
    panel->Stop();  // the inspected frame stays as it is from here

    // The cursor over the middle of pixel (x, y) of the picture shown 1:1 or zoomed.
    ZoomView* view = panel->View();
    view->ActualSize();
    view->ZoomBy(zoom);
    GLWidget* display = view->Display();
    QCOMPARE(display->width(), format.width * zoom);
    const QPoint at(x * zoom + zoom / 2, y * zoom + zoom / 2);
    QMouseEvent move(QEvent::MouseMove, at, Qt::NoButton, Qt::NoButton, Qt::NoModifier);
    QApplication::sendEvent(display, &move);

    const std::vector<char>& frame = window_->Inspect()->InspectedFrame();
    const std::size_t pixel = std::size_t(y) * format.width + x;
    const QString expected = ExpectedPixelText(format.pixelType, pixel, FrameNumber(frame));
    QCOMPARE(window_->Inspect()->InspectorText().toLower(),
             QStringLiteral("pixel (%1, %2): %3").arg(x).arg(y).arg(expected).toLower());
    // The pattern's levels are spread evenly: nearly nothing is clipped at either end.
    QVERIFY(window_->Inspect()->Histogram()->Levels().pixels > 0);
    QVERIFY(window_->Inspect()->Histogram()->Levels().ClippedHighShare() < 0.05);
}

void StudioTest::anInjectedPatternComesBackInThatChannelsPicture() {
    constexpr int kChannel = 3;
    // Capture channel 3 shows what inject channel 3 plays.
    QVERIFY(WriteRegister(ControlBlock(kChannel) + kCtlCaptureSource, 1));
    InjectPage* inject = window_->Inject();
    window_->SetCurrentChannel(kChannel);
    // A frame larger than a card buffer is refused before anything is sized for it.
    inject->ChooseSource(InjectSource{QString(), 65535, 65535, Y16, 25, true});
    QVERIFY(!inject->Play());
    QTRY_VERIFY_WITH_TIMEOUT(
        inject->StatisticsText().contains(QStringLiteral("exceeds the 20 MiB card buffer")),
        kWaitMs);
    inject->ChooseSource(InjectSource{QString(), 320, 256, Y8, 25, true});
    QVERIFY2(inject->Play(), qPrintable(window_->Log()->toPlainText()));
    CapturePanel* panel = window_->Capture(kChannel);
    QVERIFY(panel->Start());
    // A frame that went through the card whole: its header, channel and moving ramp.
    bool verified = false;
    std::vector<char> frame;
    CaptureFormat shown;
    QTRY_VERIFY_WITH_TIMEOUT(
        (panel->AskForFrame(), panel->LatestFrame(frame, shown)) &&
            (verified = kvpcie::tools::CheckLoopbackFrame(frame.data(), frame.size(), kChannel,
                                                          inject->RunTag(kChannel), 1, -1) ==
                        kvpcie::tools::LoopbackCheck::Verified),
        kWaitMs);
    QVERIFY(verified);
    QTRY_VERIFY_WITH_TIMEOUT(inject->StatisticsText().contains(QRegularExpression(QStringLiteral(
                                 "handed to the card [1-9].*\n.*the card: played [1-9]"))),
                             kWaitMs);
    inject->StopChannel(kChannel);
    QVERIFY(!inject->IsPlaying(kChannel));
}

void StudioTest::aCommandIsSentAndCounted() {
    window_->SetCurrentChannel(1);
    CommandPage* commands = window_->Commands();
    const int windowWidth = window_->width();
    // Whether it went within 40 ms depends on the machine's load: the card's count is checked.
    commands->Send(QStringLiteral("55 aa 01 02 03"));
    QTRY_COMPARE_WITH_TIMEOUT(window_->Manager().ReadReg(ControlBlock(1) + kCtlLastCommandLength),
                              5u, kWaitMs);
    QTRY_VERIFY_WITH_TIMEOUT(commands->StatisticsText().contains(QStringLiteral("sent 1 ")),
                             kWaitMs);
    QCOMPARE(commands->History().value(0), QStringLiteral("55 aa 01 02 03"));
    // Not hex: refused before the card, said in the log with the item at fault.
    QVERIFY(!commands->Send(QStringLiteral("55 zz")));
    QVERIFY(window_->Log()->toPlainText().contains(
        QStringLiteral("\"55 zz\" is not hex bytes: item 2, \"zz\", is not hex")));
    QVERIFY(!commands->Send(QString(QStringLiteral("a5 ")).repeated(99) + QStringLiteral("g1")));
    QVERIFY(window_->Log()->toPlainText().contains(QStringLiteral("item 100, \"g1\", is not hex")));
    QVERIFY(!commands->Send(QStringLiteral("55 a")));
    QVERIFY(
        window_->Log()->toPlainText().contains(QStringLiteral("3 hex digits: a byte takes two")));
    // Longer than the mailbox: the library's reason is logged.
    QVERIFY(!commands->Send(QString(QStringLiteral("00")).repeated(1025)));
    QVERIFY(window_->Log()->toPlainText().contains(QStringLiteral("exceeds 1,024 bytes")));
    // None of the long answers widened the window.
    QApplication::processEvents();
    QCOMPARE(window_->width(), windowWidth);
}

void StudioTest::aStatusBlockOfTheCardAppears() {
    constexpr int kChannel = 2;
    window_->SetCurrentChannel(kChannel);
    StatusPage* status = window_->Status();
    QVERIFY(status->Listen(kChannel, true));
    const QByteArray block = QByteArray::fromHex("0102030405060708090a");
    for (int word = 0; word < 3; ++word) {
        unsigned value = 0;
        std::memcpy(&value, block.constData() + 4 * word,
                    std::min<std::size_t>(4, std::size_t(block.size()) - 4 * word));
        QVERIFY(
            WriteRegister(ControlBlock(kChannel) + kCtlStatusStaging + 4 * unsigned(word), value));
    }
    QVERIFY(WriteRegister(ControlBlock(kChannel) + kCtlPostStatus, unsigned(block.size())));
    QTRY_COMPARE_WITH_TIMEOUT(status->Blocks(kChannel), std::uint64_t{1}, kWaitMs);
    QCOMPARE(status->LastBlock(kChannel), block);
    QCOMPARE(status->Bytes(kChannel), std::uint64_t(block.size()));
    const QString file = scratch_.filePath(QStringLiteral("status.bin"));
    QVERIFY(status->SaveTo(kChannel, file));
    QFile saved(file);
    QVERIFY(saved.open(QIODevice::ReadOnly));
    QCOMPARE(saved.readAll(), block);
}

void StudioTest::aRegisterWrittenInThePanelReadsBack() {
    RegisterPage* registers = window_->Registers();
    const unsigned rate = ControlBlock(3) + kCtlExternalFrameRate;
    registers->Watch(rate);
    // Declined: nothing is written.
    registers->SetConfirmation([](const QString&) { return false; });
    QVERIFY(!registers->Write(rate, 30));
    QCOMPARE(registers->Read(rate).value_or(0), 25u);
    QVERIFY(WriteRegister(rate, 30));
    QCOMPARE(registers->Read(rate).value_or(0), 30u);
    QTRY_COMPARE_WITH_TIMEOUT(registers->WatchedText(rate), QStringLiteral("0x0000001E"), kWaitMs);
    QCOMPARE(RegisterPage::ParseNumber(QStringLiteral("1F1004h")).value_or(0), 0x1F1004u);
    QVERIFY(!RegisterPage::ParseNumber(QStringLiteral("0x1FFFFFFFF")));
    QVERIFY(!RegisterPage::ParseNumber(QStringLiteral("-4")));
}

void StudioTest::theFormatAndCardAreKeptForTheNextSession() {
    window_->Shutdown();
    window_.reset();
    {
        auto first = MakeWindow(true);
        QVERIFY(first->IsCardOpen());
        QVERIFY(first->Capture(2)->SetFormat(CaptureFormat{100, 60, BGR24, true}));
        first->Shutdown();
    }
    auto second = MakeWindow(true);
    const CaptureFormat kept = second->Capture(2)->Format();
    QCOMPARE(kept.width, 100);
    QCOMPARE(kept.height, 60);
    QCOMPARE(kept.pixelType, BGR24);
    QVERIFY(kept.cardTiming);
    QCOMPARE(second->Capture(1)->Format().width, 320);
    second->Shutdown();
}

void StudioTest::anotherCardOpensInPlaceOfTheFirstWhichIsLetGo() {
    if (!qEnvironmentVariableIsEmpty("KVPCIE_MODEL_ROOT")) {
        QSKIP("needs two simulated cards in this process");
    }
    window_->Shutdown();
    window_.reset();
    QVERIFY(Configure("xdma:2"));
    window_ = MakeWindow();
    QVERIFY(window_->IsCardOpen());
    CapturePanel* panel = window_->Capture(2);
    QVERIFY(panel->Start());
    QTRY_VERIFY_WITH_TIMEOUT(panel->Frames() >= 3, kWaitMs);
    QVERIFY(PokeRegister(1, ControlBlock(3) + kCtlExternalFrameRate, 31));

    QVERIFY(window_->Picker()->Choose(QStringLiteral("XDMA sim:xdma1")));
    QVERIFY2(window_->OpenChosenCard(), qPrintable(window_->Log()->toPlainText()));
    QVERIFY(!panel->IsRunning());
    QVERIFY(window_->windowTitle().contains(QStringLiteral("sim:xdma1")));
    // The first card was let go: its host-attach word (0x4) is back to 0.
    std::uint32_t attach = 1;
    QVERIFY(PeekRegister(0, 0x4, attach));
    QCOMPARE(attach, 0u);
    // The registers panel and the channels now reach the second card.
    QCOMPARE(window_->Registers()->Read(ControlBlock(3) + kCtlExternalFrameRate).value_or(0), 31u);
    const auto before = panel->Frames();
    QVERIFY(panel->Start());
    QTRY_VERIFY_WITH_TIMEOUT(panel->Frames() >= before + 3, kWaitMs);
    std::uint32_t produced = 0;
    QVERIFY(PeekRegister(1, ControlBlock(2) + kCtlFramesProduced, produced));
    QVERIFY(produced >= 3);
    panel->Stop();
    window_->Shutdown();
    window_.reset();
    QVERIFY(Configure("xdma:1"));
}

void StudioTest::aRiffaDeviceLeavesNoStartOrPlayButtonToPress() {
    CardPicker* picker = window_->Picker();
    QString riffa;
    QString xdma;
    for (int k = 0; k < picker->count(); ++k) {
        (picker->itemText(k).startsWith(QStringLiteral("RIFFA")) ? riffa : xdma) =
            picker->itemText(k);
    }
    if (riffa.isEmpty()) {
        QSKIP("no RIFFA device is listed here");
    }
    QVERIFY(window_->Capture(0)->CanStart());
    QVERIFY(picker->Choose(riffa));
    QVERIFY(window_->OpenChosenCard());
    for (int c = 0; c < 4; ++c) {
        QVERIFY(!window_->Capture(c)->CanStart());
        QVERIFY(!window_->Capture(c)->Start());
    }
    QVERIFY(!window_->Inject()->CanPlay());
    QVERIFY(!window_->Inject()->Play());
    QVERIFY(window_->findChild<QPushButton*>(QStringLiteral("start"))
                ->toolTip()
                .contains(QStringLiteral("serves registers only")));
    // Back on the XDMA card, everything can be started again.
    QVERIFY(picker->Choose(xdma));
    QVERIFY(window_->OpenChosenCard());
    QVERIFY(window_->Capture(0)->CanStart());
    QVERIFY(window_->Inject()->CanPlay());
}

int main(int argc, char** argv) {
    // Kept to the end of the process: leak checkers blame the OpenGL driver's blocks on us.
    static QApplication* application = new QApplication(argc, argv);
    Q_UNUSED(application);
    StudioTest test;
    return QTest::qExec(&test, argc, argv);
}

void StudioTest::takesAndNumberedSnapshotsGoToTheChosenFolder() {
    const QString out = QDir(scratch_.path()).filePath(QStringLiteral("bench out"));
    window_->SetOutputFolder(out);
    QVERIFY(window_->Log()->toPlainText().contains(out));
    CapturePanel* panel = window_->Capture(1);
    QVERIFY(panel->Start());
    QTRY_VERIFY_WITH_TIMEOUT(panel->Frames() >= 3, kWaitMs);
    QVERIFY(panel->StartRecording());
    QVERIFY2(panel->TakeFolder().startsWith(QDir::toNativeSeparators(out + "/Capture2/")),
             qPrintable(panel->TakeFolder()));
    QVERIFY(window_->Log()->toPlainText().contains(panel->TakeFolder()));
    panel->StopRecording();

    // Ctrl+P on the current channel numbers on from the highest snapshot there, never over one.
    QFile kept(out + QStringLiteral("/snapshot_ch1_0007.png"));
    QVERIFY(kept.open(QIODevice::WriteOnly));
    kept.write("kept");
    kept.close();
    window_->SetCurrentChannel(1);
    window_->activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(window_.get()));
    std::vector<char> frame;
    CaptureFormat format;
    panel->AskForFrame();
    QTRY_VERIFY_WITH_TIMEOUT(panel->LatestFrame(frame, format), kWaitMs);
    for (int shot = 0; shot < 2; ++shot) {
        QTest::keyClick(window_.get(), Qt::Key_P, Qt::ControlModifier);
    }
    QTRY_COMPARE_WITH_TIMEOUT(QDir(out).entryList({QStringLiteral("snapshot_ch1_*.png")}),
                              QStringList({QStringLiteral("snapshot_ch1_0007.png"),
                                           QStringLiteral("snapshot_ch1_0008.png"),
                                           QStringLiteral("snapshot_ch1_0009.png")}),
                              kWaitMs);
    QVERIFY(kept.open(QIODevice::ReadOnly));
    QCOMPARE(kept.readAll(), QByteArray("kept"));
    QVERIFY(!QImage(out + QStringLiteral("/snapshot_ch1_0009.png")).isNull());
    window_->SetOutputFolder(QString());
}

// A 640-wide Y8 frame of the card's pattern holds every level 0-255 equally often (byte k is
// (k + n) mod 256): a histogram that samples every second pixel shows a comb of half of them.
void StudioTest::theHistogramCountsEveryPixelOfAKnownPicture() {
    CapturePanel* panel = window_->Capture(0);
    QVERIFY(panel->SetFormat(CaptureFormat{640, 512, Y8, false}));
    QVERIFY(panel->Start());
    window_->SetCurrentChannel(0);
    const HistogramView* histogram = window_->Inspect()->Histogram();
    QTRY_VERIFY_WITH_TIMEOUT(histogram->Levels().pixels == 640u * 512u, kWaitMs);
    panel->Stop();
    const kvpcie::tools::LevelHistogram& levels = histogram->Levels();
    for (int bin = 0; bin < 256; ++bin) {
        // 1,280 each; the 8 bytes of the frame's stamp move one level up or down a little.
        QVERIFY2(levels.bins[bin] >= 1270 && levels.bins[bin] <= 1290,
                 qPrintable(QStringLiteral("bin %1: %2").arg(bin).arg(levels.bins[bin])));
    }
    QCOMPARE(levels.minLevel, 0u);
    QCOMPARE(levels.maxLevel, 255u);
    QVERIFY(std::abs(levels.MeanLevel() - 127.5) < 0.5);
    QVERIFY2(histogram->SummaryText().startsWith(QStringLiteral("min 0   max 255   mean 127.")),
             qPrintable(histogram->SummaryText()));
}

void StudioTest::theY16WindowIsTakenOrRefusedAndShownOverThePicture() {
    CapturePanel* panel = window_->Capture(2);
    window_->SetCurrentChannel(2);
    InspectPage* inspect = window_->Inspect();
    QVERIFY(inspect->SetY16Window(false, 1000, 3000));
    kvpcie::tools::Y16Window shown = panel->Y16WindowShown();
    QVERIFY(!shown.automatic);
    QCOMPARE(shown.low, 1000u);
    QCOMPARE(shown.high, 3000u);
    // Refused: the picture keeps the window it had.
    QVERIFY(!inspect->SetY16Window(false, 3000, 3000));
    QVERIFY(window_->Log()->toPlainText().contains(QStringLiteral("low below high")));
    QCOMPARE(panel->Y16WindowShown().low, 1000u);
    // Each channel has its own; the page shows the current one's.
    window_->SetCurrentChannel(3);
    QVERIFY(window_->Capture(3)->Y16WindowShown().automatic);
    QVERIFY(inspect->findChild<QCheckBox*>(QStringLiteral("windowAuto"))->isChecked());
    window_->SetCurrentChannel(2);
    QVERIFY(!inspect->findChild<QCheckBox*>(QStringLiteral("windowAuto"))->isChecked());
    QCOMPARE(inspect->findChild<QSpinBox*>(QStringLiteral("windowHigh"))->value(), 3000);
    QVERIFY(inspect->SetY16Window(true, 0, 0xFFFF));
    QVERIFY(panel->Y16WindowShown().automatic);

    // The overlay over the picture: figures while running, gone when switched off.
    QVERIFY(panel->Start());
    QVERIFY(window_->OverlayShown() && panel->OverlayShown());
    QTRY_VERIFY_WITH_TIMEOUT(panel->OverlayText().contains(QRegularExpression(
                                 QStringLiteral("^[0-9.]+ fps   [0-9]+ lost   [0-9.]+ MB/s$"))),
                             kWaitMs);
    window_->activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(window_.get()));
    QTest::keyClick(window_.get(), Qt::Key_I, Qt::ControlModifier);
    QVERIFY(!panel->OverlayShown());
    window_->SetOverlayShown(true);
    QVERIFY(panel->OverlayShown());
}

// The demo's live channel shows the card's moving scene, not a ramp.
void StudioTest::theDemoShowsTheCardsMovingScene() {
    if (!qEnvironmentVariableIsEmpty("KVPCIE_MODEL_ROOT")) {
        QSKIP("the driver model's card: the demo's sources are the in-process card's");
    }
    QVERIFY(window_->StartDemo());
    window_->SetCurrentChannel(0);
    const HistogramView* histogram = window_->Inspect()->Histogram();
    QTRY_VERIFY_WITH_TIMEOUT(histogram->Levels().pixels > 0, kWaitMs);
    const std::vector<char> first = window_->Inspect()->InspectedFrame();
    const kvpcie::tools::LevelHistogram levels = histogram->Levels();
    int populated = 0;
    std::uint32_t tallest = 0;
    for (std::uint32_t count : levels.bins) {
        populated += count > 0 ? 1 : 0;
        tallest = std::max(tallest, count);
    }
    QVERIFY2(populated > 100, qPrintable(QString::number(populated)));
    // A ramp fills its bins evenly; a scene has favourite levels.
    QVERIFY(tallest > 3 * levels.pixels / 256);
    QCOMPARE(levels.clippedLow + levels.clippedHigh, std::uint64_t{0});
    QTRY_VERIFY_WITH_TIMEOUT(window_->Inspect()->InspectedFrame() != first, kWaitMs);
}

#include "test_studio.moc"
