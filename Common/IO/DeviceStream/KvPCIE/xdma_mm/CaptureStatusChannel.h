// One capture channel's status data channel: the blocks the card posts in the channel's
// mailbox, collected by the engine's status thread and handed to the host by its timer.
#pragma once

#include "LossBurst.h"
#include "StatusDataBuffer.h"
#include "StreamCounters.h"
#include "XdmaDevice.h"

#include "Common/LogFile.h"

#include <KvPCIeInjectSdk/KvPCIeStatistics.h>
#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <cstdint>
#include <memory>
#include <mutex>

namespace kvpcie::xdma {

class CaptureStatusChannel {
public:
    CaptureStatusChannel(XdmaCard& card, int channel, LogFile& log)
        : card_(card), channel_(channel), log_(log) {}
    CaptureStatusChannel(const CaptureStatusChannel&) = delete;
    CaptureStatusChannel& operator=(const CaptureStatusChannel&) = delete;

    // Switching off loses the bytes taken from the card and not yet delivered (counted as
    // dropped).
    void Switch(SystemStatusCallback callback, void* userContext, bool enable);
    // Status thread: takes one block from the card's mailbox when the host listens.
    void Collect();
    // Control thread: hands what was collected to the callback.
    void Deliver();

    // The counts run from the engine's creation, not from a start of the channel.
    void AddTo(KvCaptureStatistics& out) const;

private:
    // True when a block was taken from the mailbox (kept or counted as dropped).
    bool ReadBlock(StatusDataBuffer& buffer);

    XdmaCard& card_;
    const int channel_;
    LogFile& log_;
    std::mutex lock_;
    SystemStatusCallback callback_ = nullptr;
    void* context_ = nullptr;
    // Shared with the status thread while it reads a block, so a switch-off may free it then.
    std::shared_ptr<StatusDataBuffer> buffer_;
    RelaxedCount bytesDelivered_;
    RelaxedCount bytesDropped_;
    LossBurst losses_;  // status thread
};

}  // namespace kvpcie::xdma
