// Drawing a level histogram.
#include "HistogramView.h"

#include <QPainter>

#include <algorithm>
#include <cmath>

namespace kvpcie::viewer {

HistogramView::HistogramView(QWidget* parent) : QWidget(parent) {
    setMinimumSize(200, 90);
}

void HistogramView::Show(const tools::LevelHistogram& levels) {
    levels_ = levels;
    shown_ = true;
    update();
}

void HistogramView::Clear() {
    levels_ = tools::LevelHistogram{};
    shown_ = false;
    update();
}

QString HistogramView::SummaryText() const {
    if (!shown_ || levels_.pixels == 0) {
        return QString();
    }
    return tr("min %1   max %2   mean %3 (%4-bit)\nclipped: %5 % dark, %6 % bright")
        .arg(levels_.minLevel)
        .arg(levels_.maxLevel)
        .arg(levels_.MeanLevel(), 0, 'f', 1)
        .arg(levels_.bits)
        .arg(100.0 * levels_.ClippedLowShare(), 0, 'f', 2)
        .arg(100.0 * levels_.ClippedHighShare(), 0, 'f', 2);
}

void HistogramView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), palette().base());
    const int textHeight = 2 * fontMetrics().height() + 2;
    const QRect plot = rect().adjusted(2, 2, -2, -textHeight);
    if (!shown_ || levels_.pixels == 0 || plot.width() <= 0 || plot.height() <= 0) {
        painter.drawText(rect(), Qt::AlignCenter, tr("no picture"));
        return;
    }
    // Square roots, so that a few dark pixels still show beside a bright sky.
    const std::uint32_t tallest = *std::max_element(levels_.bins.begin(), levels_.bins.end());
    const double top = std::sqrt(double(std::max<std::uint32_t>(tallest, 1)));
    for (int bin = 0; bin < 256; ++bin) {
        const int left = plot.left() + bin * plot.width() / 256;
        const int right = plot.left() + (bin + 1) * plot.width() / 256;
        const int height = int(std::lround(std::sqrt(double(levels_.bins[bin])) / top *
                                           plot.height()));
        // Red where pixels sit at the lowest or highest level the type holds, and only there.
        const bool clipped =
            (bin == 0 && levels_.clippedLow > 0) || (bin == 255 && levels_.clippedHigh > 0);
        painter.fillRect(QRect(left, plot.bottom() - height + 1, std::max(1, right - left), height),
                         clipped ? QColor(200, 40, 40) : QColor(70, 110, 170));
    }
    painter.setPen(palette().text().color());
    painter.drawText(QRect(2, plot.bottom() + 2, width() - 4, textHeight),
                     Qt::AlignLeft | Qt::TextWordWrap, SummaryText());
}

}  // namespace kvpcie::viewer
