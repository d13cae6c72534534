// The simulated card's user events and the host's waits on them.
#include "SimUserEvents.h"

namespace kvpcie::sim {

SimUserEvents::SimUserEvents() : timeout_(std::chrono::milliseconds(kDefaultEventTimeoutMs)) {}

SimUserEvents::Outcome SimUserEvents::Wait(std::unique_lock<std::mutex>& lock, int event,
                                           const std::function<bool()>& abandoned) {
    const auto deadline = std::chrono::steady_clock::now() + timeout_;
    raised_[event].wait_until(lock, deadline, [&] { return pending_[event] || abandoned(); });
    if (abandoned()) {
        return Outcome::Failed;
    }
    if (pending_[event]) {
        pending_[event] = false;
        return Outcome::Raised;
    }
    return Outcome::TimedOut;
}

void SimUserEvents::WakeWaiters() {
    for (std::condition_variable& raised : raised_) {
        raised.notify_all();
    }
}

void SimUserEvents::EndWaits() {
    WakeWaiters();
    Observe(-1);
}

void SimUserEvents::Raise(int event) {
    pending_[event] = true;
    raised_[event].notify_all();
    Observe(event);
}

void SimUserEvents::Observe(int event) {
    if (observer_) {
        observer_(event);
    }
}

}  // namespace kvpcie::sim
