// The newest frames of one channel, kept for hosts that pull them instead of taking callbacks.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

namespace kvpcie::capi {

// The card's polling thread pushes every frame; any number of threads pull. The lock is held
// only to move buffers between the free list and the queue, never for a copy: a slow puller
// costs the polling thread nothing. Every buffer is made at construction: none per frame.
class PullQueue {
public:
    // What a pulled frame was.
    struct Record {
        std::uint64_t sequence = 0;   // 0 for the run's first frame; a gap: frames lost between
        std::int64_t receivedNs = 0;  // on the host's steady clock, when the frame came
        bool errorFrame = false;
        std::uint64_t framesLost = 0;  // since the start, to a full queue
    };
    enum class Result { Frame, Timeout, Stopped, BufferTooSmall };

    // `depth` frames of `frameBytes` wait at most; one more buffer takes the next frame while
    // they wait.
    PullQueue(std::size_t frameBytes, int depth);

    // Where the card's transfer lands before Push copies it into a slot.
    char* TransferBuffer() { return transfer_.data(); }
    std::size_t FrameBytes() const { return frameBytes_; }

    // Polling thread: copies the frame into a free buffer and queues it. With `depth` frames
    // queued, or no buffer free (the rest being read), the oldest queued frame makes room and
    // is counted lost; with none queued and none free, this frame is.
    void Push(const char* frame, bool errorFrame);

    // The oldest waiting frame into `buffer`, waiting up to `timeout` (negative: no limit) for
    // one. Frames queued before a Stop are still handed out; after them Stopped. A buffer
    // smaller than a frame takes nothing.
    Result Pull(void* buffer, std::uint64_t capacity, Record& record,
                std::chrono::milliseconds timeout);

    // Wakes every waiting Pull; from now on Pull returns Stopped once the queue is empty.
    void Stop();
    // After Stop: returns once no Pull is under way (waiting or copying).
    void WaitForPullers();
    std::uint64_t FramesLost() const;

private:
    struct Entry {
        std::vector<char>* buffer;
        Record record;
    };

    const std::size_t frameBytes_;
    const std::size_t depth_;
    std::vector<char> transfer_;
    std::vector<std::vector<char>> buffers_;
    mutable std::mutex lock_;
    std::condition_variable arrived_;  // a frame was queued, or the queue stopped
    std::condition_variable idle_;     // a pull ended
    std::vector<std::vector<char>*> free_;
    // A ring as large as there are buffers: it never grows, so nothing is allocated per frame.
    std::vector<Entry> ring_;
    std::size_t oldest_ = 0;
    std::size_t queued_ = 0;
    std::uint64_t nextSequence_ = 0;
    std::uint64_t lost_ = 0;
    bool stopped_ = false;
    int pullers_ = 0;
};

}  // namespace kvpcie::capi
