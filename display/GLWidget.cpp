// The video display widget: a two-slot picture queue fed by the host, drained by a timer.
#include <KvPCIeInjectSdk/GLWidget.h>

#include "Common/KvCycleQueue.h"

#include <QOpenGLContext>
#include <QOpenGLFunctions_1_1>
#include <QOpenGLTexture>
#include <QString>
#include <QTimer>

#include <iterator>
#include <limits>

namespace {

constexpr int kIdlePeriodMs = 1000;
constexpr int kLivePeriodMs = 5;
// Two slots hold one waiting picture: a newer one is dropped rather than queued behind it.
constexpr int kQueueSlots = 2;

constexpr const char* kStatusPictures[] = {
    ":/skin/image/blue/GLBackImg/Normal.png",
    ":/skin/image/blue/GLBackImg/WrongImgSize.png",
    ":/skin/image/blue/GLBackImg/NoInterEvent.png",
    ":/skin/image/blue/GLBackImg/ChannelLinkFail.png",
    ":/skin/image/blue/GLBackImg/ChannelEncodeFail.png",
    ":/skin/image/blue/GLBackImg/LinkFailAndEncodeFail.png",
};

}  // namespace

GLWidget::GLWidget(QWidget* parent)
    : QOpenGLWidget(parent),
      refreshTimer_(new QTimer(this)),
      queue_(std::make_unique<kvpcie::KvCycleQueue>()) {
    refreshTimer_->setTimerType(Qt::PreciseTimer);
    connect(refreshTimer_, &QTimer::timeout, this, &GLWidget::OnTimer_UpdataVideoView);
    SetBackImage(0);  // starts the timer at the idle period
    show();
}

GLWidget::~GLWidget() {
    // The base class destroys the context after this body; its aboutToBeDestroyed must not
    // reach the members that are gone by then.
    if (context() != nullptr) {
        disconnect(context(), nullptr, this, nullptr);
    }
    ReleaseGL();
}

void GLWidget::SetImageSize(int width, int height) {
    width_ = width;
    height_ = height;
    framePicture_ = QImage();  // it wraps a slot of the buffer that Init replaces
    pictureBytes_ = 0;
    const long long bytes = 4LL * width * height;
    if (width > 0 && height > 0 && bytes <= std::numeric_limits<int>::max() &&
        queue_->Init(static_cast<int>(bytes), kQueueSlots)) {
        pictureBytes_ = static_cast<int>(bytes);
    } else {
        queue_->Release();
    }
    RestartTimer(kLivePeriodMs);
}

bool GLWidget::PushImageData(const unsigned char* rgba) {
    if (rgba == nullptr) {
        return false;
    }
    // Without a usable size there is nothing to copy; the widget still turns to pictures, which
    // come once a size is given.
    if (pictureBytes_ > 0) {
        int full = 0;
        // A picture refused because one still waits is dropped on purpose.
        queue_->Push(reinterpret_cast<const char*>(rgba), pictureBytes_, full);
    }
    framesArriving_.store(true);
    return true;
}

void GLWidget::SetBackImage(int status) {
    if (status >= 0 && status < static_cast<int>(std::size(kStatusPictures))) {
        // A missing resource leaves the picture null, and nothing is uploaded for it.
        statusPicture_.load(QString::fromLatin1(kStatusPictures[status]));
    }
    framesArriving_.store(false);
    if (status == 0) {
        RestartTimer(kIdlePeriodMs);
    }
}

void GLWidget::setTextureImage(const QImage& image) {
    if (!glReady_) {
        return;
    }
    makeCurrent();
    if (texture_) {
        // Texture storage is immutable once allocated, and the next picture may differ in size.
        texture_->destroy();
        texture_->create();
    } else {
        texture_ = std::make_unique<QOpenGLTexture>(QOpenGLTexture::Target2D);
    }
    // A new texture object starts from OpenGL's defaults, so these are set on every upload.
    texture_->setMinMagFilters(QOpenGLTexture::Linear, QOpenGLTexture::Linear);
    texture_->setWrapMode(QOpenGLTexture::ClampToEdge);
    // QOpenGLTexture would only warn about a null picture; the screen goes black instead.
    if (!image.isNull()) {
        texture_->setSize(image.width(), image.height(), 1);
        texture_->setFormat(QOpenGLTexture::RGBA8_UNorm);
        texture_->setData(image);
    }
    doneCurrent();
    update();
}

void GLWidget::OnTimer_UpdataVideoView() {
    if (!framesArriving_.load()) {
        setTextureImage(statusPicture_);
        return;
    }
    const char* slot = queue_->PopPtr();
    if (slot == nullptr) {
        return;  // nothing new: the last picture stays on screen
    }
    // The slot stays valid until the next take, which is long after the upload.
    framePicture_ =
        QImage(reinterpret_cast<const uchar*>(slot), width_, height_, QImage::Format_RGBA8888);
    setTextureImage(framePicture_);
}

void GLWidget::initializeGL() {
    initializeOpenGLFunctions();
    fixedFunctions_ = context()->versionFunctions<QOpenGLFunctions_1_1>();
    if (fixedFunctions_ != nullptr && !fixedFunctions_->initializeOpenGLFunctions()) {
        fixedFunctions_ = nullptr;
    }
    if (fixedFunctions_ == nullptr) {
        qWarning("GLWidget: the OpenGL context has no fixed-function pipeline; nothing is drawn");
    }
    // Moving the widget to another window replaces the context, and the texture with it.
    connect(context(), &QOpenGLContext::aboutToBeDestroyed, this, &GLWidget::ReleaseGL);
    glClearColor(0.0f, 0.0f, 0.0f, 1.0f);
    glEnable(GL_TEXTURE_2D);
    glReady_ = true;
}

void GLWidget::resizeGL(int w, int h) {
    glViewport(0, 0, w, h);
}

void GLWidget::paintGL() {
    glClear(GL_COLOR_BUFFER_BIT);
    if (!texture_ || !texture_->isStorageAllocated() || fixedFunctions_ == nullptr) {
        return;
    }
    texture_->bind();
    // The default texture environment multiplies by the current colour.
    fixedFunctions_->glColor4f(1.0f, 1.0f, 1.0f, 1.0f);
    // Texture row 0 is the picture's first row: it goes to the top edge.
    fixedFunctions_->glBegin(GL_QUADS);
    fixedFunctions_->glTexCoord2f(0.0f, 0.0f);
    fixedFunctions_->glVertex2f(-1.0f, 1.0f);
    fixedFunctions_->glTexCoord2f(1.0f, 0.0f);
    fixedFunctions_->glVertex2f(1.0f, 1.0f);
    fixedFunctions_->glTexCoord2f(1.0f, 1.0f);
    fixedFunctions_->glVertex2f(1.0f, -1.0f);
    fixedFunctions_->glTexCoord2f(0.0f, 1.0f);
    fixedFunctions_->glVertex2f(-1.0f, -1.0f);
    fixedFunctions_->glEnd();
    texture_->release();
}

void GLWidget::ReleaseGL() {
    glReady_ = false;
    fixedFunctions_ = nullptr;
    if (texture_) {
        makeCurrent();
        texture_.reset();
        doneCurrent();
    }
}

void GLWidget::RestartTimer(int periodMs) {
    refreshTimer_->start(periodMs);
}
