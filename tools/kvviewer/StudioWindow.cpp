// The viewer's window.
#include "StudioWindow.h"

#include "ZoomView.h"

#include <KvPCIeInjectSdk/GLWidget.h>
#include <KvPCIeInjectSdk/KvPCIeRecording.h>
#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <QAction>
#include <QCloseEvent>
#include <QComboBox>
#include <QDir>
#include <QDockWidget>
#include <QFileDialog>
#include <QGridLayout>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QScreen>
#include <QSettings>
#include <QTabWidget>
#include <QTimer>
#include <QToolBar>
#include <QVBoxLayout>

#include <algorithm>
#include <cstdio>

namespace kvpcie::viewer {
namespace {

QSettings Settings() {
    return QSettings(QStringLiteral("KvPCIeInjectSdk"), QStringLiteral("kvviewer"));
}

QString ChannelKey(int channel, const char* name) {
    return QStringLiteral("capture%1/%2").arg(channel).arg(QLatin1String(name));
}

}  // namespace

StudioWindow::StudioWindow(const ViewerOptions& options, QWidget* parent)
    : QMainWindow(parent),
      options_(options),
      manager_(XDMA_MM),
      riffaManager_(RIFFA),
      log_(new LogPane),
      context_{manager_, *log_},
      picker_(new CardPicker),
      banner_(new QLabel),
      pictures_(new QWidget),
      channelBox_(new QComboBox),
      tabs_(new QTabWidget),
      inspect_(new InspectPage(context_)),
      inject_(new InjectPage(context_)),
      commands_(new CommandPage(context_)),
      status_(new StatusPage(context_)),
      registers_(new RegisterPage(context_)) {
    setObjectName(QStringLiteral("kvviewer"));
    banner_->setObjectName(QStringLiteral("banner"));
    // The manager lives as long as the window; a lost card is told here, from the event loop.
    manager_.SetCardLostCallback(&StudioWindow::OnCardLost, this);
    CaptureFormat format;
    format.width = options.width;
    format.height = options.height;
    format.pixelType = options.pixelType;
    format.cardTiming = options.cardTiming;

    auto* grid = new QGridLayout(pictures_);
    grid->setContentsMargins(0, 0, 0, 0);
    grid->setSpacing(4);
    for (int channel = 0; channel < 4; ++channel) {
        auto* panel = new CapturePanel(context_, channel, format, pictures_);
        panel->setEnabled(options.channels[static_cast<std::size_t>(channel)]);
        grid->addWidget(panel, channel / 2, channel % 2);
        panels_[static_cast<std::size_t>(channel)] = panel;
        connect(panel, &CapturePanel::selected, this, &StudioWindow::SetCurrentChannel);
        connect(panel, &CapturePanel::pixelHovered, inspect_, &InspectPage::Hover);
        channelBox_->addItem(tr("channel %1").arg(channel));
    }
    auto* central = new QWidget;
    auto* layout = new QVBoxLayout(central);
    layout->setContentsMargins(4, 4, 4, 4);
    banner_->setWordWrap(true);
    layout->addWidget(banner_);
    layout->addWidget(pictures_, 1);
    setCentralWidget(central);

    tabs_->addTab(inspect_, tr("Inspect"));
    tabs_->addTab(inject_, tr("Inject"));
    tabs_->addTab(commands_, tr("Command"));
    tabs_->addTab(status_, tr("Status"));
    tabs_->addTab(registers_, tr("Registers"));
    auto* side = new QWidget;
    auto* sideLayout = new QVBoxLayout(side);
    sideLayout->addWidget(channelBox_);
    sideLayout->addWidget(tabs_, 1);
    auto* sideDock = new QDockWidget(tr("Channel"), this);
    sideDock->setObjectName(QStringLiteral("channelDock"));
    sideDock->setWidget(side);
    addDockWidget(Qt::RightDockWidgetArea, sideDock);
    auto* logDock = new QDockWidget(tr("Log"), this);
    logDock->setObjectName(QStringLiteral("logDock"));
    logDock->setWidget(log_);
    addDockWidget(Qt::BottomDockWidgetArea, logDock);
    connect(channelBox_, QOverload<int>::of(&QComboBox::currentIndexChanged), this,
            &StudioWindow::SetCurrentChannel);

    BuildActions();
    if (!options.output.empty()) {
        SetOutputFolder(QString::fromLocal8Bit(options.output.c_str()));
    }
    picker_->Refresh(manager_, riffaManager_);
    // Room for four pictures of 640 x 512 beside the panels, unless a kept layout says otherwise.
    resize(1280, 1000);
    RestoreSettings();
    if (options.card >= 0 && options.card < picker_->count() && options.cardGiven) {
        picker_->setCurrentIndex(options.card);
    }
    SetOverlayShown(overlayShown_);
    SetCurrentChannel(0);
    cardOpen_ = OpenChosenCard();
    if (!cardOpen_) {
        banner_->setText(tr("No XDMA card could be opened (use --sim for the simulated card)."));
        std::fprintf(stderr, "kvviewer: %s\n", qPrintable(banner_->text()));
    }
}

StudioWindow::~StudioWindow() {
    Shutdown();
}

void StudioWindow::BuildActions() {
    auto* toolbar = addToolBar(tr("Card"));
    toolbar->setObjectName(QStringLiteral("cardToolbar"));
    toolbar->addWidget(new QLabel(tr(" Card ")));
    toolbar->addWidget(picker_);
    auto* open = toolbar->addAction(tr("Open"));
    auto* refresh = toolbar->addAction(tr("Refresh list"));
    connect(open, &QAction::triggered, this, [this] { cardOpen_ = OpenChosenCard(); });
    connect(refresh, &QAction::triggered, this,
            [this] { picker_->Refresh(manager_, riffaManager_); });
    auto* output = toolbar->addAction(tr("Output folder..."));
    output->setToolTip(tr("Where recordings and snapshots go"));
    connect(output, &QAction::triggered, this, [this] {
        const QString folder = QFileDialog::getExistingDirectory(
            this, tr("Recordings and snapshots go to"), KvPCIe::RecordRoot());
        if (!folder.isEmpty()) {
            SetOutputFolder(folder);
        }
    });
    toolbar->addSeparator();

    const auto add = [this, toolbar](const QString& text, const QKeySequence& keys, auto slot) {
        auto* action = toolbar->addAction(text);
        action->setShortcut(keys);
        action->setToolTip(text + QStringLiteral(" (") + keys.toString() + QLatin1Char(')'));
        connect(action, &QAction::triggered, this, slot);
        return action;
    };
    add(tr("Start/Stop"), QKeySequence(Qt::Key_F5), [this] {
        CapturePanel* panel = Capture(current_);
        panel->IsRunning() ? panel->Stop() : static_cast<void>(panel->Start());
    });
    add(tr("Record"), QKeySequence(Qt::CTRL + Qt::Key_R), [this] {
        CapturePanel* panel = Capture(current_);
        panel->IsRecording() ? panel->StopRecording() : static_cast<void>(panel->StartRecording());
    });
    add(tr("Snapshot"), QKeySequence(Qt::CTRL + Qt::Key_P),
        [this] { Capture(current_)->SaveNumberedSnapshot(); });
    add(tr("Overlay"), QKeySequence(Qt::CTRL + Qt::Key_I),
        [this] { SetOverlayShown(!overlayShown_); });
    add(tr("Fit"), QKeySequence(Qt::CTRL + Qt::Key_0),
        [this] { Capture(current_)->View()->Fit(); });
    add(tr("1:1"), QKeySequence(Qt::CTRL + Qt::Key_1),
        [this] { Capture(current_)->View()->ActualSize(); });
    add(tr("Zoom in"), QKeySequence::ZoomIn, [this] { Capture(current_)->View()->ZoomBy(1.25); });
    add(tr("Zoom out"), QKeySequence::ZoomOut, [this] { Capture(current_)->View()->ZoomBy(0.8); });
}

void StudioWindow::OnCardLost(const char* devicePath, void* context) {
    static_cast<StudioWindow*>(context)->ShowCardLost(QString::fromLocal8Bit(devicePath));
}

void StudioWindow::ShowCardLost(const QString& path) {
    const QString text =
        tr("The card %1 is gone (removed, or its driver ended): its pictures stop here. Open it "
           "again once it is back.")
            .arg(path);
    log_->Add(tr("card %1 is gone (removed, or its driver ended)").arg(path));
    std::fprintf(stderr, "kvviewer: %s\n", qPrintable(text));
    banner_->setText(text);
    banner_->show();
}

bool StudioWindow::OpenChosenCard() {
    const CardChoice choice = picker_->Chosen();
    if (choice.name.isEmpty()) {
        log_->Add(tr("no card is listed"));
        return false;
    }
    for (CapturePanel* panel : panels_) {
        panel->Stop();
    }
    inject_->StopAll();
    status_->StopAll();
    manager_.CloseCard();
    if (choice.riffa) {
        const bool opened = riffaManager_.OpenCard(choice.index);
        registers_->SetRegisters(opened ? &riffaManager_ : &manager_);
        if (!opened) {
            context_.Refused(tr("open %1").arg(choice.name));
            return false;
        }
        log_->Add(tr("opened %1: only its registers are served").arg(choice.name));
        setWindowTitle(tr("kvviewer - %1").arg(choice.name));
        const QString reason =
            tr("%1 serves registers only: capture and injection need an XDMA card.")
                .arg(choice.name);
        banner_->setText(reason);
        banner_->show();
        ShowNoFramesReason(reason);
        return true;
    }
    registers_->SetRegisters(&manager_);
    QByteArray path = choice.path.toLocal8Bit();
    if (!manager_.OpenCard(path.data())) {
        context_.Refused(tr("open %1").arg(choice.path));
        setWindowTitle(tr("kvviewer - no card"));
        return false;
    }
    log_->Add(tr("opened %1").arg(choice.path));
    banner_->hide();
    ShowNoFramesReason(QString());
    setWindowTitle(tr("kvviewer - %1").arg(choice.path));
    return true;
}

void StudioWindow::ShowNoFramesReason(const QString& reason) {
    for (CapturePanel* panel : panels_) {
        panel->SetNoFramesReason(reason);
    }
    inject_->SetNoFramesReason(reason);
}

bool StudioWindow::StartChosenChannels() {
    bool allStarted = true;
    for (CapturePanel* panel : panels_) {
        if (panel->isEnabled() && !panel->Start()) {
            allStarted = false;
        }
    }
    return allStarted;
}

bool StudioWindow::StartDemo() {
    using namespace KvPCIeSim;
    constexpr int kLoopChannel = 1;
    if (!cardOpen_ || manager_.ReadReg(kRegIdentity) != kIdentityValue) {
        log_->Add(tr("the demo needs the simulated card (--sim)"));
        return false;
    }
    constexpr int kSceneSource = 2;
    for (int c = 0; c < 4; ++c) {
        manager_.WriteReg(ControlBlock(static_cast<unsigned>(c)) + kCtlCaptureSource,
                          c == kLoopChannel ? 1 : kSceneSource);
    }
    log_->Add(
        tr("demo: capture channel 0 shows the card's moving scene (channels 2 and 3 do too once "
           "started); channel 1 plays what inject channel 1 plays"));
    const CaptureFormat format = Capture(kLoopChannel)->Format();
    InjectSource source;
    source.width = format.width;
    source.height = format.height;
    source.pixelType = format.pixelType;
    SetCurrentChannel(kLoopChannel);
    inject_->ChooseSource(source);
    const bool started = Capture(0)->Start() && inject_->Play() && Capture(kLoopChannel)->Start();
    if (started) {
        // The inspector looks at the live scene; the inject panel at the loopback it feeds.
        const int looked = tabs_->currentWidget() == inject_ ? kLoopChannel : 0;
        SetCurrentChannel(looked);
        // A pixel under the inspector, as if the cursor were there.
        const CaptureFormat shown = Capture(looked)->Format();
        QTimer::singleShot(1000, this, [this, looked, shown] {
            inspect_->Hover(looked, shown.width / 3, shown.height / 2);
        });
    }
    return started;
}

void StudioWindow::ShowTab(const QString& name) {
    for (int i = 0; i < tabs_->count(); ++i) {
        if (tabs_->tabText(i).compare(name, Qt::CaseInsensitive) == 0 ||
            (name == QStringLiteral("registers") && tabs_->widget(i) == registers_) ||
            (name == QStringLiteral("command") && tabs_->widget(i) == commands_)) {
            tabs_->setCurrentIndex(i);
            return;
        }
    }
}

void StudioWindow::SetCurrentChannel(int channel) {
    if (channel < 0 || channel >= 4) {
        return;
    }
    current_ = channel;
    if (channelBox_->currentIndex() != channel) {
        channelBox_->setCurrentIndex(channel);
    }
    for (CapturePanel* panel : panels_) {
        panel->SetCurrent(panel->Channel() == channel);
    }
    inspect_->SetChannel(Capture(channel));
    inject_->SetChannel(channel);
    commands_->SetChannel(channel);
    status_->SetChannel(channel);
}

QImage StudioWindow::PicturesShot() {
    QImage shot = pictures_->grab().toImage().convertToFormat(QImage::Format_RGB32);
    // A widget grab may leave the OpenGL areas black, so their own framebuffers go over them.
    QPainter painter(&shot);
    for (CapturePanel* panel : panels_) {
        GLWidget* display = panel->Display();
        const QRect shown =
            QRect(display->mapTo(pictures_, QPoint(0, 0)), display->size())
                .intersected(QRect(panel->View()->viewport()->mapTo(pictures_, QPoint(0, 0)),
                                   panel->View()->viewport()->size()));
        const QRect source(shown.topLeft() - display->mapTo(pictures_, QPoint(0, 0)), shown.size());
        painter.drawImage(shown, display->grabFramebuffer(), source);
        // The line over the picture goes over the framebuffer again, as on screen.
        if (panel->OverlayShown()) {
            QWidget* overlay = panel->OverlayWidget();
            painter.drawPixmap(overlay->mapTo(pictures_, QPoint(0, 0)), overlay->grab());
        }
    }
    return shot;
}

QImage StudioWindow::WindowShot() {
    QImage shot = grab().toImage().convertToFormat(QImage::Format_RGB32);
    QPainter painter(&shot);
    const QImage pictures = PicturesShot();
    painter.drawImage(pictures_->mapTo(this, QPoint(0, 0)), pictures);
    return shot;
}

void StudioWindow::Shutdown() {
    if (shutDown_) {
        return;
    }
    shutDown_ = true;
    manager_.SetCardLostCallback(nullptr, nullptr);  // the manager's record outlives the window
    SaveSettings();
    inject_->StopAll();
    status_->StopAll();
    for (CapturePanel* panel : panels_) {
        if (panel->IsRunning()) {
            panel->Stop();
            std::printf("kvviewer: channel %d: %llu frames\n", panel->Channel(),
                        static_cast<unsigned long long>(panel->Frames()));
        }
    }
    std::fflush(stdout);
    // The engines' threads end here, before the widgets they fed go away.
    manager_.CloseCard();
}

bool StudioWindow::SaveShot(const std::string& file, const QImage& image) {
    const QString name = QString::fromStdString(file);
    if (image.save(name)) {
        return true;
    }
    std::fprintf(stderr, "kvviewer: could not save the screenshot %s\n", qPrintable(name));
    return false;
}

void StudioWindow::closeEvent(QCloseEvent* event) {
    if (!shutDown_) {
        if (!options_.screenshot.empty()) {
            screenshotSaved_ = SaveShot(options_.screenshot, PicturesShot()) && screenshotSaved_;
        }
        if (!options_.windowScreenshot.empty()) {
            screenshotSaved_ =
                SaveShot(options_.windowScreenshot, WindowShot()) && screenshotSaved_;
        }
    }
    Shutdown();
    event->accept();
}

void StudioWindow::RestoreSettings() {
    if (options_.noSettings) {
        return;
    }
    QSettings settings = Settings();
    restoreGeometry(settings.value(QStringLiteral("window/geometry")).toByteArray());
    restoreState(settings.value(QStringLiteral("window/state")).toByteArray());
    KeepOnScreen();
    if (!options_.cardGiven) {
        picker_->Choose(settings.value(QStringLiteral("card/last")).toString());
    }
    const QString output = settings.value(QStringLiteral("output/folder")).toString();
    if (options_.output.empty() && !output.isEmpty()) {
        SetOutputFolder(output);
    }
    // The command line's format wins over the one kept.
    if (options_.formatGiven) {
        return;
    }
    for (CapturePanel* panel : panels_) {
        const int c = panel->Channel();
        if (!settings.contains(ChannelKey(c, "width"))) {
            continue;
        }
        CaptureFormat format;
        format.width = settings.value(ChannelKey(c, "width")).toInt();
        format.height = settings.value(ChannelKey(c, "height")).toInt();
        format.pixelType = static_cast<ePixelType>(settings.value(ChannelKey(c, "type")).toInt());
        format.cardTiming = settings.value(ChannelKey(c, "cardTiming")).toBool();
        // Kept values that no longer make sense are ignored rather than refused later.
        if (format.pixelType >= UYVY422 && format.pixelType <= BGR24 &&
            manager_.IsCaptureFormatAcceptable(static_cast<unsigned>(c), format.width,
                                               format.height, format.pixelType)) {
            panel->SetFormat(format);
        }
    }
}

void StudioWindow::SetOverlayShown(bool shown) {
    overlayShown_ = shown;
    for (CapturePanel* panel : panels_) {
        panel->SetOverlayShown(shown);
    }
}

void StudioWindow::SetOutputFolder(const QString& folder) {
    KvPCIe::SetRecordRoot(folder);
    outputChosen_ = !folder.isEmpty();
    context_.Did(tr("recordings and snapshots go below %1")
                     .arg(QDir::toNativeSeparators(KvPCIe::RecordRoot())));
}

void StudioWindow::KeepOnScreen() {
    // A geometry kept from a larger screen, or from a window that something widened, would put
    // the window where it cannot be seen or moved.
    const QScreen* screen = QGuiApplication::screenAt(geometry().center());
    if (screen == nullptr) {
        screen = QGuiApplication::primaryScreen();
    }
    if (screen == nullptr) {
        return;
    }
    const QRect available = screen->availableGeometry();
    if (isMaximized() || isFullScreen()) {
        return;
    }
    const QSize size = this->size().boundedTo(available.size());
    resize(size);
    QRect placed = frameGeometry();
    placed.moveLeft(qBound(available.left(), placed.left(),
                           std::max(available.left(), available.right() - placed.width() + 1)));
    placed.moveTop(qBound(available.top(), placed.top(),
                          std::max(available.top(), available.bottom() - placed.height() + 1)));
    move(placed.topLeft());
}

void StudioWindow::SaveSettings() {
    if (options_.noSettings) {
        return;
    }
    QSettings settings = Settings();
    settings.setValue(QStringLiteral("window/geometry"), saveGeometry());
    settings.setValue(QStringLiteral("window/state"), saveState());
    settings.setValue(QStringLiteral("card/last"), picker_->currentText());
    settings.setValue(QStringLiteral("output/folder"),
                      outputChosen_ ? KvPCIe::RecordRoot() : QString());
    for (CapturePanel* panel : panels_) {
        const int c = panel->Channel();
        const CaptureFormat format = panel->Format();
        settings.setValue(ChannelKey(c, "width"), format.width);
        settings.setValue(ChannelKey(c, "height"), format.height);
        settings.setValue(ChannelKey(c, "type"), static_cast<int>(format.pixelType));
        settings.setValue(ChannelKey(c, "cardTiming"), format.cardTiming);
    }
}

}  // namespace kvpcie::viewer
