/// \file
/// The OpenGL widget that shows one video channel.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeInjectSdkGlobal.h>

#include <QImage>
#include <QOpenGLFunctions>
#include <QOpenGLWidget>

#include <atomic>
#include <memory>

class QOpenGLFunctions_1_1;
class QOpenGLTexture;
class QTimer;

namespace kvpcie {
class KvCycleQueue;
}

/// Draws the latest RGBA picture stretched over the whole widget, or, while no pictures arrive,
/// a status picture from the host application's resources under ":/skin/image/blue/GLBackImg/".
///
/// The host creates the widget, owns it (usually through a Qt parent) and may hand it to
/// PCIeDataManager::SetCaptureFullScreenWgt or SetInjectFullScreenWgt, which size it but do not
/// keep it. The widget shows itself on construction.
///
/// Threads: PushImageData may be called from any thread, one producer at a time. Everything else
/// belongs to the GUI thread. SetImageSize replaces the picture buffer, so no push may overlap
/// it, and pushing must have stopped before the widget is destroyed.
class KVPCIE_EXPORT GLWidget : public QOpenGLWidget, protected QOpenGLFunctions {
    Q_OBJECT

public:
    /// Shows status picture 0 at once; pictures follow SetImageSize and PushImageData.
    explicit GLWidget(QWidget* parent = nullptr);
    /// Releases the texture in the widget's own context.
    ~GLWidget() override;
    GLWidget(const GLWidget&) = delete;
    GLWidget& operator=(const GLWidget&) = delete;

    /// Pictures of width x height pixels, 4 bytes each, from now on; refreshes every 5 ms.
    void SetImageSize(int width, int height);

    /// Copies one picture of the size given to SetImageSize and switches to showing pictures.
    /// True whether or not the picture was taken: one waits at most, newer ones are dropped
    /// until it is shown; before any usable size nothing is copied, and the switch still
    /// happens. False for a null pointer, changing nothing.
    bool PushImageData(const unsigned char* rgba);

    /// Shows status picture 0 to 5 (0 is "Normal") until the next PushImageData. Status 0 also
    /// slows the refresh to once a second; an unknown number keeps the current status picture.
    void SetBackImage(int status);

public slots:
    /// GUI thread: uploads `image` as the texture drawn next (nothing before OpenGL is ready).
    void setTextureImage(const QImage& image);
    /// The refresh tick: the status picture while no pictures arrive, else the waiting picture.
    void OnTimer_UpdataVideoView();

protected:
    /// QOpenGLWidget's: makes the texture and the status pictures' textures.
    void initializeGL() override;
    /// QOpenGLWidget's: fits the drawn frame into `w` x `h` pixels.
    void resizeGL(int w, int h) override;
    /// QOpenGLWidget's: draws the last texture, or the status picture.
    void paintGL() override;

private:
    void ReleaseGL();
    void RestartTimer(int periodMs);

    std::unique_ptr<QOpenGLTexture> texture_;
    QOpenGLFunctions_1_1* fixedFunctions_ = nullptr;  ///< owned by the GL context
    QImage statusPicture_;
    QImage framePicture_;             ///< wraps the queue slot that the last take returned
    QTimer* refreshTimer_ = nullptr;  ///< child object
    std::unique_ptr<kvpcie::KvCycleQueue> queue_;
    std::atomic<bool> framesArriving_{false};
    bool glReady_ = false;
    int width_ = 0;
    int height_ = 0;
    int pictureBytes_ = 0;  ///< 0 while the queue cannot take pictures
};
