// The log writer's thread.
#include "thread.h"

#include <cassert>

namespace kvpcie {

Thread::~Thread() {
    if (thread_.joinable()) {
        thread_.detach();  // the owner broke the contract; never std::terminate the host
    }
}

void Thread::Start() {
    assert(!started_);
    if (started_) {
        return;
    }
    started_ = true;
    thread_ = std::thread([owner = owner_, function = function_] {
        if (function != nullptr) {
            function(owner);
        }
    });
}

void Thread::Join() {
    assert(started_);
    if (!started_) {
        return;
    }
    started_ = false;
    thread_.join();
}

}  // namespace kvpcie
