// The inject panel.
#include "InjectPage.h"

#include "PixelTypeNames.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTimer>
#include <QVBoxLayout>

namespace kvpcie::viewer {
namespace {
constexpr int kRefreshMs = 250;
constexpr ePixelType kPatternTypes[] = {UYVY422, Y8, Y16, Y16_Y8, BGR24};
}  // namespace

InjectPage::InjectPage(StudioContext& context, QWidget* parent)
    : QWidget(parent),
      context_(context),
      sourceBox_(new QComboBox(this)),
      fileEdit_(new QLineEdit(this)),
      browseButton_(new QPushButton(tr("Browse..."), this)),
      typeBox_(new QComboBox(this)),
      widthBox_(new QSpinBox(this)),
      heightBox_(new QSpinBox(this)),
      rateBox_(new QSpinBox(this)),
      loopBox_(new QCheckBox(tr("loop"), this)),
      playButton_(new QPushButton(tr("Play"), this)),
      stopButton_(new QPushButton(tr("Stop"), this)),
      statistics_(new QLabel(this)) {
    for (int c = 0; c < 4; ++c) {
        feeders_[static_cast<std::size_t>(c)] = new InjectFeeder(context_, c, this);
        connect(feeders_[static_cast<std::size_t>(c)], &InjectFeeder::stopped, this,
                &InjectPage::SyncControls);
    }
    sourceBox_->addItem(tr("moving test pattern"));
    sourceBox_->addItem(tr("raw recording"));
    fileEdit_->setPlaceholderText(tr("<n>_<W>x<H>_ParamLine<p>_Fps<r>_<TYPE>.raw"));
    for (ePixelType type : kPatternTypes) {
        typeBox_->addItem(QString::fromLatin1(tools::PixelTypeName(type)), static_cast<int>(type));
    }
    widthBox_->setRange(1, KvMaxFrameSide);
    heightBox_->setRange(1, KvMaxFrameSide);
    rateBox_->setRange(1, 1000);
    rateBox_->setSuffix(tr(" fps"));
    loopBox_->setChecked(true);
    statistics_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    ChooseSource(InjectSource{});

    auto* fileRow = new QHBoxLayout;
    fileRow->addWidget(fileEdit_, 1);
    fileRow->addWidget(browseButton_);
    auto* sizeRow = new QHBoxLayout;
    sizeRow->addWidget(typeBox_);
    sizeRow->addWidget(widthBox_);
    sizeRow->addWidget(new QLabel(QStringLiteral("x"), this));
    sizeRow->addWidget(heightBox_);
    auto* form = new QFormLayout;
    form->addRow(tr("Source"), sourceBox_);
    form->addRow(tr("Recording"), fileRow);
    form->addRow(tr("Pattern"), sizeRow);
    form->addRow(tr("Rate"), rateBox_);
    form->addRow(QString(), loopBox_);
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(playButton_);
    buttons->addWidget(stopButton_);
    buttons->addStretch(1);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addLayout(buttons);
    layout->addWidget(statistics_);
    layout->addStretch(1);

    connect(sourceBox_, QOverload<int>::of(&QComboBox::currentIndexChanged), this,
            &InjectPage::SyncControls);
    connect(browseButton_, &QPushButton::clicked, this, &InjectPage::OnBrowse);
    connect(playButton_, &QPushButton::clicked, this, &InjectPage::Play);
    connect(stopButton_, &QPushButton::clicked, this, [this] { StopChannel(channel_); });
    auto* timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, &InjectPage::Refresh);
    timer->start(kRefreshMs);
    SyncControls();
    Refresh();
}

void InjectPage::SetChannel(int channel) {
    channel_ = channel;
    SyncControls();
    Refresh();
}

InjectSource InjectPage::ChosenSource() const {
    InjectSource source;
    if (sourceBox_->currentIndex() == 1) {
        source.rawFile = fileEdit_->text();
    }
    source.pixelType = static_cast<ePixelType>(typeBox_->currentData().toInt());
    source.width = widthBox_->value();
    source.height = heightBox_->value();
    source.frameRate = rateBox_->value();
    source.loop = loopBox_->isChecked();
    return source;
}

void InjectPage::ChooseSource(const InjectSource& source) {
    sourceBox_->setCurrentIndex(source.rawFile.isEmpty() ? 0 : 1);
    fileEdit_->setText(source.rawFile);
    typeBox_->setCurrentIndex(typeBox_->findData(static_cast<int>(source.pixelType)));
    widthBox_->setValue(source.width);
    heightBox_->setValue(source.height);
    rateBox_->setValue(source.frameRate);
    loopBox_->setChecked(source.loop);
}

bool InjectPage::Play() {
    if (!noFramesReason_.isEmpty()) {
        return false;
    }
    const bool playing = feeders_[static_cast<std::size_t>(channel_)]->Start(ChosenSource());
    SyncControls();
    return playing;
}

void InjectPage::StopChannel(int channel) {
    if (channel >= 0 && channel < 4) {
        feeders_[static_cast<std::size_t>(channel)]->Stop();
    }
    SyncControls();
}

void InjectPage::StopAll() {
    for (InjectFeeder* feeder : feeders_) {
        feeder->Stop();
    }
}

bool InjectPage::IsPlaying(int channel) const {
    return channel >= 0 && channel < 4 && feeders_[static_cast<std::size_t>(channel)]->IsRunning();
}

std::uint32_t InjectPage::RunTag(int channel) const {
    return channel >= 0 && channel < 4 ? feeders_[static_cast<std::size_t>(channel)]->RunTag() : 0;
}

QString InjectPage::StatisticsText() const {
    return statistics_->text();
}

void InjectPage::SyncControls() {
    const bool playing = IsPlaying(channel_);
    const bool raw = sourceBox_->currentIndex() == 1;
    for (QWidget* control : std::initializer_list<QWidget*>{sourceBox_, rateBox_, loopBox_}) {
        control->setEnabled(!playing);
    }
    fileEdit_->setEnabled(!playing && raw);
    browseButton_->setEnabled(!playing && raw);
    for (QWidget* control : std::initializer_list<QWidget*>{typeBox_, widthBox_, heightBox_}) {
        control->setEnabled(!playing && !raw);
    }
    playButton_->setEnabled(!playing && noFramesReason_.isEmpty());
    playButton_->setToolTip(noFramesReason_);
    stopButton_->setEnabled(playing);
}

void InjectPage::SetNoFramesReason(const QString& reason) {
    noFramesReason_ = reason;
    SyncControls();
}

bool InjectPage::CanPlay() const {
    return playButton_->isEnabled();
}

void InjectPage::Refresh() {
    KvInjectStatistics stats;
    if (!context_.manager.GetInjectStatistics(channel_, stats)) {
        statistics_->setText(tr("inject channel %1: no statistics (no card open)").arg(channel_));
        return;
    }
    // The host's counts, and the card's own where the card keeps them (the simulated card).
    statistics_->setText(tr("inject channel %1%2\nqueued %3   refused (queue full) %4   "
                            "waiting %5\nhanded to the card %6   periods without a new frame %7   "
                            "transfers failed %8")
                             .arg(channel_)
                             .arg(IsPlaying(channel_) ? tr(": playing") : QString())
                             .arg(stats.framesQueued)
                             .arg(stats.framesRefused)
                             .arg(stats.framesWaiting)
                             .arg(stats.framesToCard)
                             .arg(stats.periodsWithoutFrame)
                             .arg(stats.transfersFailed) +
                         CardCounts() + (IsPlaying(channel_) ? QString() : Problem()));
}

QString InjectPage::CardCounts() {
    if (context_.manager.ReadReg(KvPCIeSim::kRegIdentity) != KvPCIeSim::kIdentityValue) {
        return {};
    }
    const unsigned block = KvPCIeSim::ControlBlock(static_cast<unsigned>(channel_));
    return tr("\nthe card: played %1   underruns %2")
        .arg(context_.manager.ReadReg(block + KvPCIeSim::kCtlInjectPlayed))
        .arg(context_.manager.ReadReg(block + KvPCIeSim::kCtlInjectUnderruns));
}

QString InjectPage::Problem() const {
    const QString problem = feeders_[static_cast<std::size_t>(channel_)]->Problem();
    return problem.isEmpty() ? QString() : QStringLiteral("\n") + problem;
}

void InjectPage::OnBrowse() {
    const QString file = QFileDialog::getOpenFileName(this, tr("Raw recording"), fileEdit_->text(),
                                                      tr("Raw recordings (*.raw)"));
    if (!file.isEmpty()) {
        fileEdit_->setText(file);
    }
}

}  // namespace kvpcie::viewer
