// The C interface's pulled capture: frames kept in a queue for hosts that cannot take callbacks.
#include "facade/CaptureRequest.h"
#include "facade/ErrorText.h"
#include "facade/capi/CApiCard.h"
#include "facade/capi/CApiErrors.h"

#include <chrono>
#include <memory>

using kvpcie::capi::CopyOut;
using kvpcie::capi::Fail;
using kvpcie::capi::Guarded;
using kvpcie::capi::PullQueue;
using kvpcie::capi::Succeed;

namespace {

constexpr int32_t kMostQueuedFrames = 64;

// On the polling thread, per frame: one copy into a free slot of the queue.
void DeliverToQueue(int /*channel*/, const char* frame, void* userContext, bool errorFrame) {
    auto& slot = *static_cast<kvpcie_card::CaptureSlot*>(userContext);
    slot.delivering.fetch_add(1, std::memory_order_acq_rel);
    if (!slot.card->closing.load(std::memory_order_acquire)) {
        slot.pullTarget->Push(frame, errorFrame);
    }
    slot.delivering.fetch_sub(1, std::memory_order_acq_rel);
}

// Counts a kvpcie_pull in the handle for as long as it runs.
class PullInProgress {
public:
    explicit PullInProgress(kvpcie_card* card) : card_(card) {
        card_->pulling.fetch_add(1, std::memory_order_acq_rel);
    }
    ~PullInProgress() { card_->pulling.fetch_sub(1, std::memory_order_acq_rel); }
    PullInProgress(const PullInProgress&) = delete;
    PullInProgress& operator=(const PullInProgress&) = delete;

private:
    kvpcie_card* card_;
};

}  // namespace

extern "C" {

kvpcie_status KVPCIE_CALL kvpcie_start_pull(kvpcie_card* card, int32_t channel, int32_t card_timing,
                                            int32_t width, int32_t height, int32_t pixel_type,
                                            int32_t depth) {
    return Guarded([&] {
        if (const kvpcie_status refused = kvpcie::capi::RequireXdmaChannel(card, channel)) {
            return refused;
        }
        if (const kvpcie_status refused = kvpcie::capi::RequireNotInFrameCallback()) {
            return refused;
        }
        if (depth < 1 || depth > kMostQueuedFrames) {
            return Fail(KVPCIE_BAD_ARGUMENT,
                        "the queue holds 1 to 64 frames, not " + std::to_string(depth));
        }
        if (!IsCaptureFormatAcceptable(static_cast<unsigned>(channel), width, height,
                                       static_cast<ePixelType>(pixel_type))) {
            return Fail(KVPCIE_NO_CARD, kvpcie::ErrorText());
        }
        // Every buffer of the run is made here, on the caller's thread, before anything stops.
        auto queue = std::make_shared<PullQueue>(
            static_cast<std::size_t>(kvpcie_frame_bytes(pixel_type, width, height)), depth);
        return kvpcie::capi::StartChannel(
            card, channel, card_timing, width, height, pixel_type,
            [&](kvpcie_card::CaptureSlot& slot) -> char* {
                std::lock_guard<std::mutex> guard(slot.pullLock);
                slot.pull = queue;
                slot.pullWidth = width;
                slot.pullHeight = height;
                slot.pullPixelType = pixel_type;
                slot.pullTarget = queue.get();
                return queue->TransferBuffer();
            },
            DeliverToQueue);
    });
}

kvpcie_status KVPCIE_CALL kvpcie_pull(kvpcie_card* card, int32_t channel, void* buffer,
                                      uint64_t capacity, kvpcie_pulled_frame* frame,
                                      int32_t timeout_ms) {
    return Guarded([&] {
        if (const kvpcie_status refused = kvpcie::capi::RequireXdmaChannel(card, channel)) {
            return refused;
        }
        if (buffer == nullptr) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the buffer is null");
        }
        if (frame != nullptr && frame->size < sizeof(std::uint32_t)) {
            return Fail(KVPCIE_BAD_ARGUMENT, "set the record's size before the call");
        }
        if (timeout_ms < -1) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the time-out is -1 (no limit) or 0 ms and more");
        }
        if (const kvpcie_status refused = kvpcie::capi::RequireNotInFrameCallback()) {
            return refused;
        }
        const PullInProgress counted(card);
        if (card->closing.load(std::memory_order_acquire)) {
            return Fail(KVPCIE_STOPPED, "the handle is closing");
        }
        kvpcie_card::CaptureSlot& slot = card->capture[channel];
        std::shared_ptr<PullQueue> queue;
        kvpcie_pulled_frame ours{};
        {
            std::lock_guard<std::mutex> guard(slot.pullLock);
            queue = slot.pull;
            ours.width = slot.pullWidth;
            ours.height = slot.pullHeight;
            ours.pixel_type = slot.pullPixelType;
        }
        if (!queue) {
            return Fail(KVPCIE_ERROR, "channel " + std::to_string(channel) +
                                          " is not pulled: start it with kvpcie_start_pull");
        }
        PullQueue::Record record;
        switch (queue->Pull(buffer, capacity, record, std::chrono::milliseconds(timeout_ms))) {
            case PullQueue::Result::Timeout:
                return Fail(KVPCIE_TIMEOUT, "no frame of channel " + std::to_string(channel) +
                                                " came within " + std::to_string(timeout_ms) +
                                                " ms");
            case PullQueue::Result::Stopped:
                return Fail(KVPCIE_STOPPED, "channel " + std::to_string(channel) +
                                                " stopped and no frame of it waits");
            case PullQueue::Result::BufferTooSmall:
                return Fail(KVPCIE_BAD_ARGUMENT, "the buffer holds " + std::to_string(capacity) +
                                                     " bytes, a frame " +
                                                     std::to_string(queue->FrameBytes()));
            case PullQueue::Result::Frame:
                break;
        }
        if (frame == nullptr) {
            return Succeed();
        }
        ours.size = sizeof ours;
        ours.channel = channel;
        ours.bytes = queue->FrameBytes();
        ours.error_frame = record.errorFrame ? 1 : 0;
        ours.sequence = record.sequence;
        ours.received_ns = record.receivedNs;
        ours.frames_lost = record.framesLost;
        return CopyOut(ours, frame);
    });
}

}  // extern "C"
