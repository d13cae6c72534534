// What the simulated XDMA card answers that a real card has no registers for, and how an address
// decodes into a channel's block.
#pragma once

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <utility>

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
using KvPCIeSim::kCtlCommandBusyMicros;
using KvPCIeSim::kCtlCommandsTaken;
using KvPCIeSim::kCtlDmaFaults;
using KvPCIeSim::kCtlErrorFrameEvery;
using KvPCIeSim::kCtlExternalFrameRate;
using KvPCIeSim::kCtlFrameEventOff;
using KvPCIeSim::kCtlFramesDropped;
using KvPCIeSim::kCtlFramesProduced;
using KvPCIeSim::kCtlInjectPlayed;
using KvPCIeSim::kCtlInjectUnderruns;
using KvPCIeSim::kCtlLastCommand;
using KvPCIeSim::kCtlLastCommandLength;
using KvPCIeSim::kCtlLastInjectHead;
using KvPCIeSim::kCtlReadyTimeFrame;
using KvPCIeSim::kCtlReadyTimeHigh;
using KvPCIeSim::kCtlReadyTimeLow;
using KvPCIeSim::kCtlPostStatus;
using KvPCIeSim::kCtlStatusStaging;
using KvPCIeSim::kCtlStuckCaptureBuffer;

constexpr std::uint32_t kDefaultExternalFrameRate = 25;
constexpr std::uint32_t kDefaultCommandBusyMicros = 50;
constexpr std::uint32_t kCommandNeverTaken = 0xFFFFFFFF;
// An inject channel whose frame period register is 0 plays at this rate.
constexpr std::uint32_t kDefaultInjectFrameRate = 25;

constexpr std::uint32_t kCaptureSourceLoopback = 1;
constexpr std::uint32_t kCaptureSourceScene = 2;
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
// Frame period registers count these.
using TimingClockTicks = std::chrono::duration<std::int64_t, std::ratio<1, kTimingClockHz>>;

// The per-channel register blocks: every kind is laid out alike.
constexpr std::uint32_t kBlockStride = xdma::CaptureBlock(1) - xdma::CaptureBlock(0);
constexpr std::uint32_t kBufferStride = xdma::CapBufferStatus(1) - xdma::CapBufferStatus(0);
static_assert(xdma::InjectBlock(1) - xdma::InjectBlock(0) == kBlockStride &&
                  ControlBlock(1) - ControlBlock(0) == kBlockStride &&
                  xdma::InjBufferStatus(1) - xdma::InjBufferStatus(0) == kBufferStride,
              "every kind of channel block is laid out alike");

// An address as the card routes it: a channel's capture, inject or control block and the offset
// inside it, or a word of the card itself (channel 0, offset = the address).
struct RegisterAddress {
    enum class Kind { Card, Capture, Inject, Control };
    Kind kind;
    unsigned channel;
    std::uint32_t offset;
};

inline RegisterAddress DecodeRegister(std::uint32_t address) {
    constexpr std::uint32_t kBlocksBytes = xdma::kChannelCount * kBlockStride;
    const std::pair<RegisterAddress::Kind, std::uint32_t> blocks[] = {
        {RegisterAddress::Kind::Capture, xdma::CaptureBlock(0)},
        {RegisterAddress::Kind::Inject, xdma::InjectBlock(0)},
        {RegisterAddress::Kind::Control, ControlBlock(0)}};
    for (const auto& [kind, first] : blocks) {
        if (address >= first && address - first < kBlocksBytes) {
            return {kind, (address - first) / kBlockStride, (address - first) % kBlockStride};
        }
    }
    return {RegisterAddress::Kind::Card, 0, address};
}

// Whether `offset` is the word at `first` of one of the per-buffer register groups.
inline bool IsBufferWord(std::uint32_t offset, std::uint32_t first, unsigned& buffer) {
    if (offset < first || (offset - first) % kBufferStride != 0 ||
        (offset - first) / kBufferStride >= static_cast<std::uint32_t>(xdma::kCardBufferCount)) {
        return false;
    }
    buffer = (offset - first) / kBufferStride;
    return true;
}

// The card's user register space ends here; reads and writes past it move nothing.
constexpr std::uint32_t kUserSpaceBytes = 0x200000;
// Card memory: a 2 GiB address space, committed only where written.
constexpr std::uint64_t kCardMemoryBytes = std::uint64_t{1} << 31;
constexpr int kUserEventCount = 16;
constexpr int kDefaultEventTimeoutMs = 3000;

// A span as the delay counters show it: delay-clock ticks, saturated to the count field.
inline std::uint32_t SaturatedDelayTicks(std::chrono::steady_clock::duration span) {
    using DelayClockTicks = std::chrono::duration<std::int64_t, std::ratio<1, kDelayClockHz>>;
    const std::int64_t ticks = std::chrono::duration_cast<DelayClockTicks>(span).count();
    return static_cast<std::uint32_t>(
        std::clamp<std::int64_t>(ticks, 0, std::int64_t{xdma::kDelayCountMask}));
}

}  // namespace kvpcie::sim
