// A probe of the machine under a measurement: a thread at a real-time priority above the
// library's, pinned to one core, sleeps 1 ms at a time and keeps its latest wake-up. When it
// too wakes milliseconds late, the core was taken from every thread on it (by the kernel, or by
// a virtual machine's host), not by the library's threads or locks, which it outranks. Linux.
#pragma once

#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <thread>

namespace kvpcie::bench {

class WakeProbe {
public:
    explicit WakeProbe(unsigned core) : thread_([this, core] { Run(core); }) {}
    ~WakeProbe() {
        running_.store(false);
        thread_.join();
    }
    WakeProbe(const WakeProbe&) = delete;
    WakeProbe& operator=(const WakeProbe&) = delete;

    // The latest wake-up so far, in milliseconds past its due time.
    double WorstLateMs() const { return worstLateNs_.load() / 1e6; }
    // False when the OS refused the priority: the probe then says little.
    bool RealTime() const { return realTime_.load(); }

private:
    static std::int64_t Now() {
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        return std::int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
    }

    void Run(unsigned core) {
        cpu_set_t cores;
        CPU_ZERO(&cores);
        CPU_SET(core, &cores);
        ::pthread_setaffinity_np(::pthread_self(), sizeof cores, &cores);
        // Above the library's polling and event threads, which take the lowest level.
        sched_param parameters{};
        parameters.sched_priority = ::sched_get_priority_min(SCHED_FIFO) + 10;
        realTime_.store(::pthread_setschedparam(::pthread_self(), SCHED_FIFO, &parameters) == 0);
        constexpr std::int64_t kPeriodNs = 1000000;
        while (running_.load()) {
            const std::int64_t due = Now() + kPeriodNs;
            const timespec pause{0, kPeriodNs};
            ::clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
            const std::int64_t late = Now() - due;
            worstLateNs_.store(std::max(worstLateNs_.load(), late));
        }
    }

    std::atomic<bool> running_{true};
    std::atomic<bool> realTime_{false};
    std::atomic<std::int64_t> worstLateNs_{0};
    std::thread thread_;  // last: it starts once the members above exist
};

}  // namespace kvpcie::bench
