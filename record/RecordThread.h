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

    // The record folder is KvPCIe::RecordRoot() until SetRecordDir. `sizeLimit` is for tests.
    explicit RecordThread(const KvFrameFormat& format, std::int64_t sizeLimit = kDefaultSizeLimit);
    // Stops a recording that is still running first.
    ~RecordThread() override;

    // Frame bytes; sets up the 16-slot queue. A size of 0 or less leaves the recorder refusing
    // every frame.
    void SetFrameSize(int bytes);
    // The folder of the takes; created if missing. Applies from the next StartRecord.
    void SetRecordDir(const QString& dir);

    // Opens a new take "<record dir>/<yyyyMMdd_hhmmss>" with file 0 and starts writing; a second
    // take in the same second gets "<yyyyMMdd_hhmmss>_2" and so on, never the first one's file.
    // A take that is running is stopped first. With a pixel type that has no file suffix no
    // file is created and frames are taken and dropped.
    void StartRecord();
    // Ends the intake, joins the thread, writes the frames still queued (then those that
    // `upstream`, a queue that fed this recorder, still holds) and closes the file, so that no
    // frame of this take goes into the next one.
    void StopRecord(KvCycleQueue* upstream = nullptr);
    // True when the last StartRecord could not create its folder or open its file (for a pixel
    // type that is recorded at all): the take writes nothing.
    bool TakeFailed() const { return takeFailed_; }

    // Feeding thread: copies one frame in. False (frame lost, and counted) when the queue is
    // full or no frame size is set.
    bool PushFrame(const char* frame);
    bool IsRecording() const { return recording_.load(std::memory_order_acquire); }

    // The name of file `index` of a take, without the folder; empty for pixel types that are
    // not recorded.
    static QString FileName(const KvFrameFormat& format, int index);
    // The folder of the current (or last) take.
    QString TakeDir() const { return takeDir_; }

    // Counts over the recorder's life, from any thread: frames and bytes written, and frames
    // pushed that are in no file (no room in the queue, or a failed write).
    std::uint64_t FramesWritten() const { return framesWritten_.load(std::memory_order_relaxed); }
    std::uint64_t BytesWritten() const { return bytesWritten_.load(std::memory_order_relaxed); }
    std::uint64_t FramesLost() const { return framesLost_.load(std::memory_order_relaxed); }

signals:
    void sendQueueFull(int res);

protected:
    void run() override;

private:
    void OpenFile();
    void WriteFrame(const char* frame);
    bool WriteToFile(const char* frame);

    KvCycleQueue frames_;
    QString recordDir_;
    QString takeDir_;
    std::unique_ptr<QFile> file_;
    int fileIndex_ = 0;
    bool takeFailed_ = false;
    // The file's writes go around the page cache: a recording outgrows the cache within
    // seconds, and then the copy into it only costs memory bandwidth and pushes out the host
    // application's pages.
    bool directWrites_ = false;
    std::int64_t bytesCounted_ = 0;
    std::atomic<bool> recording_{false};
    // Set as run() returns. QThread's own wait is invisible to ThreadSanitizer (Qt's futexes),
    // so the destructor reads this too: the thread's last accesses come before the delete.
    std::atomic<bool> runEnded_{false};
    std::atomic<std::uint64_t> framesWritten_{0};
    std::atomic<std::uint64_t> bytesWritten_{0};
    std::atomic<std::uint64_t> framesLost_{0};
    int frameSize_ = 0;
    const std::int64_t sizeLimit_;
    const KvFrameFormat format_;
};

}  // namespace kvpcie
