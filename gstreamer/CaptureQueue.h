// Captured frames on their way from the library's polling thread, which copied each into a
// buffer of the source's pool, to the source's streaming thread. The polling thread never waits
// here for longer than a push takes; a full queue refuses the frame instead.
#pragma once

#include <gst/gst.h>

#include <array>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace kvpcie::gst {

struct CapturedFrame {
    GstBuffer* buffer = nullptr;
    guint64 sequence = 0;    // counted from 0 at the channel's start, lost frames included
    guint64 lostBefore = 0;  // frames lost between the previous frame queued and this one
    GstClockTime arrival = GST_CLOCK_TIME_NONE;  // running time when the callback had it
};

class CaptureQueue {
public:
    // As many as the source's pool has buffers at most, so a push finds room whenever the
    // polling thread has a buffer.
    static constexpr std::size_t kCapacity = 32;

    ~CaptureQueue() { Clear(); }

    // Takes the frame's buffer; false (the buffer stays the caller's) when the queue is full.
    bool Push(const CapturedFrame& frame);
    // Waits for the oldest frame; false once flushing, or (with `lost` set) once the card is
    // gone and the frames that came before it have been taken.
    bool Pop(CapturedFrame& frame, bool& lost);
    // Flushing wakes and refuses every Pop until it is switched off.
    void SetFlushing(bool flushing);
    // The card is gone (true): no frame will come. Any thread.
    void SetCardLost(bool lost);
    // Drops the frames that wait, with their buffers.
    void Clear();

private:
    std::mutex lock_;
    std::condition_variable frameReady_;
    std::array<CapturedFrame, kCapacity> ring_{};
    std::size_t first_ = 0;
    std::size_t count_ = 0;
    bool flushing_ = false;
    bool cardLost_ = false;
};

}  // namespace kvpcie::gst
