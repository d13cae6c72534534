// The C interface's capture: frames and status blocks to the host's C callbacks.
#include "facade/capi/CApiCard.h"
#include "facade/capi/CApiErrors.h"
#include "facade/CaptureRequest.h"
#include "facade/ErrorText.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <QByteArray>
#include <QString>

#include <functional>

using kvpcie::capi::BadChannel;
using kvpcie::capi::ChannelValid;
using kvpcie::capi::Fail;
using kvpcie::capi::Guarded;
using kvpcie::capi::Succeed;

namespace {

// On the polling thread, per frame: no allocation, no lock.
void DeliverFrame(int /*channel*/, const char* frame, void* userContext, bool errorFrame) {
    auto& slot = *static_cast<kvpcie_card::CaptureSlot*>(userContext);
    slot.delivering.fetch_add(1, std::memory_order_acq_rel);
    if (!slot.card->closing.load(std::memory_order_acquire)) {
        kvpcie_frame delivered = slot.frame;
        delivered.data = frame;
        delivered.error_frame = errorFrame ? 1 : 0;
        const kvpcie_frame_callback callback = slot.callback;
        void* const context = slot.context;
        kvpcie::capi::EnterFrameCallback(slot.card);
        callback(&delivered, context);
        kvpcie::capi::EnterFrameCallback(nullptr);
    }
    // The last touch of the slot: a close that waits for it may free the handle at once.
    slot.delivering.fetch_sub(1, std::memory_order_acq_rel);
}

void DeliverFrameToNobody(int, const char*, void*, bool) {}

// On the card thread, from the status timer.
void DeliverStatus(int channel, const QByteArray& data, void* userContext) {
    auto& slot = *static_cast<kvpcie_card::StatusSlot*>(userContext);
    const kvpcie_status_callback callback = slot.callback;
    if (callback != nullptr && !slot.card->closing.load(std::memory_order_acquire)) {
        callback(channel, data.constData(), static_cast<size_t>(data.size()), slot.context);
    }
}

// The common checks of the capture calls: an XDMA handle, a channel, not in a frame callback.
kvpcie_status CheckCaptureCall(kvpcie_card* card, int32_t channel) {
    if (const kvpcie_status refused = kvpcie::capi::RequireXdmaChannel(card, channel)) {
        return refused;
    }
    return kvpcie::capi::RequireNotInFrameCallback();
}

}  // namespace

namespace {

// Recording and snapshots of a channel this handle captures.
template <typename Operation>
kvpcie_status OnCapturingChannel(kvpcie_card* card, int32_t channel, const char* what,
                                 Operation operation) {
    return Guarded([&] {
        if (const kvpcie_status refused = CheckCaptureCall(card, channel)) {
            return refused;
        }
        if (!card->capture[channel].claimed) {
            return Fail(KVPCIE_ERROR, std::string(what) + ": this handle does not capture on "
                                          "channel " + std::to_string(channel));
        }
        bool done = false;
        std::string text;
        kvpcie::capi::RunOnCard(card, text,
                                [&](PCIeDataManager& manager) { done = operation(manager); });
        return done ? Succeed() : Fail(KVPCIE_ERROR, text);
    });
}

}  // namespace

namespace kvpcie::capi {

kvpcie_status StartChannel(kvpcie_card* card, int32_t channel, int32_t card_timing, int32_t width,
                           int32_t height, int32_t pixel_type,
                           const std::function<char*(kvpcie_card::CaptureSlot&)>& prepare,
                           CaptureFrameCallbackEx deliver) {
    if (const kvpcie_status refused = CheckCaptureCall(card, channel)) {
        return refused;
    }
    // The format before the buffer: a host that got 0 from kvpcie_frame_bytes has no buffer.
    if (!IsCaptureFormatAcceptable(static_cast<unsigned>(channel), width, height,
                                   static_cast<ePixelType>(pixel_type))) {
        return Fail(KVPCIE_NO_CARD, kvpcie::ErrorText());
    }
    kvpcie_card::CaptureSlot& slot = card->capture[channel];
    const auto claim = [&] {
        if (slot.claimed) {
            return true;
        }
        if (!card->lease->Claim(KvPCIe::SharedCard::Direction::Capture,
                                static_cast<unsigned>(channel))) {
            return false;
        }
        slot.claimed = true;
        return true;
    };
    const auto inUse = [channel] {
        return Fail(KVPCIE_IN_USE, "another handle captures on channel " + std::to_string(channel));
    };
    if (!claim()) {
        return inUse();
    }
    bool claimed = true;
    bool started = false;
    bool noBuffer = false;
    eErrorCode error = ERR_NO_CARD;
    std::string text;
    kvpcie::capi::RunOnCard(card, text, [&](PCIeDataManager& manager) {
        // A restart starts clean: the old run's callback is gone before the slot changes.
        manager.StopCapture(channel);
        kvpcie::capi::WaitForDeliveries(slot);
        // That callback may have stopped the channel and given it back meanwhile.
        claimed = claim();
        if (!claimed) {
            return;
        }
        // The old run's pulls end with it; its queue goes (pullers keep it until they return).
        {
            std::lock_guard<std::mutex> guard(slot.pullLock);
            if (slot.pull) {
                slot.pull->Stop();
                slot.pull.reset();
            }
            slot.pullTarget = nullptr;
        }
        slot.callback = nullptr;
        slot.context = nullptr;
        char* const buffer = prepare(slot);
        if (buffer == nullptr) {
            noBuffer = true;
            return;
        }
        slot.frame = kvpcie_frame{};
        slot.frame.size = sizeof(kvpcie_frame);
        slot.frame.channel = channel;
        slot.frame.bytes = kvpcie_frame_bytes(pixel_type, width, height);
        slot.frame.width = width;
        slot.frame.height = height;
        slot.frame.pixel_type = pixel_type;
        started = manager.StartCapture(static_cast<unsigned>(channel), card_timing != 0, width,
                                       height, static_cast<ePixelType>(pixel_type), error, deliver,
                                       &slot, buffer);
    });
    if (!claimed) {
        return inUse();
    }
    if (!started) {
        if (slot.claimed.exchange(false)) {
            card->lease->Unclaim(KvPCIe::SharedCard::Direction::Capture,
                                 static_cast<unsigned>(channel));
        }
        if (noBuffer) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the frame buffer is null");
        }
        return Fail(card->lease->IsLost() ? KVPCIE_CARD_LOST : KVPCIE_NO_CARD, text);
    }
    return Succeed();
}

}  // namespace kvpcie::capi

extern "C" {

kvpcie_status KVPCIE_CALL kvpcie_start_capture(kvpcie_card* card, int32_t channel,
                                               int32_t card_timing, int32_t width, int32_t height,
                                               int32_t pixel_type, void* frame_buffer,
                                               kvpcie_frame_callback callback, void* context) {
    return Guarded([&] {
        // Refused before anything changes: a running channel keeps running.
        if (const kvpcie_status refused = CheckCaptureCall(card, channel)) {
            return refused;
        }
        // The format before the buffer: a host that got 0 from kvpcie_frame_bytes has no buffer.
        if (!IsCaptureFormatAcceptable(static_cast<unsigned>(channel), width, height,
                                       static_cast<ePixelType>(pixel_type))) {
            return Fail(KVPCIE_NO_CARD, kvpcie::ErrorText());
        }
        if (frame_buffer == nullptr) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the frame buffer is null");
        }
        return kvpcie::capi::StartChannel(
            card, channel, card_timing, width, height, pixel_type,
            [&](kvpcie_card::CaptureSlot& slot) -> char* {
                slot.callback = callback;
                slot.context = context;
                return static_cast<char*>(frame_buffer);
            },
            callback != nullptr ? DeliverFrame : DeliverFrameToNobody);
    });
}

kvpcie_status KVPCIE_CALL kvpcie_stop_capture(kvpcie_card* card, int32_t channel) {
    return Guarded([&] {
        if (const kvpcie_status refused = kvpcie::capi::RequireXdma(card)) {
            return refused;
        }
        if (!ChannelValid(channel)) {
            return BadChannel(channel);
        }
        kvpcie_card::CaptureSlot& slot = card->capture[channel];
        if (slot.claimed && kvpcie::capi::InFrameCallback()) {
            kvpcie::capi::StopCaptureInFrameCallback(card, channel);
            return Succeed();
        }
        if (const kvpcie_status refused = kvpcie::capi::RequireNotInFrameCallback()) {
            return refused;
        }
        if (slot.claimed) {
            card->lease->Run([&](PCIeDataManager& manager) { manager.StopCapture(channel); });
            if (slot.claimed.exchange(false)) {
                card->lease->Unclaim(KvPCIe::SharedCard::Direction::Capture,
                                     static_cast<unsigned>(channel));
            }
        }
        // Stopped by its own callback, which may still run.
        kvpcie::capi::WaitForDeliveries(slot);
        kvpcie::capi::StopPulls(slot);
        return Succeed();
    });
}

int32_t KVPCIE_CALL kvpcie_is_capturing(kvpcie_card* card, int32_t channel) {
    bool capturing = false;
    Guarded([&] {
        if (const kvpcie_status refused = CheckCaptureCall(card, channel)) {
            return refused;
        }
        if (card->capture[channel].claimed) {
            card->lease->Run(
                [&](PCIeDataManager& manager) { capturing = manager.IsStartCapture(channel); });
        }
        return Succeed();
    });
    return capturing ? 1 : 0;
}


kvpcie_status KVPCIE_CALL kvpcie_start_record(kvpcie_card* card, int32_t channel) {
    return OnCapturingChannel(card, channel, "recording", [channel](PCIeDataManager& manager) {
        return manager.StartRecord(channel);
    });
}

kvpcie_status KVPCIE_CALL kvpcie_stop_record(kvpcie_card* card, int32_t channel) {
    return OnCapturingChannel(card, channel, "recording", [channel](PCIeDataManager& manager) {
        manager.StopRecord(channel);
        return true;
    });
}

kvpcie_status KVPCIE_CALL kvpcie_record_take_folder(kvpcie_card* card, int32_t channel,
                                                    char* folder, size_t capacity) {
    return Guarded([&] {
        if (const kvpcie_status refused = kvpcie::capi::RequireXdmaChannel(card, channel)) {
            return refused;
        }
        // The engine's take is read on the card thread, which a frame callback may hold up.
        if (const kvpcie_status refused = kvpcie::capi::RequireNotInFrameCallback()) {
            return refused;
        }
        std::string take;
        std::string text;
        kvpcie::capi::RunOnCard(card, text, [&](PCIeDataManager& manager) {
            take = manager.GetRecordTakeFolder(channel).toUtf8().toStdString();
        });
        return kvpcie::capi::CopyText(take, folder, capacity);
    });
}

kvpcie_status KVPCIE_CALL kvpcie_snapshot(kvpcie_card* card, int32_t channel) {
    return OnCapturingChannel(card, channel, "a snapshot", [channel](PCIeDataManager& manager) {
        manager.ImgSnapShot(channel);
        return true;
    });
}

kvpcie_status KVPCIE_CALL kvpcie_set_save_log(kvpcie_card* card, int32_t on) {
    return Guarded([&] {
        if (const kvpcie_status refused = kvpcie::capi::RequireXdma(card)) {
            return refused;
        }
        if (const kvpcie_status refused = kvpcie::capi::RequireNotInFrameCallback()) {
            return refused;
        }
        std::string text;
        kvpcie::capi::RunOnCard(card, text,
                                [&](PCIeDataManager& manager) { manager.SetSaveLog(on != 0); });
        return Succeed();
    });
}

kvpcie_status KVPCIE_CALL kvpcie_set_display_delay_test(kvpcie_card* card, int32_t channel,
                                                        int32_t on) {
    return Guarded([&] {
        if (const kvpcie_status refused = CheckCaptureCall(card, channel)) {
            return refused;
        }
        std::string text;
        kvpcie::capi::RunOnCard(card, text, [&](PCIeDataManager& manager) {
            manager.SetImgDisplayDelayTest(channel, on != 0);
        });
        return Succeed();
    });
}

kvpcie_status KVPCIE_CALL kvpcie_set_status_callback(kvpcie_card* card, int32_t channel,
                                                     kvpcie_status_callback callback,
                                                     void* context) {
    return Guarded([&] {
        if (const kvpcie_status refused = CheckCaptureCall(card, channel)) {
            return refused;
        }
        kvpcie_card::StatusSlot& slot = card->status[channel];
        std::string text;
        kvpcie::capi::RunOnCard(card, text, [&](PCIeDataManager& manager) {
            // Status blocks come on this thread: the slot changes between two deliveries.
            slot.callback = callback;
            slot.context = context;
            manager.SetSystemStatusCallback(channel, callback != nullptr ? DeliverStatus : nullptr,
                                            &slot, callback != nullptr);
        });
        return Succeed();
    });
}

}  // extern "C"
