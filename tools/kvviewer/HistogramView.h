// A picture's level histogram, with its min, max and mean and the share of clipped pixels at
// both ends (red bars only where there are any).
#pragma once

#include "PixelLevels.h"

#include <QWidget>

namespace kvpcie::viewer {

class HistogramView : public QWidget {
    Q_OBJECT

public:
    explicit HistogramView(QWidget* parent = nullptr);
    void Show(const tools::LevelHistogram& levels);
    void Clear();
    const tools::LevelHistogram& Levels() const { return levels_; }
    // The figures drawn under the bars: min, max and mean level, and the clipped shares.
    QString SummaryText() const;
    QSize sizeHint() const override { return {280, 120}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    tools::LevelHistogram levels_;
    bool shown_ = false;
};

}  // namespace kvpcie::viewer
