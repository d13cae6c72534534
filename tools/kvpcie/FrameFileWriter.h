// Captured frames into one raw file, frame after frame, written by a thread of its own.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kvpcie::cli {

// The frame callback copies each wanted frame into a free slot of a ring and returns; the
// writer thread empties the ring into the file, so the card's polling thread never waits on
// the disk. A frame that finds no free slot is lost and counted, never waited for.
class FrameFileWriter {
public:
    // Opens (truncates) `path`; a RuntimeError when it cannot. Takes the first `frameLimit`
    // frames offered and ignores the rest.
    FrameFileWriter(const std::string& path, std::size_t frameBytes, std::uint64_t frameLimit);
    // Writes what is queued, then closes the file.
    ~FrameFileWriter();
    FrameFileWriter(const FrameFileWriter&) = delete;
    FrameFileWriter& operator=(const FrameFileWriter&) = delete;

    // Frame callback: one copy into a slot, no allocation, no wait on the writer.
    void Offer(const char* frame);
    // True once `frameLimit` frames were taken (written, being written or lost).
    bool HasAllFrames() const { return taken_.load(std::memory_order_acquire) >= frameLimit_; }
    // Writes what is queued and closes the file; call it once no frame callback runs any more.
    // The counts are final after it.
    void Finish();

    std::uint64_t FramesWritten() const { return written_.load(std::memory_order_acquire); }
    std::uint64_t FramesLost() const { return lost_.load(std::memory_order_acquire); }
    // The first write error ("" when none).
    std::string Error();

private:
    void WriteLoop();

    const std::size_t frameBytes_;
    const std::uint64_t frameLimit_;
    const std::size_t slotCount_;
    std::vector<char> slots_;
    std::FILE* file_ = nullptr;

    // The callback fills slot head % slotCount and publishes head + 1; the writer empties slot
    // tail % slotCount and publishes tail + 1. One producer, one consumer.
    std::atomic<std::uint64_t> head_{0};
    std::atomic<std::uint64_t> tail_{0};
    std::atomic<std::uint64_t> taken_{0};
    std::atomic<std::uint64_t> written_{0};
    std::atomic<std::uint64_t> lost_{0};
    std::atomic<bool> finishing_{false};

    std::mutex wakeLock_;
    std::condition_variable wake_;
    std::mutex errorLock_;
    std::string error_;
    std::thread writer_;
};

}  // namespace kvpcie::cli
