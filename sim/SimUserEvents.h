// The simulated card's user events: which are raised and not yet taken, the host's waits on
// them, and the observer that a process serving the events elsewhere installs.
#pragma once

#include "SimCardRegisters.h"

#include <array>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace kvpcie::sim {

// Not thread-safe by itself: the card calls every member under its register mutex, the one a
// wait releases while it sleeps.
class SimUserEvents {
public:
    enum class Outcome { Raised, TimedOut, Failed };

    SimUserEvents();

    // Blocks on `lock` until the event is raised, the time-out passes or `abandoned` says the
    // wait is over (a cancel, a removed card). A raised event is taken by the wait that sees it.
    Outcome Wait(std::unique_lock<std::mutex>& lock, int event,
                 const std::function<bool()>& abandoned);
    // Waiters look at `abandoned` again.
    void WakeWaiters();
    // Every wait ends: the card is gone. The observer hears -1.
    void EndWaits();

    void Raise(int event);
    bool IsPending(int event) const { return pending_[event]; }
    // A restarted card has none pending.
    void Clear() { pending_.fill(false); }

    void SetTimeout(std::chrono::milliseconds timeout) { timeout_ = timeout; }
    // Called with the card's lock held; see SimXdmaCard::SetEventObserver.
    void SetObserver(std::function<void(int event)> observer) { observer_ = std::move(observer); }

private:
    void Observe(int event);

    // One per event: a frame of one channel wakes that channel's waiter alone, not every
    // channel's and the command and status waiters too (each of which would take the card's
    // lock and sleep again, in the way of the one that matters).
    std::array<std::condition_variable, kUserEventCount> raised_;
    std::array<bool, kUserEventCount> pending_{};
    std::function<void(int event)> observer_;
    std::chrono::milliseconds timeout_;
};

}  // namespace kvpcie::sim
