// A shared mutex whose exclusive lockers go first: once one waits, new shared lockers queue
// behind it. Used where many threads hold short shared locks back to back (card transfers) and
// a rare exclusive locker (closing the card) must not be starved.
#pragma once

#include <condition_variable>
#include <mutex>

namespace kvpcie {

// Meets the SharedMutex requirements used by std::unique_lock and std::shared_lock.
class WriterFirstSharedMutex {
public:
    void lock() {
        std::unique_lock<std::mutex> guard(mutex_);
        ++writersWaiting_;
        changed_.wait(guard, [this] { return !writer_ && readers_ == 0; });
        --writersWaiting_;
        writer_ = true;
    }

    void unlock() {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            writer_ = false;
        }
        changed_.notify_all();
    }

    void lock_shared() {
        std::unique_lock<std::mutex> guard(mutex_);
        changed_.wait(guard, [this] { return !writer_ && writersWaiting_ == 0; });
        ++readers_;
    }

    void unlock_shared() {
        bool last;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            last = --readers_ == 0;
        }
        if (last) {
            changed_.notify_all();
        }
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int readers_ = 0;
    int writersWaiting_ = 0;
    bool writer_ = false;
};

}  // namespace kvpcie
