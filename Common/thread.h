// The worker thread helper of the log files: runs one function with its owner, once per Start.
#pragma once

#include <thread>

namespace kvpcie {

class Thread {
public:
    using Function = void (*)(void* owner);

    Thread(void* owner, Function function) : owner_(owner), function_(function) {}
    // Does not join: the owner joins first.
    ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Starting a started thread, or joining one that is not, is a programming error: it asserts
    // in debug builds and is refused otherwise.
    void Start();
    void Join();
    bool started() const { return started_; }

private:
    void* owner_;
    Function function_;
    bool started_ = false;
    std::thread thread_;
};

}  // namespace kvpcie
