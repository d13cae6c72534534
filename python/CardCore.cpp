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
    card.reset();  // `lease` goes last, without the GIL
    OpenCores().erase(this);
}

}  // namespace kvpcie::python
