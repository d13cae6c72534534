// One capture channel in the viewer.
#include "CapturePanel.h"

#include "PixelConversion.h"
#include "PixelTypeNames.h"
#include "ZoomView.h"

#include <KvPCIeInjectSdk/GLWidget.h>
#include <KvPCIeInjectSdk/KvPCIeRecording.h>
#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <QCheckBox>
#include <QComboBox>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QEvent>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QImage>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>
#include <new>

namespace kvpcie::viewer {
namespace {

constexpr int kStatePeriodMs = 500;
constexpr ePixelType kShownTypes[] = {UYVY422, Y8, Y16, Y16_Y8, BGR24};

QString TypeName(ePixelType type) {
    return QString::fromLatin1(tools::PixelTypeName(type));
}

// The next free name: one past the highest number of the channel's snapshots in `folder`.
QString NextSnapshotFile(const QString& folder, int channel) {
    const QString prefix = QStringLiteral("snapshot_ch%1_").arg(channel);
    int highest = 0;
    for (const QString& name :
         QDir(folder).entryList({prefix + QStringLiteral("*.png")}, QDir::Files)) {
        bool number = false;
        const int taken = name.mid(prefix.size(), name.size() - prefix.size() - 4).toInt(&number);
        if (number) {
            highest = std::max(highest, taken);
        }
    }
    return QDir(folder).filePath(
        prefix + QStringLiteral("%1.png").arg(highest + 1, 4, 10, QLatin1Char('0')));
}

}  // namespace

CapturePanel::CapturePanel(StudioContext& context, int channel, const CaptureFormat& format,
                           QWidget* parent)
    : QWidget(parent),
      context_(context),
      channel_(channel),
      format_(format),
      view_(new ZoomView(this)),
      state_(new QLabel(this)),
      typeBox_(new QComboBox(this)),
      widthBox_(new QSpinBox(this)),
      heightBox_(new QSpinBox(this)),
      cardTimingBox_(new QCheckBox(tr("card timing"), this)),
      applyButton_(new QPushButton(tr("Apply"), this)),
      startButton_(new QPushButton(tr("Start"), this)),
      recordButton_(new QPushButton(tr("Record"), this)),
      snapshotButton_(new QPushButton(tr("Snapshot"), this)) {
    setObjectName(QStringLiteral("capture%1").arg(channel));
    typeBox_->setObjectName(QStringLiteral("type"));
    widthBox_->setObjectName(QStringLiteral("width"));
    heightBox_->setObjectName(QStringLiteral("height"));
    applyButton_->setObjectName(QStringLiteral("apply"));
    startButton_->setObjectName(QStringLiteral("start"));
    recordButton_->setObjectName(QStringLiteral("record"));
    snapshotButton_->setObjectName(QStringLiteral("snapshot"));
    for (ePixelType type : kShownTypes) {
        typeBox_->addItem(TypeName(type), static_cast<int>(type));
    }
    for (QSpinBox* box : {widthBox_, heightBox_}) {
        box->setRange(1, KvMaxFrameSide);
        box->setAccelerated(true);
    }
    widthBox_->setToolTip(tr("width in pixels"));
    heightBox_->setToolTip(tr("height in lines"));
    startButton_->setCheckable(true);
    recordButton_->setCheckable(true);
    // Wrapped rather than clipped: with recording and loss counts the line outgrows a panel.
    state_->setWordWrap(true);
    state_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Minimum);
    view_->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    // Over the picture and not scrolled with it: a child of the viewport beside the display.
    overlay_ = new QLabel(view_->viewport());
    overlay_->setObjectName(QStringLiteral("overlay"));
    overlay_->setAttribute(Qt::WA_TransparentForMouseEvents);
    overlay_->setStyleSheet(QStringLiteral(
        "QLabel { background: rgba(0, 0, 0, 150); color: white; padding: 2px 4px; }"));
    overlay_->move(4, 4);
    overlay_->hide();

    auto* formatRow = new QHBoxLayout;
    formatRow->addWidget(typeBox_);
    formatRow->addWidget(widthBox_);
    formatRow->addWidget(new QLabel(QStringLiteral("x"), this));
    formatRow->addWidget(heightBox_);
    formatRow->addWidget(applyButton_);
    formatRow->addStretch(1);
    // Two short rows rather than one long one: four panels and the side panel fit a screen
    // 1,280 pixels wide.
    auto* controls = new QHBoxLayout;
    controls->addWidget(cardTimingBox_);
    controls->addWidget(startButton_);
    controls->addWidget(recordButton_);
    controls->addWidget(snapshotButton_);
    controls->addStretch(1);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(2, 2, 2, 2);
    layout->addLayout(formatRow);
    layout->addWidget(view_, 1);
    layout->addWidget(state_);
    layout->addLayout(controls);

    connect(applyButton_, &QPushButton::clicked, this, &CapturePanel::OnApplyClicked);
    connect(startButton_, &QPushButton::toggled, this, &CapturePanel::OnStartToggled);
    connect(recordButton_, &QPushButton::toggled, this, &CapturePanel::OnRecordToggled);
    connect(snapshotButton_, &QPushButton::clicked, this, &CapturePanel::OnSnapshotClicked);
    connect(view_, &ZoomView::clicked, this, [this] { emit selected(channel_); });
    connect(view_, &ZoomView::pixelHovered, this,
            [this](int x, int y) { emit pixelHovered(channel_, x, y); });
    auto* stateTimer = new QTimer(this);
    connect(stateTimer, &QTimer::timeout, this, &CapturePanel::ShowState);
    stateTimer->start(kStatePeriodMs);
    view_->SetImageSize(format_.width, format_.height);
    ShowFormat();
    SyncButtons();
    ShowState();
}

CapturePanel::~CapturePanel() {
    Stop();
}

GLWidget* CapturePanel::Display() const {
    return view_->Display();
}

void CapturePanel::SetCurrent(bool current) {
    setStyleSheet(current ? QStringLiteral("kvpcie--viewer--CapturePanel { border: 2px solid "
                                           "palette(highlight); }")
                          : QString());
    setAttribute(Qt::WA_StyledBackground, current);
}

bool CapturePanel::FormatAcceptable(const CaptureFormat& format) {
    if (context_.manager.IsCaptureFormatAcceptable(static_cast<unsigned>(channel_), format.width,
                                                   format.height, format.pixelType)) {
        return true;
    }
    ShowProblem(context_.Refused(tr("channel %1: %2 x %3 %4")
                                     .arg(channel_)
                                     .arg(format.width)
                                     .arg(format.height)
                                     .arg(TypeName(format.pixelType))));
    return false;
}

void CapturePanel::ReleaseFrames() {
    std::vector<char>().swap(frame_);
    std::vector<unsigned char>().swap(rgba_);
    tap_.Reset(0);
}

void CapturePanel::SetNoFramesReason(const QString& reason) {
    noFramesReason_ = reason;
    SyncButtons();
}

bool CapturePanel::Start() {
    if (running_) {
        return true;
    }
    problem_.clear();
    if (!noFramesReason_.isEmpty()) {
        ShowProblem(noFramesReason_);
        return false;
    }
    if (!FormatAcceptable(format_)) {
        SyncButtons();
        return false;
    }
    const auto frameBytes = static_cast<std::size_t>(
        KvFrameSizeBytes(format_.pixelType, format_.width, format_.height));
    try {
        frame_.assign(frameBytes, 0);
        rgba_.assign(static_cast<std::size_t>(format_.width) * format_.height * 4, 0);
        tap_.Reset(frameBytes);
    } catch (const std::bad_alloc&) {
        ShowProblem(tr("no memory for the frames"));
        context_.Did(tr("channel %1: no memory for %2 x %3 frames")
                         .arg(channel_)
                         .arg(format_.width)
                         .arg(format_.height));
        return false;
    }
    // No push may overlap this, and none runs before StartCapture.
    view_->SetImageSize(format_.width, format_.height);
    frames_.store(0);
    eErrorCode error = ERR_NO_CARD;
    running_ = context_.manager.StartCapture(static_cast<unsigned>(channel_), format_.cardTiming,
                                             format_.width, format_.height, format_.pixelType,
                                             error, &CapturePanel::OnFrame, this, frame_.data());
    if (!running_) {
        ReleaseFrames();
        Display()->SetBackImage(0);
        ShowProblem(context_.Refused(tr("channel %1: start capture").arg(channel_)));
        SyncButtons();
        return false;
    }
    context_.Did(tr("channel %1: capturing %2 x %3 %4%5")
                     .arg(channel_)
                     .arg(format_.width)
                     .arg(format_.height)
                     .arg(TypeName(format_.pixelType))
                     .arg(format_.cardTiming ? tr(", card timing") : QString()));
    SyncButtons();
    ShowState();
    return true;
}

void CapturePanel::Stop() {
    if (!running_) {
        return;
    }
    StopRecording();
    context_.manager.StopCapture(channel_);
    running_ = false;
    Display()->SetBackImage(0);
    context_.Did(tr("channel %1: stopped after %2 frames").arg(channel_).arg(Frames()));
    SyncButtons();
    ShowState();
}

bool CapturePanel::SetFormat(const CaptureFormat& format) {
    // Checked before anything is sized for it: a format the card cannot take changes nothing.
    if (!FormatAcceptable(format)) {
        ShowFormat();
        return false;
    }
    const bool wasRunning = running_;
    Stop();
    format_ = format;
    ShowFormat();
    view_->SetImageSize(format_.width, format_.height);
    return !wasRunning || Start();
}

void CapturePanel::SetY16Window(const tools::Y16Window& window) {
    const bool automatic = window.automatic || window.high <= window.low || window.high > 0xFFFF;
    y16Window_.store((automatic ? std::uint64_t{1} << 40 : 0) |
                         std::uint64_t{window.low & 0xFFFF} << 16 | (window.high & 0xFFFF),
                     std::memory_order_relaxed);
}

tools::Y16Window CapturePanel::Y16WindowShown() const {
    const std::uint64_t word = y16Window_.load(std::memory_order_relaxed);
    tools::Y16Window window;
    window.automatic = (word >> 40 & 1) != 0;
    window.low = static_cast<std::uint32_t>(word >> 16 & 0xFFFF);
    window.high = static_cast<std::uint32_t>(word & 0xFFFF);
    return window;
}

void CapturePanel::SetOverlayShown(bool shown) {
    overlay_->setVisible(shown);
    overlay_->raise();
    ShowState();
}

bool CapturePanel::OverlayShown() const {
    return !overlay_->isHidden();
}

QWidget* CapturePanel::OverlayWidget() const {
    return overlay_;
}

QString CapturePanel::OverlayText() const {
    return overlay_->text();
}

void CapturePanel::OnFrame(int, const char* frame, void* context) {
    auto* panel = static_cast<CapturePanel*>(context);
    const CaptureFormat& format = panel->format_;
    panel->frames_.fetch_add(1);
    panel->tap_.Offer(frame);
    if (tools::ConvertToRgba(format.pixelType, format.width, format.height,
                             reinterpret_cast<const unsigned char*>(frame), panel->frame_.size(),
                             panel->rgba_.data(), panel->Y16WindowShown())) {
        // The widget copies the picture, so the buffer is free again for the next frame.
        panel->Display()->PushImageData(panel->rgba_.data());
    }
}

bool CapturePanel::StartRecording() {
    if (recording_) {
        return true;
    }
    recording_ = context_.manager.StartRecord(channel_);
    if (!recording_) {
        ShowProblem(context_.Refused(tr("channel %1: record").arg(channel_)));
        SyncButtons();
        return false;
    }
    takeFolder_ = QDir::toNativeSeparators(context_.manager.GetRecordTakeFolder(channel_));
    context_.Did(tr("channel %1: recording into %2").arg(channel_).arg(takeFolder_));
    problem_.clear();
    SyncButtons();
    ShowState();
    return true;
}

void CapturePanel::StopRecording() {
    if (!recording_) {
        return;
    }
    context_.manager.StopRecord(channel_);
    recording_ = false;
    KvCaptureStatistics stats;
    if (context_.manager.GetCaptureStatistics(channel_, stats)) {
        context_.Did(tr("channel %1: take ended, %2 frames written, %3 not written")
                         .arg(channel_)
                         .arg(stats.framesRecorded)
                         .arg(stats.framesNotRecorded));
    }
    SyncButtons();
    ShowState();
}

bool CapturePanel::LatestFrame(std::vector<char>& frame, CaptureFormat& format) {
    format = format_;
    return tap_.Latest(frame) && !frame.empty();
}

bool CapturePanel::SaveSnapshot(const QString& file) {
    std::vector<char> frame;
    CaptureFormat format;
    if (!LatestFrame(frame, format)) {
        context_.Did(tr("channel %1: no frame for a snapshot yet").arg(channel_));
        tap_.Ask();
        return false;
    }
    QImage image(format.width, format.height, QImage::Format_RGBA8888);
    const bool converted =
        !image.isNull() &&
        tools::ConvertToRgba(format.pixelType, format.width, format.height,
                             reinterpret_cast<const unsigned char*>(frame.data()), frame.size(),
                             image.bits());
    if (!converted || !image.save(file, "PNG")) {
        context_.Did(tr("channel %1: the snapshot %2 could not be saved").arg(channel_).arg(file));
        return false;
    }
    context_.Did(tr("channel %1: snapshot saved as %2").arg(channel_).arg(file));
    return true;
}

void CapturePanel::OnApplyClicked() {
    SetFormat(ChosenFormat());
}

void CapturePanel::OnStartToggled(bool on) {
    if (on) {
        Start();
    } else {
        Stop();
    }
    SyncButtons();
}

void CapturePanel::OnRecordToggled(bool on) {
    if (on) {
        StartRecording();
    } else {
        StopRecording();
    }
    SyncButtons();
}

QString CapturePanel::SaveNumberedSnapshot() {
    const QString folder = KvPCIe::RecordRoot();
    if (!QDir().mkpath(folder)) {
        context_.Did(tr("channel %1: the folder %2 could not be created for a snapshot")
                         .arg(channel_)
                         .arg(QDir::toNativeSeparators(folder)));
        return QString();
    }
    const QString file = NextSnapshotFile(folder, channel_);
    return SaveSnapshot(file) ? file : QString();
}

void CapturePanel::OnSnapshotClicked() {
    SaveNumberedSnapshot();
}

void CapturePanel::ShowFormat() {
    const QSignalBlocker typeBlocker(typeBox_);
    typeBox_->setCurrentIndex(typeBox_->findData(static_cast<int>(format_.pixelType)));
    widthBox_->setValue(format_.width);
    heightBox_->setValue(format_.height);
    cardTimingBox_->setChecked(format_.cardTiming);
}

CaptureFormat CapturePanel::ChosenFormat() const {
    CaptureFormat format;
    format.pixelType = static_cast<ePixelType>(typeBox_->currentData().toInt());
    format.width = widthBox_->value();
    format.height = heightBox_->value();
    format.cardTiming = cardTimingBox_->isChecked();
    return format;
}

void CapturePanel::SyncButtons() {
    const QSignalBlocker startBlocker(startButton_);
    const QSignalBlocker recordBlocker(recordButton_);
    startButton_->setChecked(running_);
    startButton_->setText(running_ ? tr("Stop") : tr("Start"));
    startButton_->setEnabled(running_ || noFramesReason_.isEmpty());
    startButton_->setToolTip(noFramesReason_);
    recordButton_->setEnabled(running_);
    recordButton_->setChecked(recording_);
    recordButton_->setText(recording_ ? tr("Stop recording") : tr("Record"));
    snapshotButton_->setEnabled(running_);
}

bool CapturePanel::CanStart() const {
    return startButton_->isEnabled();
}

QString CapturePanel::StateText() const {
    return state_->text();
}

void CapturePanel::ShowState() {
    QString text = tr("Channel %1").arg(channel_);
    KvCaptureStatistics stats;
    const bool counted = running_ && context_.manager.GetCaptureStatistics(channel_, stats);
    if (!isEnabled()) {
        text += tr(": not used");
    } else if (!problem_.isEmpty()) {
        text += ": " + problem_;
    } else if (running_) {
        text += QStringLiteral(": %1 x %2 %3, %4 fps, %5 frames")
                    .arg(format_.width)
                    .arg(format_.height)
                    .arg(TypeName(format_.pixelType))
                    .arg(counted ? stats.framesPerSecond : 0.0, 0, 'f', 1)
                    .arg(Frames());
        if (counted) {
            text += tr(", %1 failed, %2 flagged").arg(stats.framesFailed).arg(stats.errorFrames);
        }
        // Frames the card had no free buffer for: known where the card counts them.
        std::uint64_t lost = counted ? stats.framesFailed : 0;
        if (context_.manager.ReadReg(KvPCIeSim::kRegIdentity) == KvPCIeSim::kIdentityValue) {
            const unsigned lostOnCard =
                context_.manager.ReadReg(KvPCIeSim::ControlBlock(static_cast<unsigned>(channel_)) +
                                         KvPCIeSim::kCtlFramesDropped);
            text += tr(", %1 lost on the card").arg(lostOnCard);
            lost += lostOnCard;
        }
        const double fps = counted ? stats.framesPerSecond : 0.0;
        overlay_->setText(
            tr("%1 fps   %2 lost   %3 MB/s")
                .arg(fps, 0, 'f', 1)
                .arg(lost)
                .arg(fps * KvFrameSizeBytes(format_.pixelType, format_.width, format_.height) / 1e6,
                     0, 'f', 1));
        overlay_->adjustSize();
        overlay_->raise();
        if (recording_ && counted) {
            text += tr(", recording into %1: %2 written, %3 not written")
                        .arg(QDir::toNativeSeparators(takeFolder_))
                        .arg(stats.framesRecorded)
                        .arg(stats.framesNotRecorded);
        }
    } else {
        text += tr(": stopped");
        overlay_->setText(tr("stopped"));
        overlay_->adjustSize();
        overlay_->raise();
    }
    state_->setText(text);
}

void CapturePanel::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::EnabledChange) {
        ShowState();
    }
}

void CapturePanel::ShowProblem(const QString& problem) {
    problem_ = problem;
    ShowState();
}

}  // namespace kvpcie::viewer
