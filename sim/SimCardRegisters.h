// What the simulated XDMA card answers that a real card has no registers for.
#pragma once

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <chrono>
#include <cstdint>

namespace kvpcie::sim {

constexpr std::uint32_t kTimingClockHz = 100000000;  // register 0x100028
constexpr std::uint32_t kDelayClockHz = 125000000;   // register 0x100030

// The simulation control block.
constexpr std::uint32_t kRegIdentity = 0x1F0000;
constexpr std::uint32_t kIdentityValue = 0x53494D31;  // "SIM1"
constexpr std::uint32_t kRegSurpriseRemoval = 0x1F0008;

// Per channel; the control header names what a host may set.
using KvPCIeSim::ControlBlock;
using KvPCIeSim::kCtlCaptureSource;
using KvPCIeSim::kCtlDmaFaults;
using KvPCIeSim::kCtlErrorFrameEvery;
using KvPCIeSim::kCtlExternalFrameRate;
using KvPCIeSim::kCtlFrameEventOff;
using KvPCIeSim::kCtlFramesDropped;
using KvPCIeSim::kCtlFramesProduced;
using KvPCIeSim::kCtlPostStatus;
using KvPCIeSim::kCtlStatusStaging;
constexpr std::uint32_t kCtlCommandBusyMicros = 0x1C;

constexpr std::uint32_t kDefaultExternalFrameRate = 25;
constexpr std::uint32_t kDefaultCommandBusyMicros = 50;

constexpr std::uint32_t kCaptureSourceLoopback = 1;
constexpr std::uint32_t kFrameEventOff = 1;
// Bit 0 of a capture channel's sync word: the card times the frames itself (kCapFramePeriod).
constexpr std::uint32_t kSyncCardTimed = 0x1;
// The latest-buffer register before the first frame: the ring's last buffer, so that frame 0
// follows it in buffer 0.
constexpr std::uint32_t kLatestBufferBeforeFirst = xdma::kCardBufferCount - 1;
// Status blocks waiting behind a full mailbox; more are refused.
constexpr int kMaxQueuedStatusBlocks = 64;
// Ready times kept per capture channel for CaptureReadyTime.
constexpr int kReadyTimesKept = 64;
// Shorter frame periods run at this one: a clock of a few ticks would keep a core busy.
constexpr std::chrono::microseconds kMinFramePeriod{100};

// The card's user register space ends here; reads and writes past it move nothing.
constexpr std::uint32_t kUserSpaceBytes = 0x200000;
// Card memory: a 2 GiB address space, committed only where written.
constexpr std::uint64_t kCardMemoryBytes = std::uint64_t{1} << 31;
constexpr int kUserEventCount = 16;
constexpr int kDefaultEventTimeoutMs = 3000;

}  // namespace kvpcie::sim
