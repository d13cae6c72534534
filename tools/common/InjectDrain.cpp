// Waiting for an inject channel's queue to empty and its last frames to play.
#include "InjectDrain.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace kvpcie::tools {

void WaitUntilQueuedFramesPlayed(PCIeDataManager& manager, int channel, int frameRate,
                                 const std::function<bool()>& interrupted) {
    using Clock = std::chrono::steady_clock;
    const auto period = std::chrono::milliseconds(1000) / std::max(frameRate, 1);
    const auto limit = Clock::now() + period * (15 + 8) + std::chrono::seconds(1);
    KvInjectStatistics stats;
    while (!interrupted() && Clock::now() < limit &&
           manager.GetInjectStatistics(channel, stats) && stats.framesWaiting > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const auto ringPlayed = std::min(limit, Clock::now() + period * 8);
    while (!interrupted() && Clock::now() < ringPlayed) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace kvpcie::tools
