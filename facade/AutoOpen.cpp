// Opening the first XDMA card on demand.
#include "AutoOpen.h"

#include "ErrorText.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaDevice.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <cstdlib>

bool OpenFirstXdmaCardIfNone(PCIeDataManager& manager) {
    using namespace kvpcie;
    if (xdma::XdmaIsOpen()) {
        return true;
    }
    char* paths[xdma::kPathSlots] = {};
    const int found = xdma::XdmaGetDevices(platform::kXdmaInterfaceClass, paths);
    bool opened = false;
    if (found <= 0) {
        SetErrorText("no XDMA card is listed");
    } else if (!(opened = manager.OpenCard(paths[0]))) {
        SetErrorText("the first XDMA card, \"%s\", did not open", paths[0]);
    }
    for (char* path : paths) {
        std::free(path);
    }
    return opened;
}
