// What the benchmarks through the public API share: the parts named on the command line, and a
// facade on one simulated card.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <QtGlobal>

#include <cstdio>
#include <cstring>

namespace kvpcie::bench {

// Whether `part` was named on the command line; every part is when none is.
inline bool PartWanted(int argc, char** argv, const char* part) {
    if (argc < 2) {
        return true;
    }
    for (int k = 1; k < argc; ++k) {
        if (std::strcmp(argv[k], part) == 0) {
            return true;
        }
    }
    return false;
}

// Opens simulated card 0 on `manager`; false, with a message, when it does not open.
inline bool OpenSimulatedCard(PCIeDataManager& manager) {
    KvPCIeSim::Configure("xdma:1");
    char path[] = "sim:xdma0";
    if (!manager.OpenCard(path)) {
        std::fprintf(stderr, "the simulated card did not open\n");
        return false;
    }
    return true;
}

// Closes the card and opens it again with the low-latency setting (KVPCIE_REALTIME_POLLING=1,
// which the engines read when the card opens); the environment is left as it was.
inline bool ReopenWithLowLatency(PCIeDataManager& manager) {
    manager.CloseCard();
    qputenv("KVPCIE_REALTIME_POLLING", "1");
    const bool reopened = OpenSimulatedCard(manager);
    qunsetenv("KVPCIE_REALTIME_POLLING");
    return reopened;
}

}  // namespace kvpcie::bench
