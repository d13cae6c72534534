// What a kvpcie.Card and its capture streams share: the card's lease, the channels it plays
// frames on, its status callbacks and its open streams. Touched with the GIL held, except where
// a member says otherwise.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeSharedCard.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <pybind11/pybind11.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>

namespace kvpcie::python {

class CaptureStream;

struct StatusTarget {
    pybind11::object callback;  // null: off
};

struct InjectChannel {
    bool started = false;  // claimed, and StartInject took the first frame
    int inFlight = 0;      // inject() calls waiting on the card thread for this channel
    int width = 0;
    int height = 0;
    ePixelType type = Y8;
    int frameRate = 25;
};

// A copy of the card's lease that lets go of it without the GIL: the last one closes the card
// on the card thread, which may wait for a status callback that needs the GIL.
class CardLease {
public:
    explicit CardLease(std::shared_ptr<KvPCIe::SharedCard> card) : card_(std::move(card)) {}
    CardLease(CardLease&& other) noexcept = default;
    CardLease& operator=(CardLease&&) = delete;
    CardLease(const CardLease&) = delete;
    CardLease& operator=(const CardLease&) = delete;
    ~CardLease() { Reset(); }

    void Reset() {
        if (card_ && PyGILState_Check() != 0) {
            pybind11::gil_scoped_release release;
            card_.reset();
            return;
        }
        card_.reset();
    }
    explicit operator bool() const { return card_ != nullptr; }
    KvPCIe::SharedCard* operator->() const { return card_.get(); }

private:
    std::shared_ptr<KvPCIe::SharedCard> card_;
};

// kvpcie.CardLostError: a RuntimeError that says the card went away.
struct CardLostError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct CardCore {
    // Null once closed. Calls that let go of the GIL hold a copy, so that a close from another
    // thread never pulls the card from under them.
    std::shared_ptr<KvPCIe::SharedCard> card;
    // Set at the start of Close, from any thread; read on the card thread too.
    std::atomic<bool> closing{false};
    std::set<CaptureStream*> streams;
    std::array<InjectChannel, 4> inject{};
    // The library calls the status callback with a pointer to one of these on the card thread.
    std::array<StatusTarget, 4> status{};
    // Set on the card thread when the card is found gone; then the streams end with
    // CardLostError and on_lost's callback (GIL held) is called with the card's path.
    std::atomic<bool> lost{false};
    pybind11::object onLost;

    // On the card thread, GIL held: the card was found gone.
    void TellLost();
    // What CardLostError says.
    std::string LostText() const;

    bool IsOpen() const { return card != nullptr && !closing.load(); }
    // The open card; RuntimeError once closed or closing.
    CardLease Open() const;
    // The card while it is not closed yet, closing or not; empty afterwards.
    CardLease Lease() const { return CardLease(card); }
    // Runs `operation` on the card thread with the GIL released; `operation` must not touch
    // Python objects.
    void Run(const std::function<void(PCIeDataManager&)>& operation);
    // The same on a lease taken before.
    static void RunOn(const CardLease& lease,
                      const std::function<void(PCIeDataManager&)>& operation);
    // Stops every stream, inject channel and status callback, and lets the card go. Calls that
    // wait on the card in other threads end, each saying that the card was closed. From any
    // thread, inside a status callback too.
    void Close();
};

// Every card core still open, for the interpreter's exit.
std::set<CardCore*>& OpenCores();

}  // namespace kvpcie::python
