#include "CardCore.h"

#include "CaptureStream.h"
#include "InjectDrain.h"

namespace py = pybind11;

namespace kvpcie::python {

std::set<CardCore*>& OpenCores() {
    static auto* const cores = new std::set<CardCore*>;
    return *cores;
}

tools::SharedCard& CardCore::Open() {
    if (!card) {
        throw std::runtime_error("the card is closed");
    }
    return *card;
}

void CardCore::Run(const std::function<void(PCIeDataManager&)>& operation) {
    tools::SharedCard& open = Open();
    py::gil_scoped_release release;
    open.Run(operation);
}

void CardCore::Close() {
    if (!card) {
        return;
    }
    while (!streams.empty()) {
        (*streams.begin())->Close();
    }
    for (int channel = 0; channel < 4; ++channel) {
        if (inject[channel].started) {
            Run([&](PCIeDataManager& manager) { manager.StopInject(channel); });
            card->Unclaim(tools::SharedCard::Direction::Inject, static_cast<unsigned>(channel));
            inject[channel].started = false;
        }
        if (status[channel].callback) {
            Run([&](PCIeDataManager& manager) {
                manager.SetSystemStatusCallback(channel, nullptr, nullptr, false);
            });
        }
    }
    {
        // The last lease closes the card on the card thread, which may wait for a status
        // callback that needs the GIL.
        std::unique_ptr<tools::SharedCard> closing = std::move(card);
        py::gil_scoped_release release;
        closing.reset();
    }
    for (StatusTarget& target : status) {
        target.callback = py::object();
    }
    OpenCores().erase(this);
}

}  // namespace kvpcie::python
