// A channel's picture that zooms (fit, 1:1, the wheel) and pans (dragging), and says which
// pixel of the picture is under the cursor.
#pragma once

#include <QPoint>
#include <QScrollArea>

class GLWidget;

namespace kvpcie::viewer {

class ZoomView : public QScrollArea {
    Q_OBJECT

public:
    explicit ZoomView(QWidget* parent = nullptr);

    GLWidget* Display() const { return display_; }
    // Sizes the display widget's pictures too; call it only while no frame arrives.
    void SetImageSize(int width, int height);
    void Fit();
    void ActualSize();
    void ZoomBy(double factor);
    bool IsFit() const { return fit_; }
    // Screen pixels per picture pixel, as shown now.
    double Scale() const;
    // The picture's pixel under a point of the display widget; false outside the picture.
    bool PixelAt(QPoint displayPoint, int& x, int& y) const;

signals:
    // (-1, -1) when the cursor left the picture.
    void pixelHovered(int x, int y);
    void clicked();

protected:
    void resizeEvent(QResizeEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void Apply();

    GLWidget* display_;
    int imageWidth_ = 0;
    int imageHeight_ = 0;
    bool fit_ = true;
    double scale_ = 1.0;
    bool dragging_ = false;
    QPoint dragFrom_;
};

}  // namespace kvpcie::viewer
