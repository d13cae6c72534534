// Fuzzes the KVPCIE_SIM value, which comes from the environment of whoever runs the host.
#include "FuzzCheck.h"
#include "SimConfig.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using kvpcie::sim::kMaxSimulatedDevices;
using kvpcie::sim::ParseSimConfig;
using kvpcie::sim::SimConfig;

// A count as ParseDecimal reads it with two digits at most, so one leading zero is taken.
std::optional<int> ExpectedCount(std::string_view digits) {
    if (digits.size() == 2 && digits[0] == '0') {
        digits.remove_prefix(1);
    }
    if (digits.size() == 1 && digits[0] >= '0' && digits[0] <= '0' + kMaxSimulatedDevices) {
        return digits[0] - '0';
    }
    return std::nullopt;
}

// The accepted values written out apart from the parser, so that the two can disagree.
std::optional<SimConfig> Expected(std::string_view value) {
    if (value.empty()) {
        return SimConfig{};
    }
    if (value == "1") {
        return SimConfig{1, 1};
    }
    std::vector<std::string_view> items;
    for (std::size_t start = 0;;) {
        const std::size_t comma = value.find(',', start);
        if (comma == std::string_view::npos) {
            items.push_back(value.substr(start));
            break;
        }
        items.push_back(value.substr(start, comma - start));
        start = comma + 1;
    }
    if (items.size() > 2) {
        return std::nullopt;
    }
    SimConfig config;
    bool seenXdma = false;
    bool seenRiffa = false;
    for (std::string_view item : items) {
        const bool xdma = item.substr(0, 5) == "xdma:";
        const bool riffa = item.substr(0, 6) == "riffa:";
        if ((!xdma && !riffa) || (xdma && seenXdma) || (riffa && seenRiffa)) {
            return std::nullopt;
        }
        const std::optional<int> count = ExpectedCount(item.substr(xdma ? 5 : 6));
        if (!count) {
            return std::nullopt;
        }
        (xdma ? config.xdmaCards : config.riffaDevices) = *count;
        (xdma ? seenXdma : seenRiffa) = true;
    }
    return config;
}

bool Same(const std::optional<SimConfig>& a, const std::optional<SimConfig>& b) {
    if (!a || !b) {
        return !a && !b;
    }
    return a->xdmaCards == b->xdmaCards && a->riffaDevices == b->riffaDevices;
}

bool InRange(int count) {
    return count >= 0 && count <= kMaxSimulatedDevices;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view value(reinterpret_cast<const char*>(data), size);
    const std::optional<SimConfig> config = ParseSimConfig(value);
    FUZZ_CHECK(Same(config, Expected(value)));
    if (!config) {
        return 0;
    }
    FUZZ_CHECK(InRange(config->xdmaCards) && InRange(config->riffaDevices));
    for (char c : value) {
        FUZZ_CHECK((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || c == ':' || c == ',');
    }
    if (value.empty()) {
        FUZZ_CHECK(config->xdmaCards == 0 && config->riffaDevices == 0);
    }

    // Whatever spelling was accepted, the plain one in either order means the same.
    const std::string xdma = "xdma:" + std::to_string(config->xdmaCards);
    const std::string riffa = "riffa:" + std::to_string(config->riffaDevices);
    FUZZ_CHECK(Same(ParseSimConfig(xdma + "," + riffa), config));
    FUZZ_CHECK(Same(ParseSimConfig(riffa + "," + xdma), config));
    return 0;
}
