// The raw recorder of a capture channel.
#include "RecordThread.h"

#include "DirectWrites.h"

#include <KvPCIeInjectSdk/KvPCIeRecording.h>

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

bool MakeDir(const QString& dir) {
    return QDir(dir).exists() || QDir().mkpath(dir);
}

}  // namespace

RecordThread::RecordThread(const KvFrameFormat& format, std::int64_t sizeLimit)
    : QThread(nullptr), recordDir_(KvPCIe::RecordRoot()), sizeLimit_(sizeLimit), format_(format) {
    // The folder is made when a take starts: a host that captures without recording (a
    // GStreamer pipeline run from any folder) finds nothing new on its disk.
}

RecordThread::~RecordThread() {
    if (IsRecording() || isRunning()) {
        StopRecord();
    }
    wait();
    static_cast<void>(runEnded_.load(std::memory_order_acquire));
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
    directWrites_ = false;
    const QString name = FileName(format_, fileIndex_);
    if (name.isEmpty()) {
        return;
    }
    file_ = std::make_unique<QFile>(takeDir_ + "/" + name);
    // A file that does not open records nothing, and the thread still drains the queue so that
    // the capture side never waits; its frames are counted as lost.
    // Unbuffered: a frame goes to the OS in one write without a copy into Qt's buffer, and a
    // full disk cannot make that buffer grow.
    if (!file_->open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered)) {
        takeFailed_ = true;
        return;
    }
    // Slots start on a page, so whole-page frames qualify; files start empty, so every frame
    // lands on a page boundary too.
    directWrites_ = frameSize_ % kDirectWriteAlignment == 0 && file_->size() == 0 &&
                    EnableDirectWrites(file_->handle());
}

void RecordThread::StartRecord() {
    if (IsRecording() || isRunning()) {
        StopRecord();
    }
    fileIndex_ = 0;
    takeFailed_ = false;
    frames_.Reset();
    const QString stamp =
        recordDir_ + "/" + QDateTime::currentDateTime().toString("yyyyMMdd_hhmmss");
    takeDir_ = stamp;
    for (int take = 2; QDir(takeDir_).exists(); ++take) {
        takeDir_ = stamp + "_" + QString::number(take);
    }
    if (!MakeDir(takeDir_) && !FileName(format_, 0).isEmpty()) {
        takeFailed_ = true;
    }
    OpenFile();
    bytesCounted_ = 0;
    recording_.store(true, std::memory_order_release);
    start(QThread::InheritPriority);
}

void RecordThread::StopRecord(KvCycleQueue* upstream) {
    const bool wasRunning = isRunning();
    recording_.store(false, std::memory_order_release);
    wait();
    if (wasRunning) {
        while (const char* frame = frames_.PopPtr()) {
            WriteFrame(frame);
        }
        while (const char* frame = upstream != nullptr ? upstream->PopPtr() : nullptr) {
            WriteFrame(frame);
        }
    }
    file_.reset();  // closes it
}

bool RecordThread::PushFrame(const char* frame) {
    int full = 0;
    if (frames_.Push(frame, frameSize_, full)) {
        return true;
    }
    framesLost_.fetch_add(1, std::memory_order_relaxed);
    return false;
}

void RecordThread::run() {
    while (IsRecording()) {
        const char* frame = frames_.PopPtr();
        if (frame == nullptr) {
            QThread::msleep(1);
            continue;
        }
        WriteFrame(frame);
    }
    runEnded_.store(true, std::memory_order_release);
}

void RecordThread::WriteFrame(const char* frame) {
    // The size test comes before the write: the frame that passes the limit opens the next
    // file and is the first one written there.
    bytesCounted_ += frameSize_;
    if (bytesCounted_ > sizeLimit_) {
        ++fileIndex_;
        OpenFile();
        bytesCounted_ = 0;
    }
    // Errors (a full disk) are not fatal: keep draining, and count the frame as lost.
    if (WriteToFile(frame)) {
        framesWritten_.fetch_add(1, std::memory_order_relaxed);
        bytesWritten_.fetch_add(static_cast<std::uint64_t>(frameSize_), std::memory_order_relaxed);
    } else {
        framesLost_.fetch_add(1, std::memory_order_relaxed);
    }
}

bool RecordThread::WriteToFile(const char* frame) {
    if (file_ == nullptr || !file_->isOpen()) {
        return false;
    }
    if (directWrites_ && !IsDirectWriteAligned(frame, frameSize_)) {
        DisableDirectWrites(file_->handle());
        directWrites_ = false;
    }
    qint64 written = file_->write(frame, frameSize_);
    if (written < 0 && directWrites_) {
        // Refused before a byte went out: some file systems take the flag and then refuse
        // the write. Go on through the page cache.
        DisableDirectWrites(file_->handle());
        directWrites_ = false;
        written = file_->write(frame, frameSize_);
    }
    return written == frameSize_;
}

}  // namespace kvpcie
