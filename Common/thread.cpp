// The log writer's thread.
#include "thread.h"

#include <cstdio>
#include <cstdlib>

namespace kvpcie {
namespace {

// The helper's two checks report as they always have: the file and lines of its first source,
// which hosts' crash reports and support notes quote.
#ifndef NDEBUG
[[noreturn]] void AssertionFailed(const char* expression, int line) {
    std::fprintf(stderr, "Assertion failed: %s, file ..\\Common\\thread, line %d\n", expression,
                 line);
    std::abort();
}
#define KVPCIE_THREAD_ASSERT(expression, line) \
    ((expression) ? static_cast<void>(0) : AssertionFailed(#expression, line))
#else
#define KVPCIE_THREAD_ASSERT(expression, line) static_cast<void>(0)
#endif

}  // namespace

Thread::~Thread() {
    if (thread_.joinable()) {
        thread_.detach();  // the owner broke the contract; never std::terminate the host
    }
}

void Thread::Start() {
    KVPCIE_THREAD_ASSERT(!started_, 20);
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
    KVPCIE_THREAD_ASSERT(started_, 35);
    if (!started_) {
        return;
    }
    started_ = false;
    thread_.join();
}

}  // namespace kvpcie
