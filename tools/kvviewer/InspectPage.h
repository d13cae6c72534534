// The current capture channel looked at closely: the live histogram, the pixel under the
// cursor and the channel's statistics, refreshed a few times a second.
#pragma once

#include "CapturePanel.h"
#include "HistogramView.h"
#include "StudioContext.h"

#include <QWidget>

#include <vector>

class QCheckBox;
class QLabel;
class QSpinBox;
class QTimer;

namespace kvpcie::viewer {

class InspectPage : public QWidget {
    Q_OBJECT

public:
    explicit InspectPage(StudioContext& context, QWidget* parent = nullptr);
    void SetChannel(CapturePanel* panel);
    // The pixel under the cursor of `channel`'s picture; (-1, -1): none.
    void Hover(int channel, int x, int y);

    // The current channel's Y16 window: automatic, or low (black) to high (white). False, with
    // the reason logged, for low >= high or values outside 0 to 65535.
    bool SetY16Window(bool automatic, int low, int high);

    QString InspectorText() const;
    QString StatisticsText() const;
    const HistogramView* Histogram() const { return histogram_; }
    // The copy that the histogram and the inspector show.
    const std::vector<char>& InspectedFrame() const { return frame_; }

private:
    void Refresh();
    void ShowPixel();
    void ApplyWindow();

    StudioContext& context_;
    CapturePanel* panel_ = nullptr;
    HistogramView* histogram_;
    QLabel* inspector_;
    QLabel* statistics_;
    QCheckBox* windowAuto_;
    QSpinBox* windowLow_;
    QSpinBox* windowHigh_;
    QString windowProblem_;
    QTimer* timer_;
    // The analysis copy the histogram and the inspector read.
    std::vector<char> frame_;
    CaptureFormat format_;
    int hoverX_ = -1;
    int hoverY_ = -1;
};

}  // namespace kvpcie::viewer
