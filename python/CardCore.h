// What a kvpcie.Card and its capture streams share: the card's lease, the channels it plays
// frames on, its status callbacks and its open streams. Touched with the GIL held, except where
// a member says otherwise.
#pragma once

#include "SharedCard.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <pybind11/pybind11.h>

#include <array>
#include <functional>
#include <memory>
#include <set>
#include <string>

namespace kvpcie::python {

class CaptureStream;

struct StatusTarget {
    pybind11::object callback;  // null: off
};

struct InjectChannel {
    bool started = false;  // claimed, and StartInject took the first frame
    int width = 0;
    int height = 0;
    ePixelType type = Y8;
    int frameRate = 25;
};

struct CardCore {
    std::unique_ptr<tools::SharedCard> card;  // null once closed
    std::set<CaptureStream*> streams;
    std::array<InjectChannel, 4> inject{};
    // The library calls the status callback with a pointer to one of these on the card thread.
    std::array<StatusTarget, 4> status{};

    // The open card; RuntimeError once closed.
    tools::SharedCard& Open();
    // Runs `operation` on the card thread with the GIL released; `operation` must not touch
    // Python objects.
    void Run(const std::function<void(PCIeDataManager&)>& operation);
    // Stops every stream, inject channel and status callback, and lets the card go.
    void Close();
};

// Every card core still open, for the interpreter's exit.
std::set<CardCore*>& OpenCores();

}  // namespace kvpcie::python
