// The tools' check of KVPCIE_SIM before they start.
#pragma once

#include <string>

namespace kvpcie::tools {

// "" when KVPCIE_SIM is unset or names simulated devices that a tool can reach; otherwise why
// a tool refuses to start with it (a value the library would take as "no simulated device",
// or more XDMA cards than a listing holds).
std::string SimulationSettingProblem();

}  // namespace kvpcie::tools
