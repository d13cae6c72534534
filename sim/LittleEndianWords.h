// 32-bit words of the RIFFA records and requests, little-endian whatever the host's order.
#pragma once

#include <cstdint>

namespace kvpcie::sim {

inline std::uint32_t LoadWord(const std::uint8_t* bytes) {
    return std::uint32_t{bytes[0]} | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 |
           std::uint32_t{bytes[3]} << 24;
}

inline void StoreWord(std::uint8_t* bytes, std::uint32_t value) {
    for (int byte = 0; byte < 4; ++byte) {
        bytes[byte] = static_cast<std::uint8_t>(value >> (8 * byte));
    }
}

}  // namespace kvpcie::sim
