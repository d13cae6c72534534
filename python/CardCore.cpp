// The state a card shares with its streams, and its close.
#include "CardCore.h"

#include "CaptureStream.h"

namespace py = pybind11;

namespace kvpcie::python {

std::set<CardCore*>& OpenCores() {
    static auto* const cores = new std::set<CardCore*>;
    return *cores;
}

CardLease CardCore::Open() const {
    if (!IsOpen()) {
        throw std::runtime_error("the card is closed");
    }
    return CardLease(card);
}

void CardCore::Run(const std::function<void(PCIeDataManager&)>& operation) {
    RunOn(Open(), operation);
}

void CardCore::RunOn(const CardLease& lease,
                     const std::function<void(PCIeDataManager&)>& operation) {
    py::gil_scoped_release release;
    lease->Run(operation);
}

void CardCore::TellLost() {
    if (lost.exchange(true)) {
        return;
    }
    for (CaptureStream* stream : streams) {
        stream->MarkCardLost();
    }
    // A reference of its own: the callback may close the card, which drops the core's.
    const py::object callback = onLost;
    if (!callback || !card) {
        return;
    }
    try {
        callback(card->Path());
    } catch (py::error_already_set& error) {
        error.discard_as_unraisable("kvpcie card-lost callback");
    }
}

std::string CardCore::LostText() const {
    const std::string path = card ? card->Path() : std::string("the card");
    return "the card " + path +
           " is gone (removed, or its driver ended): close it and open it again once it is back";
}

void CardCore::Close() {
    if (!card || closing.exchange(true)) {
        return;  // closed, or another thread is closing it
    }
    const CardLease lease = Lease();
    while (!streams.empty()) {
        (*streams.begin())->Close();
    }
    for (int channel = 0; channel < 4; ++channel) {
        InjectChannel& playing = inject[channel];
        // An inject() still waiting may have started the channel already: it is stopped here,
        // after that, and its frames are counted as dropped; or it sees the close and refuses.
        if (playing.started || playing.inFlight > 0) {
            RunOn(lease, [&](PCIeDataManager& manager) { manager.StopInject(channel); });
        }
        if (playing.started) {
            lease->Unclaim(KvPCIe::SharedCard::Direction::Inject, static_cast<unsigned>(channel));
            playing.started = false;
        }
        if (status[channel].callback) {
            RunOn(lease, [&](PCIeDataManager& manager) {
                manager.SetSystemStatusCallback(channel, nullptr, nullptr, false);
            });
        }
    }
    for (StatusTarget& target : status) {
        target.callback = py::object();
    }
    onLost = py::object();
    lease->SetLostCallback(nullptr);
    card.reset();  // `lease` goes last, without the GIL
    OpenCores().erase(this);
}

}  // namespace kvpcie::python
