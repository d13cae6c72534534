// The per-channel register blocks and card memory layout of the XDMA frame card.
#pragma once

#include <cstdint>

namespace kvpcie::xdma {

constexpr int kChannelCount = 4;
constexpr int kCardBufferCount = 8;
// Spacing of a channel's card buffers, and so the largest frame a buffer holds (20 MiB).
constexpr std::uint32_t kCardBufferBytes = 0x1400000;
constexpr std::uint32_t kChannelMemoryStride = 0xA000000;

// Buffer status word: the low nibble says who holds the buffer.
constexpr std::uint32_t kStatusStateMask = 0xF;
constexpr std::uint32_t kStatusCaptureReady = 2;  // a complete frame the host has not taken
constexpr std::uint32_t kStatusErrorFrame = 0x20;

// --- capture channel c ---
constexpr std::uint32_t CaptureBlock(unsigned channel) {
    return 0x101000 + channel * 0x1000;
}
constexpr std::uint32_t kCapPixelCode = 0x000;
constexpr std::uint32_t kCapGeometry = 0x004;  // width << 16 | (height + parameter lines)
constexpr std::uint32_t kCapBufferCount = 0x008;
constexpr std::uint32_t kCapBufferSpacing = 0x00C;
constexpr std::uint32_t kCapFrameBytes = 0x010;
constexpr std::uint32_t kCapLatestBuffer = 0x014;
constexpr std::uint32_t kCapSyncMode = 0x01C;
constexpr std::uint32_t kCapLinePeriod = 0x020;
constexpr std::uint32_t kCapFramePeriod = 0x024;  // timing-clock ticks
constexpr std::uint32_t kCapStatusControl = 0x028;  // status mailbox control word
constexpr std::uint32_t kCapStatusData = 0x400;     // status mailbox data, 256 words
constexpr std::uint32_t CapBufferAddress(unsigned buffer) {
    return 0x100 + buffer * 0x10;
}
constexpr std::uint32_t CapBufferStatus(unsigned buffer) {
    return 0x108 + buffer * 0x10;
}
constexpr std::uint32_t CapBufferDelay(unsigned buffer) {
    return 0x10C + buffer * 0x10;
}
constexpr std::uint32_t CaptureBufferAddress(unsigned channel, unsigned buffer) {
    return channel * kChannelMemoryStride + buffer * kCardBufferBytes;
}

// Mailbox control word: bit 10 = a block is waiting, bits 0-9 = its length - 1.
constexpr std::uint32_t kMailboxFull = 0x400;
constexpr std::uint32_t kMailboxLengthMask = 0x3FF;
constexpr int kMailboxBytes = 1024;

// Delay read-back: selector in bits 28-31, count in the low 28 bits.
constexpr int kDelaySelectorShift = 28;
constexpr std::uint32_t kDelayCountMask = 0x0FFFFFFF;

// --- inject channel c ---
constexpr std::uint32_t InjectBlock(unsigned channel) {
    return 0x111000 + channel * 0x1000;
}
constexpr std::uint32_t kInjPixelCode = 0x000;
constexpr std::uint32_t kInjGeometry = 0x004;  // width << 16 | lines
constexpr std::uint32_t kInjBufferCount = 0x008;
constexpr std::uint32_t kInjTransferBytes = 0x00C;  // a multiple of kInjTransferGranule
constexpr std::uint32_t kInjSyncMode = 0x01C;
constexpr std::uint32_t kInjLinePeriod = 0x020;
constexpr std::uint32_t kInjFramePeriod = 0x024;     // timing-clock ticks
constexpr std::uint32_t kInjCommandControl = 0x028;  // command mailbox control word
constexpr std::uint32_t kInjCommandData = 0x400;     // command mailbox data, 256 words
constexpr std::uint32_t InjBufferAddress(unsigned buffer) {
    return 0x100 + buffer * 0x10;
}
constexpr std::uint32_t InjBufferLength(unsigned buffer) {
    return 0x104 + buffer * 0x10;
}
constexpr std::uint32_t InjBufferStatus(unsigned buffer) {
    return 0x108 + buffer * 0x10;
}
constexpr std::uint32_t InjBufferDelay(unsigned buffer) {
    return 0x10C + buffer * 0x10;
}
constexpr std::uint32_t kInjectMemoryBase = 0x40000000;
constexpr std::uint32_t InjectBufferAddress(unsigned channel, unsigned buffer) {
    return kInjectMemoryBase + channel * kChannelMemoryStride + buffer * kCardBufferBytes;
}
constexpr std::uint32_t kInjTransferGranule = 2048;

// Inject buffer status: low nibble 0 = free for the host.
constexpr std::uint32_t kStatusHostWriting = 0x01;
constexpr std::uint32_t kStatusInjectReady = 0x12;

// Command control word: bit 10 starts a transfer and reads set until the card took it; bits 0-9
// are the length - 1.
constexpr std::uint32_t kCommandBusy = 0x400;
constexpr std::uint32_t kCommandLengthMask = 0x3FF;
constexpr int kCommandMaxBytes = 1024;

}  // namespace kvpcie::xdma
