// The newest frames of a pulled channel.
#include "facade/capi/PullQueue.h"

#include <cstring>

namespace kvpcie::capi {

PullQueue::PullQueue(std::size_t frameBytes, int depth)
    : frameBytes_(frameBytes),
      depth_(static_cast<std::size_t>(depth)),
      transfer_(frameBytes),
      buffers_(static_cast<std::size_t>(depth) + 1, std::vector<char>(frameBytes)) {
    free_.reserve(buffers_.size());
    for (std::vector<char>& buffer : buffers_) {
        free_.push_back(&buffer);
    }
    ring_.resize(buffers_.size());
}

void PullQueue::Push(const char* frame, bool errorFrame) {
    const std::int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                 std::chrono::steady_clock::now().time_since_epoch())
                                 .count();
    std::vector<char>* buffer = nullptr;
    std::uint64_t sequence = 0;
    {
        std::lock_guard<std::mutex> guard(lock_);
        sequence = nextSequence_++;
        if (queued_ == depth_ || (free_.empty() && queued_ > 0)) {
            // The newest frames are the ones worth keeping.
            buffer = ring_[oldest_].buffer;
            oldest_ = (oldest_ + 1) % ring_.size();
            --queued_;
            ++lost_;
        } else if (!free_.empty()) {
            buffer = free_.back();
            free_.pop_back();
        } else {
            ++lost_;  // every buffer is being read
            return;
        }
    }
    std::memcpy(buffer->data(), frame, frameBytes_);
    {
        std::lock_guard<std::mutex> guard(lock_);
        ring_[(oldest_ + queued_) % ring_.size()] =
            Entry{buffer, Record{sequence, now, errorFrame, lost_}};
        ++queued_;
    }
    arrived_.notify_one();
}

PullQueue::Result PullQueue::Pull(void* buffer, std::uint64_t capacity, Record& record,
                                  std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> guard(lock_);
    if (capacity < frameBytes_) {
        return Result::BufferTooSmall;
    }
    ++pullers_;
    const auto ready = [this] { return queued_ > 0 || stopped_; };
    if (timeout.count() < 0) {
        arrived_.wait(guard, ready);
    } else if (!arrived_.wait_for(guard, timeout, ready)) {
        --pullers_;
        idle_.notify_all();
        return Result::Timeout;
    }
    if (queued_ == 0) {
        --pullers_;
        idle_.notify_all();
        return Result::Stopped;
    }
    const Entry entry = ring_[oldest_];
    oldest_ = (oldest_ + 1) % ring_.size();
    --queued_;
    guard.unlock();
    std::memcpy(buffer, entry.buffer->data(), frameBytes_);
    record = entry.record;
    guard.lock();
    free_.push_back(entry.buffer);
    --pullers_;
    idle_.notify_all();
    return Result::Frame;
}

void PullQueue::Stop() {
    {
        std::lock_guard<std::mutex> guard(lock_);
        stopped_ = true;
    }
    arrived_.notify_all();
}

void PullQueue::WaitForPullers() {
    std::unique_lock<std::mutex> guard(lock_);
    idle_.wait(guard, [this] { return pullers_ == 0; });
}

std::uint64_t PullQueue::FramesLost() const {
    std::lock_guard<std::mutex> guard(lock_);
    return lost_;
}

}  // namespace kvpcie::capi
