// Bounded waiting for a condition, the way every suite waits for what another thread does.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace kvpcie::testing {

// Polls `done` every millisecond until it holds or `limit` passes.
inline bool WaitFor(const std::function<bool()>& done,
                    std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace kvpcie::testing
