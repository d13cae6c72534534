// Small unsigned decimal numbers in configuration values and simulated device paths.
#pragma once

#include <optional>
#include <string_view>

namespace kvpcie::sim {

// Digits only, at most `maxDigits` of them, value at most `maxValue`; nullopt otherwise.
inline std::optional<int> ParseDecimal(std::string_view text, std::size_t maxDigits, int maxValue) {
    if (text.empty() || text.size() > maxDigits) {
        return std::nullopt;
    }
    int value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + (c - '0');
    }
    if (value > maxValue) {
        return std::nullopt;
    }
    return value;
}

}  // namespace kvpcie::sim
