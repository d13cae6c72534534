// What the simulated XDMA card answers that a real card has no registers for.
#pragma once

#include <cstdint>

namespace kvpcie::sim {

constexpr std::uint32_t kTimingClockHz = 100000000;  // register 0x100028
constexpr std::uint32_t kDelayClockHz = 125000000;   // register 0x100030

// The simulation control block.
constexpr std::uint32_t kRegIdentity = 0x1F0000;
constexpr std::uint32_t kIdentityValue = 0x53494D31;  // "SIM1"
constexpr std::uint32_t kRegSurpriseRemoval = 0x1F0008;

constexpr std::uint32_t ControlBlock(unsigned channel) {
    return 0x1F1000 + channel * 0x1000;
}
constexpr std::uint32_t kCtlCaptureSource = 0x00;
constexpr std::uint32_t kCtlExternalFrameRate = 0x04;
constexpr std::uint32_t kCtlCommandBusyMicros = 0x1C;

constexpr std::uint32_t kDefaultExternalFrameRate = 25;
constexpr std::uint32_t kDefaultCommandBusyMicros = 50;

// The card's user register space ends here; reads and writes past it move nothing.
constexpr std::uint32_t kUserSpaceBytes = 0x200000;
// Card memory: a 2 GiB address space, committed only where written.
constexpr std::uint64_t kCardMemoryBytes = std::uint64_t{1} << 31;
constexpr int kUserEventCount = 16;
constexpr int kDefaultEventTimeoutMs = 3000;

}  // namespace kvpcie::sim
