// The bounded hand-over of captured frames from the polling thread to the streaming thread.
#include "CaptureQueue.h"

namespace kvpcie::gst {

bool CaptureQueue::Push(const CapturedFrame& frame) {
    {
        std::lock_guard<std::mutex> lock(lock_);
        if (count_ == kCapacity) {
            return false;
        }
        ring_[(first_ + count_) % kCapacity] = frame;
        ++count_;
    }
    frameReady_.notify_one();
    return true;
}

bool CaptureQueue::Pop(CapturedFrame& frame, bool& lost) {
    std::unique_lock<std::mutex> lock(lock_);
    frameReady_.wait(lock, [this] { return flushing_ || cardLost_ || count_ > 0; });
    lost = false;
    if (flushing_) {
        return false;
    }
    if (count_ == 0) {
        lost = true;
        return false;
    }
    frame = ring_[first_];
    ring_[first_] = CapturedFrame{};
    first_ = (first_ + 1) % kCapacity;
    --count_;
    return true;
}

void CaptureQueue::SetFlushing(bool flushing) {
    {
        std::lock_guard<std::mutex> lock(lock_);
        flushing_ = flushing;
    }
    frameReady_.notify_all();
}

void CaptureQueue::SetCardLost(bool lost) {
    {
        std::lock_guard<std::mutex> lock(lock_);
        cardLost_ = lost;
    }
    frameReady_.notify_all();
}

void CaptureQueue::Clear() {
    std::array<CapturedFrame, kCapacity> dropped{};
    std::size_t count = 0;
    {
        std::lock_guard<std::mutex> lock(lock_);
        for (; count_ > 0; --count_, first_ = (first_ + 1) % kCapacity) {
            dropped[count++] = ring_[first_];
            ring_[first_] = CapturedFrame{};
        }
    }
    // Outside the lock: a buffer going back to its pool may wake whoever waits there.
    for (std::size_t i = 0; i < count; ++i) {
        gst_buffer_unref(dropped[i].buffer);
    }
}

}  // namespace kvpcie::gst
