// Which cards a suite drives when it runs under tests/driver-model/with-model.sh
// (KVPCIE_MODEL_ROOT set): the driver model's, reached through the Linux backend as cards under
// the XDMA driver are, or, on Windows, through the Windows driver model (with-wine-model.sh
// gives their interface paths in KVPCIE_MODEL_CARD and KVPCIE_MODEL_CARD1). Needs nothing of
// the library, so that the C interface's suites can use it too.
#pragma once

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

// The path that opens card `card`: the driver model's when there is one, else the simulated
// card's of this process.
inline std::string CardPath(int card) {
    if (!OnDriverModel()) {
        return "sim:xdma" + std::to_string(card);
    }
#ifdef _WIN32
    const std::string name = "KVPCIE_MODEL_CARD" + (card == 0 ? "" : std::to_string(card));
    const char* path = std::getenv(name.c_str());
    return path != nullptr ? path : "";
#else
    return std::string(DriverModelRoot()) + "/dev/xdma" + std::to_string(card);
#endif
}

}  // namespace kvpcie::testing
