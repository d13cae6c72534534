// The card that a suite drives: a fresh simulated card in the process, or, when the suite runs
// under tests/driver-model/with-model.sh (KVPCIE_MODEL_ROOT set), the driver model's card,
// reached through the Linux backend as a card under the XDMA driver is. Suites that run both
// ways check the card through its registers only; the model's card lives as long as the model,
// so what one test leaves in it the next test of the run meets.
#pragma once

#include "Environment.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <cstdlib>
#include <string>

namespace kvpcie::testing {

inline const char* DriverModelRoot() {
    const char* root = std::getenv("KVPCIE_MODEL_ROOT");
    return root != nullptr && *root != '\0' ? root : nullptr;
}

inline bool OnDriverModel() {
    return DriverModelRoot() != nullptr;
}

// Readies card 0 for a test: a new simulated card in this process (and no other listed), or
// nothing on the driver model, whose card is already there. False when that failed.
inline bool PrepareTestCard() {
    if (OnDriverModel()) {
        return true;
    }
    UnsetEnvironment("KVPCIE_SIM");
    return KvPCIeSim::Configure("xdma:1");
}

// The path that OpenCard takes for card 0.
inline std::string TestCardPath() {
    return OnDriverModel() ? std::string(DriverModelRoot()) + "/dev/xdma0" : "sim:xdma0";
}

}  // namespace kvpcie::testing
