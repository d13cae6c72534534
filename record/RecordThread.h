// Records the frames of one capture channel to raw files: frame after frame, no header, with
// geometry, parameter lines, frame rate and pixel type in each file's name.
#pragma once

#include "Common/KvCycleQueue.h"

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <QFile>
#include <QString>
#include <QThread>

#include <atomic>
#include <cstdint>
#include <memory>

namespace kvpcie {

// Owned by the capture engine, one per channel. A feeding thread pushes frames; the recorder's
// own thread writes them, so the capture side never waits on the disk. Everything else is
// called from the controlling (host's) thread.
class RecordThread : public QThread {
    Q_OBJECT

public:
    static constexpr std::int64_t kDefaultSizeLimit = std::int64_t{1} << 32;  // 4 GiB per file

    // Creates <application dir>/VideoRecord if missing. `sizeLimit` is for tests.
    explicit RecordThread(const KvFrameFormat& format, std::int64_t sizeLimit = kDefaultSizeLimit);
    // Stops a recording that is still running first.
    ~RecordThread() override;

    // Frame bytes; sets up the 16-slot queue. A size of 0 or less leaves the recorder refusing
    // every frame.
    void SetFrameSize(int bytes);
    // The folder of the takes; created if missing. Applies from the next StartRecord.
    void SetRecordDir(const QString& dir);

    // Opens a new take "<record dir>/<yyyyMMdd_hhmmss>" with file 0 and starts writing. A take
    // that is running is stopped first. With a pixel type that has no file suffix no file is
    // created and frames are taken and dropped.
    void StartRecord();
    // Ends the writing after the frame in hand, joins the thread and closes the file. Frames
    // still queued are dropped by the next StartRecord.
    void StopRecord();

    // Feeding thread: copies one frame in. False (frame lost) when the queue is full or no frame
    // size is set.
    bool PushFrame(const char* frame);
    bool IsRecording() const { return recording_.load(std::memory_order_acquire); }

    // The name of file `index` of a take, without the folder; empty for pixel types that are
    // not recorded.
    static QString FileName(const KvFrameFormat& format, int index);
    // The folder of the current (or last) take.
    QString TakeDir() const { return takeDir_; }

signals:
    void sendQueueFull(int res);

protected:
    void run() override;

private:
    void OpenFile();

    KvCycleQueue frames_;
    QString recordDir_;
    QString takeDir_;
    std::unique_ptr<QFile> file_;
    int fileIndex_ = 0;
    std::int64_t bytesCounted_ = 0;
    std::atomic<bool> recording_{false};
    int frameSize_ = 0;
    const std::int64_t sizeLimit_;
    const KvFrameFormat format_;
};

}  // namespace kvpcie
