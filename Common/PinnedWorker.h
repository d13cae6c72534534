// One worker thread of an engine: started with a run flag, pinned to a core taken from the
// core table, and stopped by clearing the flag, giving the core back and joining.
#pragma once

#include "CpuCoreSource.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

namespace kvpcie {

// Start and Stop may come from several threads at once (the control thread, and a callback on
// another worker that stops this one): each join has one owner, and a second Stop waits until
// the first has joined, then finds nothing left to do.
class PinnedWorker {
public:
    PinnedWorker() = default;
    // Stops a worker that still runs, so no thread outlives its owner's state.
    ~PinnedWorker();
    PinnedWorker(const PinnedWorker&) = delete;
    PinnedWorker& operator=(const PinnedWorker&) = delete;

    // Stops a running worker first. `body` runs once and is expected to loop while IsRunning().
    // With a null `cores` the thread is not pinned. From the worker itself, after a stop it
    // asked for, its own body simply goes on (`body` is not run a second time), unless another
    // thread is already joining it: then it stays stopped, and IsRunning() says so.
    void Start(CpuCoreSource* cores, std::function<void()> body, const char* name);
    // Clears the flag, gives the core back and joins. From the worker itself it only asks: the
    // body ends once it sees the flag cleared, the core is given back at once, and the next
    // Start or Stop from another thread reaps the thread.
    void Stop();

    bool IsRunning() const { return running_.load(std::memory_order_acquire); }
    // The core the worker holds from its table; false when it holds none (not pinned, stopped).
    bool HeldCore(unsigned& core);

private:
    bool OnWorker() const;
    // Under ownerLock_: stops and joins the thread there is.
    void StopAndJoin();
    void TakeCore(CpuCoreSource* cores);
    void ReturnCore();

    std::atomic<bool> running_{false};
    // Set while another thread joins: the worker must not start itself again then, or the
    // join would wait for ever.
    std::atomic<bool> joining_{false};
    // Held by the thread that starts or joins (never by the worker itself).
    std::mutex ownerLock_;
    std::thread thread_;  // under ownerLock_
    // Guards the core; never held while joining, since the worker gives its core back too.
    std::mutex coreLock_;
    CpuCoreSource* cores_ = nullptr;
    unsigned core_ = 0;
};

}  // namespace kvpcie
