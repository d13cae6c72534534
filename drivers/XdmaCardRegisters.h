// Card-wide registers of the XDMA card's user space and the layout of its memory transfers.
#pragma once

#include <cstdint>

namespace kvpcie::xdma {

// Host-attach word: 0xFFFF0000 while a host has the card open, 0 after it let go.
constexpr std::uint32_t kRegHostAttach = 0x4;
constexpr std::uint32_t kHostAttached = 0xFFFF0000u;
constexpr std::uint32_t kHostDetached = 0;

// Written 1 just before the driver-level restart of the card.
constexpr std::uint32_t kRegRestart = 0x100014;
constexpr std::uint32_t kRestartRequest = 1;

constexpr std::uint32_t kRegCaptureEnableMask = 0x100018;
constexpr std::uint32_t kRegInjectEnableMask = 0x10001C;
constexpr std::uint32_t kRegDelayTest = 0x100024;
// Two clocks on purpose: frame timing counts one, the timing read-back the other.
constexpr std::uint32_t kRegTimingClockHz = 0x100028;
constexpr std::uint32_t kRegDelayClockHz = 0x100030;

// The driver's largest single DMA request; longer transfers go in pieces of this size.
constexpr std::uint32_t kDmaChunkBytes = 0x800000;

}  // namespace kvpcie::xdma
