// The current channel's histogram, pixel inspector and statistics.
#include "InspectPage.h"

#include "PixelLevels.h"

#include <QFormLayout>
#include <QLabel>
#include <QTimer>
#include <QVBoxLayout>

#include <cmath>

namespace kvpcie::viewer {
namespace {
constexpr int kRefreshMs = 250;
// About this many pixels are counted per histogram, whatever the picture's size.
constexpr double kHistogramSamples = 65536.0;
}  // namespace

InspectPage::InspectPage(StudioContext& context, QWidget* parent)
    : QWidget(parent),
      context_(context),
      histogram_(new HistogramView(this)),
      inspector_(new QLabel(this)),
      statistics_(new QLabel(this)),
      timer_(new QTimer(this)) {
    inspector_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    statistics_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    statistics_->setAlignment(Qt::AlignTop | Qt::AlignLeft);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(histogram_, 1);
    layout->addWidget(inspector_);
    layout->addWidget(statistics_);
    connect(timer_, &QTimer::timeout, this, &InspectPage::Refresh);
    timer_->start(kRefreshMs);
    ShowPixel();
}

void InspectPage::SetChannel(CapturePanel* panel) {
    panel_ = panel;
    frame_.clear();
    histogram_->Clear();
    hoverX_ = hoverY_ = -1;
    ShowPixel();
    Refresh();
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
            const double pixels = double(format_.width) * format_.height;
            const int step = std::max(1, int(std::sqrt(pixels / kHistogramSamples)));
            tools::LevelHistogram levels;
            if (tools::CountLevels(format_.pixelType, format_.width, format_.height,
                                   reinterpret_cast<const unsigned char*>(frame_.data()),
                                   frame_.size(), step, levels)) {
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
    statistics_->setText(tr("channel %1\ndelivered %2   failed %3   flagged %4\n"
                            "recorded %5   not recorded %6\n%7 fps   slowest callback %8 us")
                             .arg(panel_->Channel())
                             .arg(stats.framesDelivered)
                             .arg(stats.framesFailed)
                             .arg(stats.errorFrames)
                             .arg(stats.framesRecorded)
                             .arg(stats.framesNotRecorded)
                             .arg(stats.framesPerSecond, 0, 'f', 1)
                             .arg(stats.callbackMicrosMax));
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
