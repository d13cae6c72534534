// The frame clock of one simulated channel: when its next frame or play is due, and a run number
// that changes at every start and stop, so that work begun before either can be thrown away.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace kvpcie::sim {

// Not thread-safe: the card calls it under its register mutex.
class SimFrameClock {
public:
    using Clock = std::chrono::steady_clock;
    using TimePoint = Clock::time_point;

    // The first tick comes one period from now; a zero period gives none.
    void Start(TimePoint now, Clock::duration period) {
        running_ = true;
        ++run_;
        deadline_.reset();
        if (period > Clock::duration::zero()) {
            deadline_ = now + period;
        }
    }
    void Stop() {
        running_ = false;
        ++run_;
        deadline_.reset();
    }
    bool Running() const { return running_; }
    // After the period changed: a clock that gave no ticks starts, a shorter period applies at
    // once.
    void Retime(TimePoint now, Clock::duration period) {
        if (!running_) {
            return;
        }
        if (period <= Clock::duration::zero()) {
            deadline_.reset();
        } else if (!deadline_ || *deadline_ > now + period) {
            deadline_ = now + period;
        }
    }
    // None while stopped or when the clock gives no ticks.
    std::optional<TimePoint> Deadline() const { return deadline_; }
    // After the tick due at `due`, served on waking at `wake`. On time the clock keeps its
    // phase; woken over a period late, it starts over rather than catching up in a burst.
    void Advance(TimePoint due, TimePoint wake, Clock::duration period) {
        if (!running_ || period <= Clock::duration::zero()) {
            deadline_.reset();
            return;
        }
        deadline_ = wake - due > period ? wake + period : due + period;
    }

    std::uint64_t Run() const { return run_; }
    // Whether the clock still runs the run that `run` was taken from.
    bool IsCurrent(std::uint64_t run) const { return running_ && run == run_; }

private:
    bool running_ = false;
    std::uint64_t run_ = 0;
    std::optional<TimePoint> deadline_;
};

}  // namespace kvpcie::sim
