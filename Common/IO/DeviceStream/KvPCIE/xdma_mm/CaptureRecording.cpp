// One capture channel's recording: takes, the recording queue and its losses.
#include "CaptureRecording.h"

namespace kvpcie::xdma {
namespace {
constexpr int kRecordQueueSlots = 16;
}  // namespace

void CaptureRecording::Replace(const KvFrameFormat& format, int frameSize) {
    std::lock_guard<std::mutex> lock(lock_);
    notQueued_.Set(0);
    queueLosses_ = LossBurst{};
    recorderLossesSeen_ = 0;
    recorderLosses_ = LossBurst{};
    recorder_ = std::make_unique<RecordThread>(format);
    recorder_->SetFrameSize(frameSize);
    queue_ = std::make_unique<KvCycleQueue>();
    queue_->Init(frameSize, kRecordQueueSlots);
}

bool CaptureRecording::StartTake(const QString& folder) {
    if (recorder_ == nullptr) {
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(lock_);
        FinishTakeLocked();
        notQueued_.Add(static_cast<std::uint64_t>(queue_->Size()));
        queue_->Reset();
    }
    recorder_->SetRecordDir(folder);
    recorder_->StartRecord();
    if (recorder_->TakeFailed()) {
        FinishTake();
        return false;
    }
    std::lock_guard<std::mutex> lock(lock_);
    lastTakeFolder_ = recorder_->TakeDir();
    return true;
}

QString CaptureRecording::LastTakeFolder() {
    std::lock_guard<std::mutex> lock(lock_);
    return lastTakeFolder_;
}

void CaptureRecording::FinishTake() {
    std::lock_guard<std::mutex> lock(lock_);
    FinishTakeLocked();
}

void CaptureRecording::FinishTakeLocked() {
    if (recorder_ != nullptr && (recorder_->IsRecording() || recorder_->isRunning())) {
        recorder_->StopRecord(queue_.get());
    }
}

void CaptureRecording::Offer(const char* frame, int frameSize) {
    if (!IsRecording()) {
        return;
    }
    int full = 0;
    const bool queued = queue_->Push(frame, frameSize, full);
    if (!queued) {
        notQueued_.Add();
    }
    LogLossBurst(log_, queueLosses_, !queued, channel_,
                 "the recording queue is full: frames are not recorded",
                 "frames were not recorded");
}

bool CaptureRecording::Feed() {
    std::lock_guard<std::mutex> lock(lock_);
    if (recorder_ == nullptr || !recorder_->IsRecording() || queue_ == nullptr ||
        queue_->Size() == 0) {
        return false;
    }
    // A slot handed out by PopPtr stays intact until the next PopPtr, and PushFrame copies it
    // at once.
    while (const char* frame = queue_->PopPtr()) {
        recorder_->PushFrame(frame);
    }
    // Frames the recorder had no room for, or could not write.
    const std::uint64_t losses = recorder_->FramesLost();
    LogLossBurst(log_, recorderLosses_, losses - recorderLossesSeen_, channel_,
                 "the recorder cannot keep up (a full or slow disk): frames are lost",
                 "frames were lost by the recorder");
    recorderLossesSeen_ = losses;
    return true;
}

void CaptureRecording::AddTo(KvCaptureStatistics& out) {
    out.framesNotRecorded += notQueued_.Get();
    // The recorder is replaced under this lock (a restart), and this may be any thread.
    std::lock_guard<std::mutex> lock(lock_);
    if (recorder_ != nullptr) {
        out.framesRecorded = recorder_->FramesWritten();
        out.bytesRecorded = recorder_->BytesWritten();
        out.framesNotRecorded += recorder_->FramesLost();
    }
}

}  // namespace kvpcie::xdma
