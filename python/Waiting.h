// How the module's blocking calls wait: to a deadline that any non-negative time-out gives
// (infinity included), in slices short enough that Ctrl-C reaches the script promptly.
#pragma once

#include <pybind11/pybind11.h>

#include <chrono>
#include <optional>
#include <string>

namespace kvpcie::python {

using WaitClock = std::chrono::steady_clock;

// The longest stretch a waiting call sleeps before it looks for a signal.
constexpr std::chrono::milliseconds kSignalSlice{50};

// ValueError unless `seconds` is 0 or more (NaN is not).
inline void CheckTimeout(double seconds, const char* name = "timeout") {
    if (!(seconds >= 0)) {
        throw pybind11::value_error(std::string(name) + " must be 0 or more seconds");
    }
}

// Now + `seconds`; none (no limit) for a time-out beyond what the clock can hold.
inline std::optional<WaitClock::time_point> DeadlineAfter(std::optional<double> seconds) {
    // A century is no limit; past it a duration of the clock's ticks overflows.
    constexpr double kNoLimit = 100.0 * 365 * 24 * 3600;
    if (!seconds || *seconds >= kNoLimit) {
        return std::nullopt;
    }
    return WaitClock::now() +
           std::chrono::duration_cast<WaitClock::duration>(std::chrono::duration<double>(*seconds));
}

// The end of the next slice of a wait for `deadline`.
inline WaitClock::time_point SliceEnd(const std::optional<WaitClock::time_point>& deadline) {
    const auto slice = WaitClock::now() + kSignalSlice;
    return deadline && *deadline < slice ? *deadline : slice;
}

// Called without the GIL: takes it and raises what a pending signal raised (KeyboardInterrupt
// for Ctrl-C). Only the main thread receives signals; elsewhere this does nothing.
inline void RaisePendingSignal() {
    pybind11::gil_scoped_acquire gil;
    if (PyErr_CheckSignals() != 0) {
        throw pybind11::error_already_set();
    }
}

// For loops that wait in short steps of their own: looks for a signal once per slice.
class SignalPoll {
public:
    // Without the GIL; raises as RaisePendingSignal does.
    void operator()() {
        const auto now = WaitClock::now();
        if (now >= next_) {
            next_ = now + kSignalSlice;
            RaisePendingSignal();
        }
    }

private:
    WaitClock::time_point next_ = WaitClock::now() + kSignalSlice;
};

}  // namespace kvpcie::python
