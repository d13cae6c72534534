// The KVPCIE_SIM value: how many simulated XDMA cards and RIFFA devices to present.
#pragma once

#include <optional>
#include <string_view>

namespace kvpcie::sim {

struct SimConfig {
    int xdmaCards = 0;
    int riffaDevices = 0;
};

constexpr int kMaxSimulatedDevices = 8;

// "" → none; "1" → one of each; "xdma:N,riffa:M" (either part may stand alone, in any order,
// N and M from 0 to 8). Anything else is refused with nullopt.
std::optional<SimConfig> ParseSimConfig(std::string_view value);

}  // namespace kvpcie::sim
