// The raw recorder of a capture channel.
#include "RecordThread.h"

#include "Common/ApplicationDir.h"

#include <QDateTime>
#include <QDir>

namespace kvpcie {
namespace {

constexpr int kQueueSlots = 16;

const char* SuffixOf(ePixelType pixelType) {
    switch (pixelType) {
        case UYVY422:
            return "_UYVY422.raw";
        case Y8:
            return "_Y8.raw";
        case Y16:
            return "_Y16.raw";
        case Y16_Y8:
            return "_Y16&Y8.raw";
        case BGR24:
            return "_BGR24.raw";
        default:
            return nullptr;  // PIXEL32 and unknown types are not recorded
    }
}

void MakeDir(const QString& dir) {
    if (!QDir(dir).exists()) {
        QDir().mkpath(dir);
    }
}

}  // namespace

RecordThread::RecordThread(const KvFrameFormat& format, std::int64_t sizeLimit)
    : QThread(nullptr),
      recordDir_(ApplicationDir() + "/VideoRecord"),
      sizeLimit_(sizeLimit),
      format_(format) {
    MakeDir(recordDir_);
}

RecordThread::~RecordThread() {
    if (IsRecording() || isRunning()) {
        StopRecord();
    }
}

QString RecordThread::FileName(const KvFrameFormat& format, int index) {
    const char* suffix = SuffixOf(format.pixelType);
    if (suffix == nullptr) {
        return QString();
    }
    return QString("%1_%2x%3_ParamLine%4_Fps%5%6")
        .arg(index)
        .arg(format.width)
        .arg(format.height)
        .arg(format.paramLines)
        .arg(format.frameRate)
        .arg(QString::fromLatin1(suffix));
}

void RecordThread::SetFrameSize(int bytes) {
    frameSize_ = bytes;
    frames_.Init(bytes, kQueueSlots);
}

void RecordThread::SetRecordDir(const QString& dir) {
    recordDir_ = dir;
    MakeDir(recordDir_);
}

void RecordThread::OpenFile() {
    file_.reset();
    const QString name = FileName(format_, fileIndex_);
    if (name.isEmpty()) {
        return;
    }
    file_ = std::make_unique<QFile>(takeDir_ + "/" + name);
    // Not checked further: a file that does not open records nothing, and the thread still
    // drains the queue so that the capture side never waits.
    // Unbuffered: a frame goes to the OS in one write without a copy into Qt's buffer, and a
    // full disk cannot make that buffer grow.
    file_->open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered);
}

void RecordThread::StartRecord() {
    if (IsRecording() || isRunning()) {
        StopRecord();
    }
    fileIndex_ = 0;
    frames_.Reset();
    takeDir_ = recordDir_ + "/" + QDateTime::currentDateTime().toString("yyyyMMdd_hhmmss");
    MakeDir(takeDir_);
    OpenFile();
    bytesCounted_ = 0;
    recording_.store(true, std::memory_order_release);
    start(QThread::InheritPriority);
}

void RecordThread::StopRecord() {
    recording_.store(false, std::memory_order_release);
    wait();
    file_.reset();  // closes it
}

bool RecordThread::PushFrame(const char* frame) {
    int full = 0;
    return frames_.Push(frame, frameSize_, full);
}

void RecordThread::run() {
    while (IsRecording()) {
        const char* frame = frames_.PopPtr();
        if (frame == nullptr) {
            QThread::msleep(1);
            continue;
        }
        // The size test comes before the write: the frame that passes the limit opens the next
        // file and is the first one written there.
        bytesCounted_ += frameSize_;
        if (bytesCounted_ > sizeLimit_) {
            ++fileIndex_;
            OpenFile();
            bytesCounted_ = 0;
        }
        if (file_ != nullptr && file_->isOpen()) {
            file_->write(frame, frameSize_);  // errors (a full disk) are not fatal: keep draining
            file_->flush();
        }
    }
}

}  // namespace kvpcie
