// Zoom and pan of a channel's picture.
#include "ZoomView.h"

#include <KvPCIeInjectSdk/GLWidget.h>

#include <QMouseEvent>
#include <QScrollBar>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

namespace kvpcie::viewer {
namespace {
// The display widget draws into a framebuffer of its own size: a zoomed picture is kept to
// this many screen pixels a side, which bounds that framebuffer's memory.
constexpr int kMaxSide = 4096;
constexpr double kMinScale = 0.05;
}  // namespace

ZoomView::ZoomView(QWidget* parent) : QScrollArea(parent), display_(new GLWidget) {
    setWidget(display_);
    setWidgetResizable(false);
    setAlignment(Qt::AlignCenter);
    setFrameShape(QFrame::NoFrame);
    display_->setMouseTracking(true);
    display_->installEventFilter(this);
    viewport()->installEventFilter(this);
    setMinimumSize(160, 128);
}

void ZoomView::SetImageSize(int width, int height) {
    display_->SetImageSize(width, height);
    imageWidth_ = std::max(0, width);
    imageHeight_ = std::max(0, height);
    Apply();
}

void ZoomView::Fit() {
    fit_ = true;
    Apply();
}

void ZoomView::ActualSize() {
    fit_ = false;
    scale_ = 1.0;
    Apply();
}

void ZoomView::ZoomBy(double factor) {
    scale_ = Scale() * factor;
    fit_ = false;
    Apply();
}

double ZoomView::Scale() const {
    if (imageWidth_ <= 0) {
        return 1.0;
    }
    return double(display_->width()) / imageWidth_;
}

void ZoomView::Apply() {
    const QSize room = viewport()->size();
    if (imageWidth_ <= 0 || imageHeight_ <= 0) {
        display_->resize(room);
        return;
    }
    double scale = scale_;
    if (fit_) {
        scale = std::min(double(room.width()) / imageWidth_, double(room.height()) / imageHeight_);
    }
    const double largest = double(kMaxSide) / std::max(imageWidth_, imageHeight_);
    scale = std::clamp(scale, kMinScale, std::max(kMinScale, largest));
    if (!fit_) {
        scale_ = scale;
    }
    display_->resize(std::max(1, int(std::lround(imageWidth_ * scale))),
                     std::max(1, int(std::lround(imageHeight_ * scale))));
}

bool ZoomView::PixelAt(QPoint point, int& x, int& y) const {
    if (imageWidth_ <= 0 || imageHeight_ <= 0 || display_->width() <= 0 ||
        display_->height() <= 0 || !display_->rect().contains(point)) {
        return false;
    }
    x = std::min(imageWidth_ - 1, point.x() * imageWidth_ / display_->width());
    y = std::min(imageHeight_ - 1, point.y() * imageHeight_ / display_->height());
    return true;
}

void ZoomView::resizeEvent(QResizeEvent* event) {
    QScrollArea::resizeEvent(event);
    if (fit_) {
        Apply();
    }
}

bool ZoomView::eventFilter(QObject* watched, QEvent* event) {
    switch (event->type()) {
        case QEvent::Wheel: {
            const auto* wheel = static_cast<QWheelEvent*>(event);
            const int steps = wheel->angleDelta().y() / 120;
            if (steps != 0) {
                ZoomBy(std::pow(1.25, steps));
            }
            return true;
        }
        case QEvent::MouseButtonPress: {
            const auto* mouse = static_cast<QMouseEvent*>(event);
            emit clicked();
            if (mouse->button() == Qt::LeftButton) {
                dragging_ = true;
                dragFrom_ = mouse->globalPos();
            }
            break;
        }
        case QEvent::MouseButtonRelease:
            dragging_ = false;
            break;
        case QEvent::MouseMove: {
            const auto* mouse = static_cast<QMouseEvent*>(event);
            if (dragging_) {
                const QPoint moved = mouse->globalPos() - dragFrom_;
                dragFrom_ = mouse->globalPos();
                horizontalScrollBar()->setValue(horizontalScrollBar()->value() - moved.x());
                verticalScrollBar()->setValue(verticalScrollBar()->value() - moved.y());
            }
            int x = -1;
            int y = -1;
            if (watched != display_ || !PixelAt(mouse->pos(), x, y)) {
                x = y = -1;
            }
            emit pixelHovered(x, y);
            break;
        }
        case QEvent::Leave:
            if (watched == display_) {
                emit pixelHovered(-1, -1);
            }
            break;
        default:
            break;
    }
    return QScrollArea::eventFilter(watched, event);
}

}  // namespace kvpcie::viewer
