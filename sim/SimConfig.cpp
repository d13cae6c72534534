// Parsing of the KVPCIE_SIM value.
#include "SimConfig.h"

#include "DecimalText.h"

namespace kvpcie::sim {
std::optional<SimConfig> ParseSimConfig(std::string_view value) {
    SimConfig config;
    if (value.empty()) {
        return config;
    }
    if (value == "1") {
        config.xdmaCards = 1;
        config.riffaDevices = 1;
        return config;
    }
    bool seenXdma = false;
    bool seenRiffa = false;
    while (!value.empty()) {
        const std::size_t comma = value.find(',');
        const std::string_view item = value.substr(0, comma);
        value = comma == std::string_view::npos ? std::string_view{} : value.substr(comma + 1);
        if (comma != std::string_view::npos && value.empty()) {
            return std::nullopt;  // trailing comma
        }
        const std::size_t colon = item.find(':');
        if (colon == std::string_view::npos) {
            return std::nullopt;
        }
        const std::string_view kind = item.substr(0, colon);
        const std::optional<int> count =
            ParseDecimal(item.substr(colon + 1), 2, kMaxSimulatedDevices);
        if (!count) {
            return std::nullopt;
        }
        if (kind == "xdma" && !seenXdma) {
            config.xdmaCards = *count;
            seenXdma = true;
        } else if (kind == "riffa" && !seenRiffa) {
            config.riffaDevices = *count;
            seenRiffa = true;
        } else {
            return std::nullopt;
        }
    }
    return config;
}

}  // namespace kvpcie::sim
