// One log line when losses begin and one when they have stopped for a second, instead of one
// per lost frame or block.
#pragma once

#include "Common/LogFile.h"

#include <chrono>
#include <cstdint>

namespace kvpcie::xdma {

// Losses of one kind on one channel, kept by the one thread that notes them.
struct LossBurst {
    std::uint64_t count = 0;  // lost in the burst so far; 0: no burst
    std::chrono::steady_clock::time_point lastLoss{};
};

// Notes `lost` losses (0: an outcome without loss).
inline void LogLossBurst(LogFile& log, LossBurst& burst, std::uint64_t lost, int channel,
                         const char* begins, const char* ended) {
    constexpr auto kQuiet = std::chrono::seconds(1);
    if (lost == 0 && burst.count == 0) {
        return;  // the frame path's usual case: no clock read
    }
    const auto now = std::chrono::steady_clock::now();
    if (lost > 0) {
        if (burst.count == 0) {
            log.WriteLog("channel %d: %s", channel, begins);
        }
        burst.count += lost;
        burst.lastLoss = now;
    } else if (burst.count > 0 && now - burst.lastLoss >= kQuiet) {
        log.WriteLog("channel %d: %llu %s", channel, static_cast<unsigned long long>(burst.count),
                     ended);
        burst.count = 0;
    }
}

}  // namespace kvpcie::xdma
