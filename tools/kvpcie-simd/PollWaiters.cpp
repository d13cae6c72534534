// Notifying poll() callers of the model's events.
#define FUSE_USE_VERSION 312
#include "PollWaiters.h"

#include <fuse_lowlevel.h>

#include <algorithm>

namespace kvpcie::simd {

void PollWaiters::Start() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!notifier_.joinable() && !stop_) {
        notifier_ = std::thread([this] { Run(); });
    }
}

void PollWaiters::Stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    if (notifier_.joinable()) {
        notifier_.join();
    }
}

PollWaiters::~PollWaiters() {
    Stop();
    for (auto& [owner, waiter] : waiters_) {
        fuse_pollhandle_destroy(waiter.handle);
    }
}

void PollWaiters::Keep(const void* owner, int card, int event, fuse_pollhandle* handle) {
    fuse_pollhandle* previous = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Waiter& waiter = waiters_[owner];
        previous = waiter.handle;
        waiter = Waiter{card, event, handle};
    }
    if (previous != nullptr) {
        fuse_pollhandle_destroy(previous);
    }
}

void PollWaiters::Forget(const void* owner) {
    fuse_pollhandle* handle = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = waiters_.find(owner);
        if (found == waiters_.end()) {
            return;
        }
        handle = found->second.handle;
        waiters_.erase(found);
    }
    fuse_pollhandle_destroy(handle);
}

void PollWaiters::EventRaised(int card, int event) {
    if (card < 0) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (raised_.size() <= static_cast<std::size_t>(card)) {
            raised_.resize(static_cast<std::size_t>(card) + 1, 0);
        }
        raised_[static_cast<std::size_t>(card)] |= event < 0 ? ~0u : 1u << event;
    }
    wake_.notify_one();
}

void PollWaiters::Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] {
            if (stop_) {
                return true;
            }
            for (std::uint32_t bits : raised_) {
                if (bits != 0) {
                    return true;
                }
            }
            return false;
        });
        if (stop_) {
            return;
        }
        std::vector<fuse_pollhandle*> due;
        for (auto at = waiters_.begin(); at != waiters_.end();) {
            const Waiter& waiter = at->second;
            const std::uint32_t bits = static_cast<std::size_t>(waiter.card) < raised_.size()
                                           ? raised_[static_cast<std::size_t>(waiter.card)]
                                           : 0;
            if ((bits >> waiter.event & 1u) != 0) {
                due.push_back(waiter.handle);
                at = waiters_.erase(at);
            } else {
                ++at;
            }
        }
        std::fill(raised_.begin(), raised_.end(), 0);
        // The kernel polls the file again after the notification, and hands over a new handle.
        lock.unlock();
        for (fuse_pollhandle* handle : due) {
            fuse_lowlevel_notify_poll(handle);
            fuse_pollhandle_destroy(handle);
        }
        lock.lock();
    }
}

}  // namespace kvpcie::simd
