// The current channel's histogram, pixel inspector and statistics.
#include "InspectPage.h"

#include "PixelLevels.h"

#include <KvPCIeInjectSdk/KvPCIeStatisticsFields.h>

#include <QCheckBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QStringList>
#include <QTimer>
#include <QVBoxLayout>

namespace kvpcie::viewer {
namespace {
constexpr int kRefreshMs = 250;

QString CountText(double value) {
    return QString::number(value, 'f', 1);
}
QString CountText(bool value) {
    return value ? QStringLiteral("yes") : QStringLiteral("no");
}
template <typename Integer>
QString CountText(Integer value) {
    return QString::number(value);
}
}  // namespace

InspectPage::InspectPage(StudioContext& context, QWidget* parent)
    : QWidget(parent),
      context_(context),
      histogram_(new HistogramView(this)),
      inspector_(new QLabel(this)),
      statistics_(new QLabel(this)),
      windowAuto_(new QCheckBox(tr("auto"), this)),
      windowLow_(new QSpinBox(this)),
      windowHigh_(new QSpinBox(this)),
      timer_(new QTimer(this)) {
    windowAuto_->setObjectName(QStringLiteral("windowAuto"));
    windowLow_->setObjectName(QStringLiteral("windowLow"));
    windowHigh_->setObjectName(QStringLiteral("windowHigh"));
    windowAuto_->setChecked(true);
    windowAuto_->setToolTip(
        tr("Y16 pictures stretched from their darkest to their brightest "
           "pixel, frame by frame"));
    for (QSpinBox* box : {windowLow_, windowHigh_}) {
        box->setRange(0, 0xFFFF);
        box->setAccelerated(true);
        box->setEnabled(false);
    }
    windowHigh_->setValue(0xFFFF);
    windowLow_->setToolTip(tr("this Y16 level and below are shown black"));
    windowHigh_->setToolTip(tr("this Y16 level and above are shown white"));
    auto* window = new QHBoxLayout;
    window->addWidget(new QLabel(tr("Y16 window"), this));
    window->addWidget(windowAuto_);
    window->addWidget(windowLow_);
    window->addWidget(new QLabel(QStringLiteral("-"), this));
    window->addWidget(windowHigh_);
    window->addStretch(1);
    connect(windowAuto_, &QCheckBox::toggled, this, &InspectPage::ApplyWindow);
    connect(windowLow_, QOverload<int>::of(&QSpinBox::valueChanged), this,
            &InspectPage::ApplyWindow);
    connect(windowHigh_, QOverload<int>::of(&QSpinBox::valueChanged), this,
            &InspectPage::ApplyWindow);
    inspector_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    statistics_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    statistics_->setAlignment(Qt::AlignTop | Qt::AlignLeft);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(histogram_, 1);
    layout->addLayout(window);
    layout->addWidget(inspector_);
    layout->addWidget(statistics_);
    connect(timer_, &QTimer::timeout, this, &InspectPage::Refresh);
    timer_->start(kRefreshMs);
    ShowPixel();
}

void InspectPage::SetChannel(CapturePanel* panel) {
    panel_ = panel;
    if (panel_ != nullptr) {
        const tools::Y16Window shown = panel_->Y16WindowShown();
        const QSignalBlocker blockAuto(windowAuto_);
        const QSignalBlocker blockLow(windowLow_);
        const QSignalBlocker blockHigh(windowHigh_);
        windowAuto_->setChecked(shown.automatic);
        windowLow_->setValue(static_cast<int>(shown.low));
        windowHigh_->setValue(static_cast<int>(shown.high));
        windowLow_->setEnabled(!shown.automatic);
        windowHigh_->setEnabled(!shown.automatic);
    }
    frame_.clear();
    histogram_->Clear();
    hoverX_ = hoverY_ = -1;
    ShowPixel();
    Refresh();
}

bool InspectPage::SetY16Window(bool automatic, int low, int high) {
    if (!automatic && (low < 0 || high > 0xFFFF || low >= high)) {
        windowProblem_ = tr("the Y16 window needs low below high, within 0 to 65535");
        context_.Did(windowProblem_);
        return false;
    }
    const QSignalBlocker blockAuto(windowAuto_);
    const QSignalBlocker blockLow(windowLow_);
    const QSignalBlocker blockHigh(windowHigh_);
    windowAuto_->setChecked(automatic);
    windowLow_->setValue(low);
    windowHigh_->setValue(high);
    ApplyWindow();
    return windowProblem_.isEmpty();
}

void InspectPage::ApplyWindow() {
    const bool automatic = windowAuto_->isChecked();
    windowLow_->setEnabled(!automatic);
    windowHigh_->setEnabled(!automatic);
    if (panel_ == nullptr) {
        return;
    }
    tools::Y16Window window;
    window.automatic = automatic;
    window.low = static_cast<std::uint32_t>(windowLow_->value());
    window.high = static_cast<std::uint32_t>(windowHigh_->value());
    // While the user types one end past the other the picture keeps the last good window.
    if (!automatic && window.low >= window.high) {
        windowProblem_ = tr("the Y16 window needs low below high");
        windowLow_->setToolTip(windowProblem_);
        return;
    }
    windowProblem_.clear();
    panel_->SetY16Window(window);
}

void InspectPage::Hover(int channel, int x, int y) {
    if (panel_ == nullptr || channel != panel_->Channel()) {
        return;
    }
    hoverX_ = x;
    hoverY_ = y;
    ShowPixel();
}

void InspectPage::Refresh() {
    if (panel_ == nullptr) {
        statistics_->setText(tr("no channel"));
        return;
    }
    if (panel_->IsRunning()) {
        // The capture thread copies the next frame; the copy is read here next time.
        if (panel_->TakeNewFrame(frame_)) {
            format_ = panel_->Format();
            // Every pixel: a sample of them aliases with periodic pictures (a comb of levels).
            tools::LevelHistogram levels;
            if (tools::CountLevels(format_.pixelType, format_.width, format_.height,
                                   reinterpret_cast<const unsigned char*>(frame_.data()),
                                   frame_.size(), 1, levels)) {
                histogram_->Show(levels);
            }
            ShowPixel();
        }
        panel_->AskForFrame();
    }
    KvCaptureStatistics stats;
    if (!context_.manager.GetCaptureStatistics(panel_->Channel(), stats)) {
        statistics_->setText(tr("channel %1: no statistics (no card open)").arg(panel_->Channel()));
        return;
    }
    // Every count of the library's table, three to a line.
    QStringList rows;
#define KVPCIE_INSPECT_ROW(member, name, label, text) \
    rows << QStringLiteral(label " ") + CountText(stats.member);
    KVPCIE_CAPTURE_STATISTICS_FIELDS(KVPCIE_INSPECT_ROW)
#undef KVPCIE_INSPECT_ROW
    QString text = tr("channel %1").arg(panel_->Channel());
    for (int i = 0; i < rows.size(); ++i) {
        text += (i % 3 == 0 ? QStringLiteral("\n") : QStringLiteral("   ")) + rows[i];
    }
    statistics_->setText(text);
}

void InspectPage::ShowPixel() {
    if (hoverX_ < 0 || frame_.empty()) {
        inspector_->setText(tr("pixel: move the cursor over the picture"));
        return;
    }
    const std::string value = tools::DescribePixel(
        format_.pixelType, format_.width, format_.height,
        reinterpret_cast<const unsigned char*>(frame_.data()), frame_.size(), hoverX_, hoverY_);
    inspector_->setText(tr("pixel (%1, %2): %3")
                            .arg(hoverX_)
                            .arg(hoverY_)
                            .arg(value.empty() ? tr("outside the picture")
                                               : QString::fromStdString(value)));
}

QString InspectPage::InspectorText() const {
    return inspector_->text();
}

QString InspectPage::StatisticsText() const {
    return statistics_->text();
}

}  // namespace kvpcie::viewer
