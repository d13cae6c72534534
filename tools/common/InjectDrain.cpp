// Waiting for an inject channel's queue to empty and its last frames to play.
#include "InjectDrain.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <thread>

namespace kvpcie::tools {
namespace {

constexpr std::uint64_t kCardBuffers = 8;

}  // namespace

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
    // The card plays its buffers in ring order, and a buffer goes back to it (with the newest
    // frame again, the queue being dry) only once it has played: eight such returns after the
    // last frame went over mean the last frame has played, however late the card's clock ran.
    if (stats.framesToCard == 0) {
        return;  // nothing went to the card: nothing to play
    }
    const std::uint64_t dryBefore = stats.periodsWithoutFrame;
    while (!interrupted() && Clock::now() < limit &&
           manager.GetInjectStatistics(channel, stats) &&
           stats.periodsWithoutFrame < dryBefore + kCardBuffers) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace kvpcie::tools
