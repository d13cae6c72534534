// The decimated copy of a channel's frames.
#include "FrameTap.h"

#include <cstring>

namespace kvpcie::viewer {

void FrameTap::Reset(std::size_t frameBytes) {
    std::lock_guard<std::mutex> lock(lock_);
    // A new vector, so that a smaller format gives back what a larger one held.
    decltype(copy_)(frameBytes, 0).swap(copy_);
    hasCopy_ = false;
    fresh_ = false;
    wanted_.store(false, std::memory_order_release);
}

void FrameTap::Offer(const char* frame) {
    if (!wanted_.load(std::memory_order_acquire)) {
        return;
    }
    std::unique_lock<std::mutex> lock(lock_, std::try_to_lock);
    if (!lock.owns_lock()) {
        return;  // the window reads the copy: the next frame will do
    }
    std::memcpy(copy_.data(), frame, copy_.size());
    hasCopy_ = true;
    fresh_ = true;
    wanted_.store(false, std::memory_order_release);
}

bool FrameTap::TakeNew(std::vector<char>& out) {
    std::lock_guard<std::mutex> lock(lock_);
    if (!fresh_) {
        return false;
    }
    fresh_ = false;
    out = copy_;
    return true;
}

bool FrameTap::Latest(std::vector<char>& out) {
    std::lock_guard<std::mutex> lock(lock_);
    if (!hasCopy_) {
        return false;
    }
    out = copy_;
    return true;
}

}  // namespace kvpcie::viewer
