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
    // With a null `cores` the thread is not pinned. From the worker itself, after a stop it
    // asked for, its own body simply goes on (`body` is not run a second time).
    void Start(CpuCoreSource* cores, std::function<void()> body, const char* name);
    // Clears the flag, gives the core back and joins. From the worker itself it only asks: the
    // body ends once it sees the flag cleared, the core is given back at once, and the next
    // Start or Stop reaps the thread.
    void Stop();

    bool IsRunning() const { return running_.load(std::memory_order_acquire); }

private:
    bool OnWorker() const;
    void ReturnCore();

    std::atomic<bool> running_{false};
    std::thread thread_;
    CpuCoreSource* cores_ = nullptr;
    unsigned core_ = 0;
};

}  // namespace kvpcie
