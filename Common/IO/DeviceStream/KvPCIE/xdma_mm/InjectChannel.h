// One inject channel of an XDMA card: the host frames queued for it, its card buffer ring and
// the schedule on which the inject worker refills that ring.
#pragma once

#include "StreamCounters.h"
#include "XdmaDevice.h"

#include "Common/KvCycleQueue.h"

#include <KvPCIeInjectSdk/KvPCIeStatistics.h>
#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

namespace kvpcie::xdma {

// The host's control thread programs, starts, queues into and stops the channel; the inject
// worker serves it. The turn lock is held by the worker while it hands a buffer over and by
// the host while it replaces or resets the channel's state, so a stop never takes effect in
// the middle of a handshake. Only the control thread creates or drops the queue.
class InjectChannel {
public:
    using Clock = std::chrono::steady_clock;

    InjectChannel(XdmaCard& card, int channel) : card_(card), channel_(channel) {}
    InjectChannel(const InjectChannel&) = delete;
    InjectChannel& operator=(const InjectChannel&) = delete;

    // Sizes the frames and the queue for `format` and writes the channel's register block;
    // false (the card untouched) when no queue can be had.
    bool Program(const KvFrameFormat& format);
    // From here the worker serves the channel; the frame counts start again.
    void BeginRun();
    // False with `error` = ERR_QUEUE_FULL when the queue holds its limit, false with `error`
    // untouched when the channel has no queue.
    bool Queue(const char* frameData, eErrorCode& error);
    // The worker no longer touches the channel once it returns; queued frames are dropped.
    void Stop();
    bool IsInjecting() const { return injecting_.load(std::memory_order_acquire); }

    // The parameter line counts from the next start; Stop clears it.
    void SetParamSimulate(bool enable, const tagThermalImgParams& params);
    bool ParamSimulate() const { return paramSimulate_; }
    bool HasFormat() const { return hasFormat_; }
    const KvFrameFormat& Format() const { return format_; }

    // Worker: steps the ring by at most one buffer; true when a buffer was handed over.
    // Otherwise `wake` is brought forward to when the channel is worth looking at again.
    bool Serve(Clock::time_point now, Clock::time_point& wake);

    void AddTo(KvInjectStatistics& out);

private:
    // Whether to look at the next buffer now: not before shortly ahead of its due release.
    bool Due(Clock::time_point now, Clock::time_point& wake);
    // The card released a buffer that the worker had watched: the next is due a period later.
    void NoteRelease(Clock::time_point now);

    XdmaCard& card_;
    const int channel_;
    std::mutex turnLock_;
    std::atomic<bool> injecting_{false};
    bool hasFormat_ = false;
    KvFrameFormat format_;
    int lastBufferIndex_ = -1;
    bool paramSimulate_ = false;
    bool hasThermalParams_ = false;
    tagThermalImgParams thermalParams_{};
    int imageSize_ = 0;
    int frameSize_ = 0;
    int transferSize_ = 0;
    std::unique_ptr<KvCycleQueue> queue_;
    // The slot of the frame handed over last (valid until the worker's next take), which goes
    // back to the card again when the queue is dry; none until the run's first frame.
    char* newestFrame_ = nullptr;
    std::uint32_t frameCounter_ = 0;
    InjectCounters counters_;
    // The refill schedule (reset with each run): when the card's next release is due, whether
    // the worker found the next buffer busy, and until when there is nothing to look at.
    std::optional<Clock::time_point> expectedRelease_;
    bool sawBusy_ = false;
    Clock::time_point quietUntil_{};
};

}  // namespace kvpcie::xdma
