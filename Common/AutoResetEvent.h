// An auto-reset event: Signal wakes one Wait, or the next one if nobody waits yet.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace kvpcie {

class AutoResetEvent {
public:
    // Notified after the lock is let go, so that the woken thread does not run only to block
    // on it. The owner keeps the event alive until every thread that signals it has ended.
    void Signal() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            signalled_ = true;
        }
        condition_.notify_one();
    }

    // True when the event was signalled within `timeout`; it is then reset.
    bool Wait(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!condition_.wait_for(lock, timeout, [this] { return signalled_; })) {
            return false;
        }
        signalled_ = false;
        return true;
    }

private:
    std::mutex mutex_;
    std::condition_variable condition_;
    bool signalled_ = false;
};

}  // namespace kvpcie
