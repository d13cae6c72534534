// Card memory with described capture frames.
#include "CardMemory.h"

#include "SimScene.h"

#include <algorithm>
#include <cstring>

namespace kvpcie::sim {
namespace {

// kRamp[j] = j mod 256 for two rounds, so that any 256 bytes of the pattern are one memcpy.
struct Ramp {
    std::uint8_t bytes[512];
    Ramp() {
        for (int j = 0; j < 512; ++j) {
            bytes[j] = static_cast<std::uint8_t>(j);
        }
    }
};
const Ramp kRamp;

// The capture buffers of a channel lie back to back, and the channels' blocks of buffers too.
static_assert(xdma::kChannelMemoryStride == xdma::kCardBufferCount * xdma::kCardBufferBytes,
              "capture buffers are contiguous");

}  // namespace

CardMemory::Slot* CardMemory::SlotOf(std::uint64_t address) const {
    const std::uint64_t slot = address / kSlotBytes;
    return slot < kSlots ? &slots_[static_cast<std::size_t>(slot)] : nullptr;
}

void CardMemory::Generate(const FrameDescription& frame, std::uint32_t offset, std::uint8_t* out,
                          std::size_t size) {
    if (frame.kind == FrameDescription::Kind::Loopback) {
        const std::size_t have = frame.loopback != nullptr ? frame.loopback->size() : 0;
        const std::size_t copied = offset < have ? std::min(size, have - offset) : 0;
        if (copied > 0) {
            std::memcpy(out, frame.loopback->data() + offset, copied);
        }
        std::memset(out + copied, 0, size - copied);
        return;
    }
    if (frame.kind == FrameDescription::Kind::Scene) {
        GenerateScene(SceneFrame{frame.number, frame.width, frame.lines, frame.pixelCode}, offset,
                      out, size);
        return;
    }
    std::size_t k = offset;
    const std::size_t end = offset + size;
    for (; k < end && k < 8; ++k) {
        const std::uint32_t word = k < 4 ? frame.number : frame.channel;
        *out++ = static_cast<std::uint8_t>(word >> (8 * (k % 4)));
    }
    while (k < end) {
        const std::size_t start = (k + frame.number) & 0xFF;
        const std::size_t piece = std::min<std::size_t>(256, end - k);
        std::memcpy(out, kRamp.bytes + start, piece);
        out += piece;
        k += piece;
    }
}

void CardMemory::Materialize(std::uint64_t slotBase, const FrameDescription& frame,
                             std::uint32_t from, std::uint32_t to) {
    std::uint8_t chunk[64 * 1024];
    for (std::uint32_t at = from; at < to;) {
        const std::uint32_t piece = std::min<std::uint32_t>(sizeof chunk, to - at);
        Generate(frame, at, chunk, piece);
        memory_.Write(slotBase + at, chunk, piece);
        at += piece;
    }
}

std::size_t CardMemory::Read(std::uint64_t address, void* buffer, std::size_t size) const {
    const std::size_t total =
        address >= memory_.Size()
            ? 0
            : static_cast<std::size_t>(std::min<std::uint64_t>(size, memory_.Size() - address));
    auto* out = static_cast<std::uint8_t*>(buffer);
    std::size_t done = 0;
    while (done < total) {
        const std::uint64_t at = address + done;
        const Slot* slot = SlotOf(at);
        if (slot == nullptr) {
            memory_.Read(at, out + done, total - done);
            break;
        }
        const std::uint64_t slotBase = at - at % kSlotBytes;
        const auto offset = static_cast<std::uint32_t>(at - slotBase);
        std::lock_guard<std::mutex> lock(slot->lock);
        const FrameDescription& frame = slot->frame;
        const bool described = frame.kind != FrameDescription::Kind::None && offset < frame.bytes;
        const std::uint64_t pieceEnd = slotBase + (described ? frame.bytes : kSlotBytes);
        const auto piece =
            static_cast<std::size_t>(std::min<std::uint64_t>(total - done, pieceEnd - at));
        if (described) {
            Generate(frame, offset, out + done, piece);
        } else {
            memory_.Read(at, out + done, piece);
        }
        done += piece;
    }
    return total;
}

std::size_t CardMemory::Write(std::uint64_t address, const void* buffer, std::size_t size) {
    // Rare (a host writing into capture buffers): the frames it touches become plain bytes
    // first, so that what it does not overwrite stays as it was.
    const std::uint64_t end = address + size;
    for (std::uint64_t at = address - address % kSlotBytes; at < end; at += kSlotBytes) {
        Slot* slot = SlotOf(at);
        if (slot == nullptr) {
            break;
        }
        std::lock_guard<std::mutex> lock(slot->lock);
        if (slot->frame.kind != FrameDescription::Kind::None) {
            Materialize(at, slot->frame, 0, slot->frame.bytes);
            slot->frame = FrameDescription{};
        }
    }
    return memory_.Write(address, buffer, size);
}

void CardMemory::Describe(unsigned channel, unsigned buffer, FrameDescription frame) {
    const std::uint64_t slotBase = xdma::CaptureBufferAddress(channel, buffer);
    Slot* slot = SlotOf(slotBase);
    if (slot == nullptr) {
        return;
    }
    frame.bytes = std::min<std::uint32_t>(frame.bytes, static_cast<std::uint32_t>(kSlotBytes));
    std::lock_guard<std::mutex> lock(slot->lock);
    const FrameDescription& old = slot->frame;
    // A smaller frame leaves the tail of the bigger one before it in place.
    if (old.kind != FrameDescription::Kind::None && old.bytes > frame.bytes) {
        Materialize(slotBase, old, frame.bytes, old.bytes);
    }
    slot->frame = std::move(frame);
}

}  // namespace kvpcie::sim
