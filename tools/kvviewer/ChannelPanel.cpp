// One capture channel in the viewer.
#include "ChannelPanel.h"

#include "PixelConversion.h"

#include <KvPCIeInjectSdk/GLWidget.h>

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QTimer>
#include <QVBoxLayout>

#include "PixelTypeNames.h"

#include <new>

namespace kvpcie::viewer {
namespace {

constexpr int kStatePeriodMs = 500;

}  // namespace

ChannelPanel::ChannelPanel(PCIeDataManager& manager, int channel, const CaptureFormat& format,
                           QWidget* parent)
    : QWidget(parent),
      manager_(manager),
      channel_(channel),
      format_(format),
      display_(new GLWidget(this)),
      state_(new QLabel(this)),
      startButton_(new QPushButton(tr("Start"), this)),
      recordButton_(new QPushButton(tr("Record"), this)) {
    display_->setMinimumSize(320, 256);
    display_->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    startButton_->setCheckable(true);
    recordButton_->setCheckable(true);
    recordButton_->setEnabled(false);
    // Wrapped rather than clipped: with recording and loss counts the line outgrows a panel.
    state_->setWordWrap(true);
    state_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Minimum);

    auto* controls = new QHBoxLayout;
    controls->addWidget(startButton_);
    controls->addWidget(recordButton_);
    controls->addStretch(1);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(2, 2, 2, 2);
    layout->addWidget(display_, 1);
    layout->addWidget(state_);
    layout->addLayout(controls);

    connect(startButton_, &QPushButton::toggled, this, &ChannelPanel::OnStartToggled);
    connect(recordButton_, &QPushButton::toggled, this, &ChannelPanel::OnRecordToggled);
    auto* stateTimer = new QTimer(this);
    connect(stateTimer, &QTimer::timeout, this, &ChannelPanel::ShowState);
    stateTimer->start(kStatePeriodMs);
    sinceLastLook_.start();
    ShowState();
}

ChannelPanel::~ChannelPanel() {
    Stop();
}

bool ChannelPanel::Start() {
    if (running_) {
        return true;
    }
    problem_.clear();
    const auto frameBytes = static_cast<std::size_t>(
        KvFrameSizeBytes(format_.pixelType, format_.width, format_.height));
    try {
        frame_.assign(frameBytes, 0);
        rgba_.assign(static_cast<std::size_t>(format_.width) * format_.height * 4, 0);
    } catch (const std::bad_alloc&) {
        ShowProblem(tr("no memory for the frames"));
        return false;
    }
    // No push may overlap this, and none runs before StartCapture.
    display_->SetImageSize(format_.width, format_.height);
    frames_.store(0);
    framesAtLastLook_ = 0;
    framesPerSecond_ = 0.0;
    sinceLastLook_.restart();
    eErrorCode error = ERR_NO_CARD;
    running_ = manager_.StartCapture(static_cast<unsigned>(channel_), format_.cardTiming,
                                     format_.width, format_.height, format_.pixelType, error,
                                     &ChannelPanel::OnFrame, this, frame_.data());
    if (!running_) {
        display_->SetBackImage(0);
        ShowProblem(error == ERR_NO_CARD ? tr("no card, or the format was refused")
                                         : tr("the capture did not start"));
        return false;
    }
    const QSignalBlocker blocker(startButton_);
    startButton_->setChecked(true);
    startButton_->setText(tr("Stop"));
    recordButton_->setEnabled(true);
    ShowState();
    return true;
}

void ChannelPanel::Stop() {
    if (!running_) {
        return;
    }
    if (recording_) {
        manager_.StopRecord(channel_);
        recording_ = false;
    }
    manager_.StopCapture(channel_);
    running_ = false;
    display_->SetBackImage(0);
    const QSignalBlocker startBlocker(startButton_);
    const QSignalBlocker recordBlocker(recordButton_);
    startButton_->setChecked(false);
    startButton_->setText(tr("Start"));
    recordButton_->setChecked(false);
    recordButton_->setEnabled(false);
    ShowState();
}

void ChannelPanel::OnFrame(int, const char* frame, void* context) {
    auto* panel = static_cast<ChannelPanel*>(context);
    const CaptureFormat& format = panel->format_;
    panel->frames_.fetch_add(1);
    if (tools::ConvertToRgba(format.pixelType, format.width, format.height,
                             reinterpret_cast<const unsigned char*>(frame), panel->frame_.size(),
                             panel->rgba_.data())) {
        // The widget copies the picture, so the buffer is free again for the next frame.
        panel->display_->PushImageData(panel->rgba_.data());
    }
}

void ChannelPanel::OnStartToggled(bool on) {
    if (on) {
        if (!Start()) {
            const QSignalBlocker blocker(startButton_);
            startButton_->setChecked(false);
        }
    } else {
        Stop();
    }
}

void ChannelPanel::OnRecordToggled(bool on) {
    if (on) {
        recording_ = manager_.StartRecord(channel_);
        if (!recording_) {
            const QSignalBlocker blocker(recordButton_);
            recordButton_->setChecked(false);
            ShowProblem(tr("the recording did not start"));
            return;
        }
    } else if (recording_) {
        manager_.StopRecord(channel_);
        recording_ = false;
    }
    problem_.clear();
    ShowState();
}

void ChannelPanel::ShowState() {
    const std::uint64_t frames = frames_.load();
    const qint64 elapsedMs = sinceLastLook_.restart();
    if (elapsedMs > 0) {
        framesPerSecond_ = 1000.0 * double(frames - framesAtLastLook_) / double(elapsedMs);
    }
    framesAtLastLook_ = frames;

    QString text = tr("Channel %1").arg(channel_);
    if (!isEnabled()) {
        text += tr(": not used");
    } else if (!problem_.isEmpty()) {
        text += ": " + problem_;
    } else if (running_) {
        text += QString(": %1 x %2 %3, %4 fps, %5 frames")
                    .arg(format_.width)
                    .arg(format_.height)
                    .arg(QString::fromLatin1(tools::PixelTypeName(format_.pixelType)))
                    .arg(framesPerSecond_, 0, 'f', 1)
                    .arg(frames);
        KvCaptureStatistics stats;
        if (manager_.GetCaptureStatistics(channel_, stats)) {
            text += tr(", %1 failed, %2 flagged").arg(stats.framesFailed).arg(stats.errorFrames);
            if (recording_) {
                text += tr(", recording (%1 not recorded)").arg(stats.framesNotRecorded);
            }
        } else if (recording_) {
            text += tr(", recording");
        }
    } else {
        text += tr(": stopped");
    }
    state_->setText(text);
}

void ChannelPanel::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::EnabledChange) {
        ShowState();
    }
}

void ChannelPanel::ShowProblem(const QString& problem) {
    problem_ = problem;
    ShowState();
}

}  // namespace kvpcie::viewer
