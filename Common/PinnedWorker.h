// One worker thread of an engine: started with a run flag, pinned to a core taken from the
// core table, and stopped by clearing the flag, giving the core back and joining.
#pragma once

#include "CpuCoreSource.h"

#include <atomic>
#include <functional>
#include <thread>

namespace kvpcie {

class PinnedWorker {
public:
    PinnedWorker() = default;
    // Stops a worker that still runs, so no thread outlives its owner's state.
    ~PinnedWorker();
    PinnedWorker(const PinnedWorker&) = delete;
    PinnedWorker& operator=(const PinnedWorker&) = delete;

    // Stops a running worker first. `body` runs once and is expected to loop while IsRunning().
    // With a null `cores` the thread is not pinned.
    void Start(CpuCoreSource* cores, std::function<void()> body, const char* name);
    // Nothing when not running. Never call it from the worker itself.
    void Stop();

    bool IsRunning() const { return running_.load(std::memory_order_acquire); }

private:
    std::atomic<bool> running_{false};
    std::thread thread_;
    CpuCoreSource* cores_ = nullptr;
    unsigned core_ = 0;
};

}  // namespace kvpcie
