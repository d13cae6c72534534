// What a kvpcie_card handle holds: its lease on the shared card or RIFFA device, and per channel
// what the C host gave for capture and status.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeSharedCard.h>
#include <KvPCIeInjectSdk/kvpcie.h>

#include "facade/capi/PullQueue.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

struct kvpcie_card {
    struct CaptureSlot {
        kvpcie_card* card = nullptr;
        int channel = 0;
        kvpcie_frame_callback callback = nullptr;
        void* context = nullptr;
        kvpcie_frame frame{};  // filled in once at the start; only data and the flag vary
        // Also cleared by a stop from inside the channel's own frame callback.
        std::atomic<bool> claimed{false};
        // Deliveries under way. A callback that stopped its channel runs on after the stop, so
        // a stop or close that finds the channel already stopped waits for this to be 0 before
        // the host may free what the callback uses.
        std::atomic<int> delivering{0};
        // A pulled channel: its queue, which the polling thread fills through `pullTarget`
        // (set while the channel is stopped, as the callback is). The queue outlives a stop,
        // so that what waits in it can still be pulled, until the next start replaces it.
        std::mutex pullLock;
        std::shared_ptr<kvpcie::capi::PullQueue> pull;
        int32_t pullWidth = 0;
        int32_t pullHeight = 0;
        int32_t pullPixelType = 0;
        kvpcie::capi::PullQueue* pullTarget = nullptr;
    };
    struct StatusSlot {
        kvpcie_card* card = nullptr;
        kvpcie_status_callback callback = nullptr;
        void* context = nullptr;
    };

    std::string path;
    std::unique_ptr<KvPCIe::SharedCard> lease;  // never null in a handle given out
    bool riffa = false;                          // a RIFFA device: registers only
    CaptureSlot capture[KVPCIE_CHANNELS];
    StatusSlot status[KVPCIE_CHANNELS];
    std::atomic<bool> injectClaimed[KVPCIE_CHANNELS] = {};  // also set from frame callbacks
    // Set by kvpcie_close before anything else: from then on no callback of the handle is
    // called, even while the rest of the close waits for the card thread.
    std::atomic<bool> closing{false};
    // kvpcie_pull calls under way: the close frees the handle only once they have returned.
    std::atomic<int> pulling{0};
};

namespace kvpcie::capi {

// KVPCIE_OK when `card` is an XDMA handle (else the status, with its text).
kvpcie_status RequireXdma(const kvpcie_card* card);
// KVPCIE_OK for an XDMA handle and a channel 0 to 3 (else the status, with its text).
kvpcie_status RequireXdmaChannel(const kvpcie_card* card, int32_t channel);
// What a call on the card that failed comes to: KVPCIE_CARD_LOST once the card is gone, else
// KVPCIE_ERROR.
kvpcie_status FailureStatus(kvpcie_card* card);
// Refuses a call that would wait for the card thread from inside a frame callback.
kvpcie_status RequireNotInFrameCallback();
// Marks the calling thread as inside a frame callback of `card` (null: outside).
void EnterFrameCallback(const kvpcie_card* card);
bool InFrameCallback();
// True inside a frame callback of a handle of the same card as `card` (its polling thread).
bool InFrameCallbackOfCard(const kvpcie_card* card);
// From inside a frame callback of the card: stops the channel if the handle captures there;
// the stop takes effect when the callback returns.
void StopCaptureInFrameCallback(kvpcie_card* card, int channel);

// Runs `operation` on the card thread; its error text becomes the calling thread's.
template <typename Operation>
void RunOnCard(kvpcie_card* card, std::string& errorText, Operation operation) {
    card->lease->Run([&](PCIeDataManager& manager) {
        operation(manager);
        errorText = manager.LastErrorText();
    });
}

// Returns once no delivery of the slot runs: the engine calls it no more once its channel has
// stopped, so only a delivery that began before can still be under way. Not from inside one.
void WaitForDeliveries(kvpcie_card::CaptureSlot& slot);

// Stops what the handle started on the card; the lease stays.
void StopEverything(kvpcie_card* card);
// Ends the waiting pulls of a channel that stopped: they return once the queue is empty.
void StopPulls(kvpcie_card::CaptureSlot& slot);

// Starts (or starts again) a capture channel of the handle on the card thread: `prepare` sets
// up the slot for the new run and returns the frame buffer the card writes into (null: refused
// as a null buffer); `deliver` gets each frame with the slot as its context.
kvpcie_status StartChannel(kvpcie_card* card, int32_t channel, int32_t card_timing, int32_t width,
                           int32_t height, int32_t pixel_type,
                           const std::function<char*(kvpcie_card::CaptureSlot&)>& prepare,
                           CaptureFrameCallbackEx deliver);

}  // namespace kvpcie::capi
