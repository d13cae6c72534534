// Opening and closing the XDMA card with its engines, on request or on a first start.
#include "CardOpening.h"

#include "CardHolder.h"
#include "EngineCall.h"
#include "ErrorText.h"
#include "PCIeDataManagerPrivate.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaDevice.h"

#include <cstdlib>
#include <cstring>

namespace kvpcie {
namespace {

void ReportCardLost(PCIeDataManagerPrivate* d) {
    CardLostCallback callback = nullptr;
    void* context = nullptr;
    {
        std::lock_guard<std::mutex> lock(d->lostLock);
        callback = d->lostCallback;
        context = d->lostContext;
    }
    if (callback != nullptr) {
        callback(d->card->Path().c_str(), context);
    }
}

// The path that an engine-only open gives the capture engine; no such interface exists, so
// its event files do not open.
constexpr const char* kNoCardPath = "7028";

// True, with the reason, when the caller is inside one of the engines' callbacks, where the
// engines must not be destroyed.
bool InsideCallback(PCIeDataManagerPrivate* d, const char* operation) {
    const auto engines = SharedEngines(d);
    const auto* capture = d->xdmaCapture.get();
    if (capture == nullptr || (!capture->OnPollingThread() && !capture->InStatusDelivery())) {
        return false;
    }
    SetErrorText(
        "%s is refused inside a frame or status callback: it would destroy the engine "
        "that runs the callback; call it from the control thread",
        operation);
    return true;
}

bool IsListed(const char* devicePath) {
    char* paths[xdma::kPathSlots] = {};
    const int found = xdma::XdmaGetDevices(platform::kXdmaInterfaceClass, paths);
    bool listed = false;
    for (int i = 0; i < found && i < xdma::kPathSlots; ++i) {
        listed = listed || (paths[i] != nullptr && std::strcmp(paths[i], devicePath) == 0);
    }
    for (char* path : paths) {
        std::free(path);
    }
    return listed;
}

}  // namespace

bool OpenXdmaCard(PCIeDataManagerPrivate* d, char* devicePath) {
    ClearErrorText();
    if (InsideCallback(d, "OpenCard")) {
        return false;
    }
    bool opened = true;
    if (devicePath != nullptr) {
        const auto opening = LockCardOpening();
        if (CardHeldByAnother(d, devicePath, "OpenCard")) {
            return false;
        }
        CloseXdmaCard(d);
        TakeOverCard(d, devicePath);
        opened = d->card->XdmaOpen(devicePath);
        ClearErrorText();
        if (!opened) {
            SetErrorText(IsListed(devicePath)
                             ? "the XDMA card \"%s\" did not open; its engines were created anyway"
                             : "no such card: \"%s\" is not among the listed XDMA cards; its "
                               "engines were created anyway",
                         devicePath);
        }
    } else {
        ClearErrorText();
        // Engines that exist are replaced here too, not leaked: their threads must stop.
        PCIeDataManagerPrivate::XdmaEngines old = d->TakeXdmaEngines();
        old.inject.reset();
        old.capture.reset();
    }
    PCIeDataManagerPrivate::XdmaEngines engines;
    engines.capture = std::make_unique<xdma::DataCapture4XdmaMM>(
        d->card, d, devicePath != nullptr ? devicePath : kNoCardPath);
    engines.inject = std::make_unique<xdma::DataInject4XdmaMM>(d->card, d);
    engines.capture->SetCardLostHandler([d] { ReportCardLost(d); });
    d->InstallXdmaEngines(std::move(engines));
    return opened;
}

void CloseXdmaCard(PCIeDataManagerPrivate* d) {
    ClearErrorText();
    if (InsideCallback(d, "CloseCard")) {
        return;
    }
    d->card->XdmaClose();
    PCIeDataManagerPrivate::XdmaEngines old = d->TakeXdmaEngines();
    old.capture.reset();
    old.inject.reset();
}

bool CardIsThere(PCIeDataManagerPrivate* d) {
    if (!d->card->IsLost()) {
        return true;
    }
    SetErrorText("the XDMA card \"%s\" is gone (%s): CloseCard, and OpenCard once it is back",
                 d->card->Path().c_str(), d->card->LostReason().c_str());
    return false;
}

bool OpenFirstXdmaCardIfNone(PCIeDataManagerPrivate* d, const char* operation) {
    if (d->card->XdmaIsOpen()) {
        return CardIsThere(d);
    }
    char* paths[xdma::kPathSlots] = {};
    const int found = xdma::XdmaGetDevices(platform::kXdmaInterfaceClass, paths);
    bool opened = false;
    if (found <= 0) {
        SetErrorText("no XDMA card is listed");
    } else if (!CardHeldByAnother(d, paths[0], operation)) {
        opened = OpenXdmaCard(d, paths[0]);
        if (!opened) {
            SetErrorText("the first XDMA card, \"%s\", did not open", paths[0]);
        }
    }
    for (char* path : paths) {
        std::free(path);
    }
    return opened;
}

}  // namespace kvpcie
