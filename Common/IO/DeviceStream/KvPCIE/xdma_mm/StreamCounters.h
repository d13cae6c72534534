// The running counts behind the stream statistics. The frame paths only add to relaxed
// atomics: no lock and no allocation per frame, and a reader on another thread sees each count
// whole (the counts of one reading need not be from the same instant).
#pragma once

#include <KvPCIeInjectSdk/KvPCIeStatistics.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>

namespace kvpcie::xdma {

class RelaxedCount {
public:
    void Add(std::uint64_t n = 1) { value_.fetch_add(n, std::memory_order_relaxed); }
    void Raise(std::uint64_t n) {
        std::uint64_t seen = value_.load(std::memory_order_relaxed);
        while (n > seen && !value_.compare_exchange_weak(seen, n, std::memory_order_relaxed)) {
        }
    }
    void Set(std::uint64_t n) { value_.store(n, std::memory_order_relaxed); }
    std::uint64_t Get() const { return value_.load(std::memory_order_relaxed); }

private:
    std::atomic<std::uint64_t> value_{0};
};

// One capture channel. The polling thread adds; the host reads and resets (while the channel
// is not polled).
struct CaptureCounters {
    using Clock = std::chrono::steady_clock;

    RelaxedCount delivered;
    RelaxedCount failed;
    RelaxedCount errorFrames;
    RelaxedCount callbackMicrosMax;
    std::atomic<std::int32_t> lastCardBuffer{-1};
    std::atomic<double> framesPerSecond{0.0};

    void ResetFrames(Clock::time_point now) {
        delivered.Set(0);
        failed.Set(0);
        errorFrames.Set(0);
        callbackMicrosMax.Set(0);
        lastCardBuffer.store(-1, std::memory_order_relaxed);
        framesPerSecond.store(0.0, std::memory_order_relaxed);
        rateWindowStart_ = now;
        rateWindowDelivered_ = 0;
    }

    // Polling thread, on every pass over the channel: closes the one-second window of the rate.
    void UpdateRate(Clock::time_point now) {
        const auto span = now - rateWindowStart_;
        if (span < std::chrono::seconds(1)) {
            return;
        }
        const std::uint64_t count = delivered.Get();
        const double seconds = std::chrono::duration<double>(span).count();
        framesPerSecond.store(double(count - rateWindowDelivered_) / seconds,
                              std::memory_order_relaxed);
        rateWindowStart_ = now;
        rateWindowDelivered_ = count;
    }

private:
    // Touched by the polling thread during the channel's turn and by a reset under the same
    // turn lock.
    Clock::time_point rateWindowStart_{};
    std::uint64_t rateWindowDelivered_ = 0;
};

// One inject channel. The worker and StartInject add; the host reads and resets.
struct InjectCounters {
    RelaxedCount queued;
    RelaxedCount refused;
    RelaxedCount toCard;
    RelaxedCount transfersFailed;
    RelaxedCount droppedAtStop;
    RelaxedCount periodsWithoutFrame;

    void ResetFrames() {
        for (RelaxedCount* count :
             {&queued, &refused, &toCard, &transfersFailed, &droppedAtStop, &periodsWithoutFrame}) {
            count->Set(0);
        }
    }
};

// One channel's control commands, counted from the engine's creation.
struct CommandCounters {
    RelaxedCount sent;
    RelaxedCount notSentInTime;
    RelaxedCount replaced;
};

}  // namespace kvpcie::xdma
