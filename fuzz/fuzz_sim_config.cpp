// Fuzzes the KVPCIE_SIM value, which comes from the environment of whoever runs the host.
#include "FuzzCheck.h"
#include "SimConfig.h"

#include <cstdint>
#include <string>
#include <string_view>

using kvpcie::sim::kMaxSimulatedDevices;
using kvpcie::sim::ParseSimConfig;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view value(reinterpret_cast<const char*>(data), size);
    const auto config = ParseSimConfig(value);
    if (!config) {
        return 0;
    }
    FUZZ_CHECK(config->xdmaCards >= 0 && config->xdmaCards <= kMaxSimulatedDevices);
    FUZZ_CHECK(config->riffaDevices >= 0 && config->riffaDevices <= kMaxSimulatedDevices);
    FUZZ_CHECK(value.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyz:,") ==
               std::string_view::npos);
    // What was accepted means the same as its plain spelling, in either order.
    const std::string xdma = "xdma:" + std::to_string(config->xdmaCards);
    const std::string riffa = "riffa:" + std::to_string(config->riffaDevices);
    for (const std::string& spelling : {xdma + "," + riffa, riffa + "," + xdma}) {
        const auto again = ParseSimConfig(spelling);
        FUZZ_CHECK(again && again->xdmaCards == config->xdmaCards &&
                   again->riffaDevices == config->riffaDevices);
    }
    return 0;
}
