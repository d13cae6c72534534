// The cards a suite drives under with-model.sh (KVPCIE_MODEL_ROOT) or with-wine-model.sh
// (KVPCIE_MODEL_CARD, KVPCIE_MODEL_CARD1). Nothing of the library: the C suites use it too.
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

// The path that opens card `card`: the driver model's, else the in-process simulated card's.
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
