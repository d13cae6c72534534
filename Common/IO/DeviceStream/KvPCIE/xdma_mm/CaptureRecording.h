// One capture channel's recording: the recorder, the queue that carries frames from the
// polling thread to the recording thread, and the frames that were not recorded.
#pragma once

#include "LossBurst.h"
#include "StreamCounters.h"

#include "Common/KvCycleQueue.h"
#include "Common/LogFile.h"
#include "record/RecordThread.h"

#include <KvPCIeInjectSdk/KvPCIeStatistics.h>
#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <QString>

#include <cstdint>
#include <memory>
#include <mutex>

namespace kvpcie::xdma {

// Replace and Offer are called only inside the owning channel's turn (its turn lock held), so
// the recorder and queue that Offer sees stay put without this class's own lock, which guards
// them against the recording thread and the host's takes.
class CaptureRecording {
public:
    CaptureRecording(int channel, LogFile& log) : channel_(channel), log_(log) {}
    // Finishes a take that still runs, so the recorder's thread never outlives its file.
    ~CaptureRecording() { FinishTake(); }
    CaptureRecording(const CaptureRecording&) = delete;
    CaptureRecording& operator=(const CaptureRecording&) = delete;

    // A new recorder and queue for frames of `frameSize` bytes; the counts start again. The
    // previous take must have been finished (FinishTake) before.
    void Replace(const KvFrameFormat& format, int frameSize);
    bool HasRecorder() const { return recorder_ != nullptr; }
    bool IsRecording() const { return recorder_ != nullptr && recorder_->IsRecording(); }

    // A take into `folder`. Frames still queued from before belong to no take and count as not
    // recorded. False when the take could not begin; it is then finished again.
    bool StartTake(const QString& folder);
    // The frames still on their way (in this queue and the recorder's) are written before it
    // returns.
    void FinishTake();
    // The folder of the running or last take over this channel's recorders; "" before one.
    QString LastTakeFolder();

    // Polling thread: queues the frame when a take runs; a full queue counts it as not recorded.
    void Offer(const char* frame, int frameSize);
    // Recording thread: hands queued frames to the recorder; true when there were any.
    bool Feed();

    void AddTo(KvCaptureStatistics& out);

private:
    void FinishTakeLocked();

    const int channel_;
    LogFile& log_;
    std::mutex lock_;
    std::unique_ptr<RecordThread> recorder_;
    std::unique_ptr<KvCycleQueue> queue_;
    QString lastTakeFolder_;
    RelaxedCount notQueued_;
    // Losses in a row, logged once when they begin and once when they end: frames the queue
    // refused (polling thread) and frames the recorder lost (recording thread).
    LossBurst queueLosses_;
    std::uint64_t recorderLossesSeen_ = 0;
    LossBurst recorderLosses_;
};

}  // namespace kvpcie::xdma
