// The C interface's card handles: open, close, registers and card memory.
#include "facade/capi/CApiCard.h"

#include "facade/capi/CApiErrors.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <chrono>
#include <new>
#include <thread>

using kvpcie::capi::Fail;
using kvpcie::capi::Guarded;
using kvpcie::capi::Succeed;

namespace kvpcie::capi {
namespace {

thread_local const kvpcie_card* frameCallbackOf = nullptr;

}  // namespace

kvpcie_status RequireXdma(const kvpcie_card* card) {
    if (card == nullptr) {
        return Fail(KVPCIE_BAD_ARGUMENT, "the card handle is null");
    }
    if (card->riffa) {
        return Fail(KVPCIE_WRONG_KIND, "a RIFFA device has registers only");
    }
    return KVPCIE_OK;
}

kvpcie_status RequireXdmaChannel(const kvpcie_card* card, int32_t channel) {
    if (const kvpcie_status refused = RequireXdma(card)) {
        return refused;
    }
    return ChannelValid(channel) ? KVPCIE_OK : BadChannel(channel);
}

kvpcie_status FailureStatus(kvpcie_card* card) {
    return card->lease->IsLost() ? KVPCIE_CARD_LOST : KVPCIE_ERROR;
}

kvpcie_status RequireNotInFrameCallback() {
    if (frameCallbackOf != nullptr) {
        return Fail(KVPCIE_ERROR,
                    "not from inside a frame callback: it would wait for the card thread");
    }
    return KVPCIE_OK;
}

void EnterFrameCallback(const kvpcie_card* card) {
    frameCallbackOf = card;
}

bool InFrameCallback() {
    return frameCallbackOf != nullptr;
}

bool InFrameCallbackOfCard(const kvpcie_card* card) {
    return frameCallbackOf != nullptr && !card->riffa &&
           frameCallbackOf->lease->Path() == card->lease->Path();
}

void StopCaptureInFrameCallback(kvpcie_card* card, int channel) {
    kvpcie_card::CaptureSlot& slot = card->capture[channel];
    if (!slot.claimed) {
        return;
    }
    // The library takes a stop from inside a frame callback on the polling thread itself; it
    // takes effect when the callback returns.
    card->lease->AnyThreadManager().StopCapture(channel);
    StopPulls(slot);
    // Whoever clears the flag gives the channel back: the card thread may stop it too.
    if (slot.claimed.exchange(false)) {
        card->lease->Unclaim(KvPCIe::SharedCard::Direction::Capture,
                             static_cast<unsigned>(channel));
    }
}

void WaitForDeliveries(kvpcie_card::CaptureSlot& slot) {
    while (slot.delivering.load(std::memory_order_acquire) != 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

void StopPulls(kvpcie_card::CaptureSlot& slot) {
    std::lock_guard<std::mutex> guard(slot.pullLock);
    if (slot.pull) {
        slot.pull->Stop();
    }
}

void StopEverything(kvpcie_card* card) {
    for (int channel = 0; channel < KVPCIE_CHANNELS; ++channel) {
        kvpcie_card::CaptureSlot& capture = card->capture[channel];
        const bool statusSet = card->status[channel].callback != nullptr;
        const bool injecting = card->injectClaimed[channel];
        if (!capture.claimed && !statusSet && !injecting) {
            continue;
        }
        card->lease->Run([&](PCIeDataManager& manager) {
            if (statusSet) {
                manager.SetSystemStatusCallback(channel, nullptr, nullptr, false);
            }
            if (capture.claimed) {
                manager.StopCapture(channel);
            }
            if (injecting) {
                manager.StopInject(channel);
            }
        });
        card->status[channel].callback = nullptr;
        // Whoever clears the flag gives the channel back: a frame callback may stop it too.
        if (capture.claimed.exchange(false)) {
            card->lease->Unclaim(KvPCIe::SharedCard::Direction::Capture, channel);
        }
        if (card->injectClaimed[channel].exchange(false)) {
            card->lease->Unclaim(KvPCIe::SharedCard::Direction::Inject, channel);
        }
    }
    // A channel that its own callback stopped was skipped above; that callback may still run.
    for (kvpcie_card::CaptureSlot& capture : card->capture) {
        WaitForDeliveries(capture);
        StopPulls(capture);
    }
}

}  // namespace kvpcie::capi

namespace {

// The lease ends with the handle: the last one closes the card or the RIFFA device.
void CloseNow(kvpcie_card* card) {
    if (!card->riffa) {
        kvpcie::capi::StopEverything(card);
    }
    // Pulls that wait end now (the handle is closing); those under way return first.
    for (kvpcie_card::CaptureSlot& capture : card->capture) {
        kvpcie::capi::StopPulls(capture);
    }
    while (card->pulling.load(std::memory_order_acquire) != 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    delete card;
}

}  // namespace

namespace {

kvpcie_status MoveData(kvpcie_card* card, uint32_t address, void* buffer, uint32_t bytes,
                       bool write) {
    return Guarded([&] {
        if (const kvpcie_status refused = kvpcie::capi::RequireXdma(card)) {
            return refused;
        }
        if (buffer == nullptr) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the buffer is null");
        }
        if (kvpcie::capi::RequireNotInFrameCallback() != KVPCIE_OK) {
            return KVPCIE_ERROR;
        }
        bool moved = false;
        std::string text;
        kvpcie::capi::RunOnCard(card, text, [&](PCIeDataManager& manager) {
            auto* bytesAt = static_cast<unsigned char*>(buffer);
            moved = write ? manager.WriteData(address, bytes, bytesAt)
                          : manager.ReadData(address, bytes, bytesAt);
        });
        return moved ? Succeed()
                     : Fail(kvpcie::capi::FailureStatus(card),
                            text.empty() ? "the card memory transfer failed" : text);
    });
}

}  // namespace

extern "C" {

kvpcie_card* KVPCIE_CALL kvpcie_open(const char* path) {
    kvpcie_card* opened = nullptr;
    Guarded([&] {
        if (kvpcie::capi::RequireNotInFrameCallback() != KVPCIE_OK) {
            return KVPCIE_ERROR;
        }
        std::string error;
        std::unique_ptr<KvPCIe::SharedCard> lease =
            KvPCIe::SharedCard::Acquire(path != nullptr ? path : "", error);
        if (!lease) {
            return Fail(KVPCIE_NO_CARD, error);
        }
        auto card = std::make_unique<kvpcie_card>();
        card->path = lease->Path();
        card->lease = std::move(lease);
        for (int channel = 0; channel < KVPCIE_CHANNELS; ++channel) {
            card->capture[channel].card = card.get();
            card->capture[channel].channel = channel;
            card->status[channel].card = card.get();
        }
        opened = card.release();
        return Succeed();
    });
    return opened;
}

kvpcie_card* KVPCIE_CALL kvpcie_open_riffa(int32_t index) {
    kvpcie_card* opened = nullptr;
    Guarded([&] {
        if (kvpcie::capi::RequireNotInFrameCallback() != KVPCIE_OK) {
            return KVPCIE_ERROR;
        }
        std::string error;
        std::unique_ptr<KvPCIe::SharedCard> lease =
            KvPCIe::SharedCard::AcquireRiffa(static_cast<int>(index), error);
        if (!lease) {
            return Fail(KVPCIE_NO_CARD, error);
        }
        auto card = std::make_unique<kvpcie_card>();
        card->lease = std::move(lease);
        card->riffa = true;
        opened = card.release();
        return Succeed();
    });
    return opened;
}

void KVPCIE_CALL kvpcie_close(kvpcie_card* card) {
    if (card == nullptr) {
        return;
    }
    Guarded([&] {
        // No callback of the handle is called from here on, whatever the card thread is busy
        // with; a callback that runs now on another thread finishes.
        card->closing.store(true, std::memory_order_release);
        // From a callback of its own, the close follows on the card thread once the callback
        // has returned: closing there and then would wait for the callback itself.
        if (kvpcie::capi::InFrameCallback() || KvPCIe::CardThread::IsCurrent()) {
            // On the polling thread of the handle's own card its channels stop here, as a stop
            // in a callback does: the card writes into its buffers no more once the callback
            // returns, whatever the card thread is busy with.
            if (kvpcie::capi::InFrameCallbackOfCard(card)) {
                for (int channel = 0; channel < KVPCIE_CHANNELS; ++channel) {
                    kvpcie::capi::StopCaptureInFrameCallback(card, channel);
                }
            }
            KvPCIe::CardThread::Hold();
            KvPCIe::CardThread::Post([card] {
                CloseNow(card);
                KvPCIe::CardThread::Release();
            });
            return Succeed();
        }
        CloseNow(card);
        return Succeed();
    });
}

const char* KVPCIE_CALL kvpcie_card_path(const kvpcie_card* card) {
    return card != nullptr ? card->path.c_str() : "";
}

kvpcie_status KVPCIE_CALL kvpcie_set_card_lost_callback(kvpcie_card* card,
                                                        kvpcie_card_lost_callback callback,
                                                        void* context) {
    return Guarded([&] {
        if (card == nullptr) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the card handle is null");
        }
        if (callback == nullptr) {
            card->lease->SetLostCallback(nullptr);
            return Succeed();
        }
        // The handle outlives the lease's callback: the lease goes with the handle.
        card->lease->SetLostCallback([card, callback, context] {
            if (!card->closing.load(std::memory_order_acquire)) {
                callback(card->path.c_str(), context);
            }
        });
        return Succeed();
    });
}

int32_t KVPCIE_CALL kvpcie_is_card_lost(kvpcie_card* card) {
    int32_t lost = 0;
    Guarded([&] {
        lost = card != nullptr && card->lease->IsLost() ? 1 : 0;
        return KVPCIE_OK;
    });
    return lost;
}

kvpcie_status KVPCIE_CALL kvpcie_read_reg(kvpcie_card* card, uint32_t address, uint32_t* value) {
    return Guarded([&] {
        if (card == nullptr || value == nullptr) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the card handle or the value pointer is null");
        }
        if (kvpcie::capi::RequireNotInFrameCallback() != KVPCIE_OK) {
            return KVPCIE_ERROR;
        }
        bool read = false;
        std::string text;
        kvpcie::capi::RunOnCard(card, text,
                                [&](PCIeDataManager& manager) { read = manager.ReadReg(address, *value); });
        return read ? Succeed()
                    : Fail(kvpcie::capi::FailureStatus(card),
                           text.empty() ? "the register read failed" : text);
    });
}

kvpcie_status KVPCIE_CALL kvpcie_write_reg(kvpcie_card* card, uint32_t address, uint32_t value) {
    return Guarded([&] {
        if (card == nullptr) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the card handle is null");
        }
        if (kvpcie::capi::RequireNotInFrameCallback() != KVPCIE_OK) {
            return KVPCIE_ERROR;
        }
        if (card->riffa) {
            // The RIFFA device's write gives no result.
            card->lease->Run(
                [&](PCIeDataManager& manager) { manager.WriteReg(address, static_cast<int>(value)); });
            return Succeed();
        }
        int moved = 0;
        std::string text;
        kvpcie::capi::RunOnCard(card, text, [&](PCIeDataManager& manager) {
            moved = manager.WriteReg(address, static_cast<int>(value));
        });
        return moved == 4 ? Succeed()
                          : Fail(kvpcie::capi::FailureStatus(card),
                                 text.empty() ? "the register write failed (result " +
                                                    std::to_string(moved) + ")"
                                              : text);
    });
}


kvpcie_status KVPCIE_CALL kvpcie_read_data(kvpcie_card* card, uint32_t address, void* buffer,
                                           uint32_t bytes) {
    return MoveData(card, address, buffer, bytes, false);
}

kvpcie_status KVPCIE_CALL kvpcie_write_data(kvpcie_card* card, uint32_t address,
                                            const void* buffer, uint32_t bytes) {
    // WriteData takes a non-const pointer but only reads the buffer.
    return MoveData(card, address, const_cast<void*>(buffer), bytes, true);
}

}  // extern "C"
