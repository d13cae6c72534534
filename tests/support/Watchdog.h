// A bound on a call or a test that could hang: a deadlock fails the suite instead of stalling it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace kvpcie::testing {

// Ends the process with a message naming `what` unless it is destroyed within `limit`: a hang
// cannot be recovered from inside the suite.
class Watchdog {
public:
    explicit Watchdog(const char* what, std::chrono::milliseconds limit = std::chrono::seconds(10))
        : thread_([this, what, limit] {
              std::unique_lock<std::mutex> lock(mutex_);
              if (!returned_.wait_for(lock, limit, [this] { return done_; })) {
                  std::fprintf(stderr, "hang: %s did not return within %lld ms\n", what,
                               static_cast<long long>(limit.count()));
                  std::abort();
              }
          }) {}
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        returned_.notify_one();
        thread_.join();
    }

private:
    std::mutex mutex_;
    std::condition_variable returned_;
    bool done_ = false;
    std::thread thread_;  // last: it starts once the members it uses exist
};

}  // namespace kvpcie::testing
