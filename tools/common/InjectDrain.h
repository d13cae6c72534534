// Waiting until the frames queued on an inject channel have been played, before a stop drops
// them: the queue (15 frames) empties into the card's eight buffers, which play one per period.
#pragma once

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <functional>

namespace kvpcie::tools {

// Waits until the channel's queue is empty, then until the card has given back each of its
// eight buffers once more (so the last frame has played): at most for all the frames' periods
// and a second. Returns early when `interrupted` says so (it is asked every few
// milliseconds). `frameRate` is the channel's (1 or more).
void WaitUntilQueuedFramesPlayed(PCIeDataManager& manager, int channel, int frameRate,
                                 const std::function<bool()>& interrupted);

}  // namespace kvpcie::tools
