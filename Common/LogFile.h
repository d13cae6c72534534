// A named diagnostic log: callers on any thread queue stamped lines; the log's own writer thread
// appends them to dated files below "./Log/<name>/", starting a new file past 10 MiB.
#pragma once

#include "thread.h"

#include <QString>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kvpcie {

class LogFile {
public:
    // Creates <application dir>/Log/<logName>/ if missing; opens nothing, starts nothing.
    explicit LogFile(const QString& logName);
    // Stops a writer that is still running, so no thread outlives the log.
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    // Opens "./Log/<name>/<stamp>_<index>.txt" (relative to the current directory) and starts
    // the writer. Ignored while the log is running.
    void StartLog();

    // printf-style; the message is cut at 4,999 bytes. Never touches the disk, never blocks
    // on it, reports nothing; lines queued before StartLog or after StopLog wait for the next
    // StartLog. At most kQueueLimitBytes wait: past that (a log that cannot be written) a line
    // is dropped and counted, and the next line that fits is preceded by one that says how
    // many were dropped. Any thread.
    void WriteLog(const char* format, ...);

    // Joins the writer and closes the file; lines still queued stay queued.
    void StopLog();

    // Bytes at which a file is full: the next line goes to a new file with the next index.
    static constexpr long kRotateBytes = 10485760;
    // Bytes of lines that may wait in the queue.
    static constexpr std::size_t kQueueLimitBytes = 8u << 20;

    // Lines dropped for want of room in the queue, over the log's life. Any thread.
    std::uint64_t DroppedLines() const { return droppedLines_.load(std::memory_order_relaxed); }
    // Bytes of lines waiting in the queue (not those the writer has taken). Any thread.
    std::size_t QueuedBytes();

private:
    static void ThreadFun_WriteLogFile(void* owner);
    void WriteLoop();
    void OpenFile();
    void Rotate();

    // The line queue: lines back to back in `text`, their lengths in order. Kept as one buffer
    // so that queueing a line allocates nothing once the buffers have grown, and the writer
    // takes every waiting line with one swap.
    struct Lines {
        std::string text;
        std::vector<std::uint32_t> lengths;
    };

    std::unique_ptr<Thread> writer_;
    char fileStamp_[256] = {};
    int fileIndex_ = 0;
    std::atomic<std::uint64_t> droppedLines_{0};
    const QString logName_;
    const QString logDirectory_;

    // What WriteLog touches, on cache lines of their own, apart from what the writer's loop
    // reads on every pass: callers on other cores then only meet over the lock itself.
    alignas(64) std::mutex lock_;
    Lines lines_;                          // guarded by lock_
    bool writerIdle_ = false;              // guarded by lock_
    std::uint64_t droppedUnreported_ = 0;  // guarded by lock_
    // The latest stamp queued, and its time in milliseconds, which no later line's stamp goes
    // below. Guarded by lock_.
    static constexpr int kStampBytes = 24;
    long long lastStampKey_ = -1;
    char lastStamp_[kStampBytes] = {};
    std::condition_variable lineQueued_;

    // The writer's own.
    alignas(64) std::atomic<bool> stop_{false};
    std::FILE* file_ = nullptr;
    long fileBytes_ = 0;  // size of the current file, the writer's own count
};

}  // namespace kvpcie
