// What a kvpcie_card handle holds: its lease on the shared card (or its RIFFA manager), and per
// channel what the C host gave for capture and status.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeSharedCard.h>
#include <KvPCIeInjectSdk/kvpcie.h>

#include <atomic>
#include <memory>
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
    };
    struct StatusSlot {
        kvpcie_card* card = nullptr;
        kvpcie_status_callback callback = nullptr;
        void* context = nullptr;
    };

    std::string path;
    std::unique_ptr<KvPCIe::SharedCard> lease;    // XDMA
    std::unique_ptr<PCIeDataManager> riffa;       // RIFFA
    CaptureSlot capture[KVPCIE_CHANNELS];
    StatusSlot status[KVPCIE_CHANNELS];
    std::atomic<bool> injectClaimed[KVPCIE_CHANNELS] = {};  // also set from frame callbacks
};

namespace kvpcie::capi {

// KVPCIE_OK when `card` is an XDMA handle (else the status, with its text).
kvpcie_status RequireXdma(const kvpcie_card* card);
// Refuses a call that would wait for the card thread from inside a frame callback.
kvpcie_status RequireNotInFrameCallback();
// Marks the calling thread as inside a frame callback of `card` (null: outside).
void EnterFrameCallback(const kvpcie_card* card);
bool InFrameCallback();

// Runs `operation` on the card thread; its error text becomes the calling thread's.
template <typename Operation>
void RunOnCard(kvpcie_card* card, std::string& errorText, Operation operation) {
    card->lease->Run([&](PCIeDataManager& manager) {
        operation(manager);
        errorText = manager.LastErrorText();
    });
}

// Stops what the handle started on the card; the lease stays.
void StopEverything(kvpcie_card* card);

}  // namespace kvpcie::capi
