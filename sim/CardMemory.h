// The simulated card's memory, with the frames in its capture buffers kept as descriptions. A
// frame that the card makes then costs the host's cores nothing, and the transfer that reads it
// writes its bytes straight into the destination, as a card's DMA engine writes host memory:
// the read is the one copy. Every reader sees exactly the bytes that writing the frame into
// memory would have left there.
#pragma once

#include "SparseMemory.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace kvpcie::sim {

// The frame in one capture buffer: its first `bytes` bytes.
struct FrameDescription {
    enum class Kind { None, Pattern, Loopback, Scene };
    Kind kind = Kind::None;
    // Pattern: bytes 0-3 the number, 4-7 the channel (both least significant byte first), byte
    // k from 8 on (k + number) mod 256.
    std::uint32_t number = 0;
    std::uint32_t channel = 0;
    std::uint32_t bytes = 0;
    // Loopback: the frame's bytes as far as it reaches, zeros after.
    std::shared_ptr<const std::vector<std::uint8_t>> loopback;
    // Scene: frame `number` of the moving scene in this geometry and pixel code.
    std::uint32_t width = 0;
    std::uint32_t lines = 0;
    std::uint32_t pixelCode = 0;
};

class CardMemory {
public:
    explicit CardMemory(std::uint64_t size) : memory_(size) {}

    std::uint64_t Size() const { return memory_.Size(); }
    std::size_t CommittedPages() const { return memory_.CommittedPages(); }

    // Both move what lies inside the address space and return how many bytes that was. A
    // write over a described frame first turns the frame into plain bytes.
    std::size_t Read(std::uint64_t address, void* buffer, std::size_t size) const;
    std::size_t Write(std::uint64_t address, const void* buffer, std::size_t size);

    // Capture buffer `buffer` of channel `channel` holds `frame` from now on; bytes past the
    // frame keep what they held.
    void Describe(unsigned channel, unsigned buffer, FrameDescription frame);

private:
    static constexpr std::uint64_t kSlotBytes = xdma::kCardBufferBytes;
    static constexpr std::size_t kSlots = std::size_t{xdma::kChannelCount} * xdma::kCardBufferCount;

    struct Slot {
        mutable std::mutex lock;
        FrameDescription frame;
    };

    // The slot that holds `address`, or null outside the capture buffers.
    Slot* SlotOf(std::uint64_t address) const;
    // Bytes [offset, offset + size) of `frame` into `out`.
    static void Generate(const FrameDescription& frame, std::uint32_t offset, std::uint8_t* out,
                         std::size_t size);
    // Writes bytes [from, to) of the slot's frame into plain memory.
    void Materialize(std::uint64_t slotBase, const FrameDescription& frame, std::uint32_t from,
                     std::uint32_t to);

    SparseMemory memory_;
    mutable std::array<Slot, kSlots> slots_;
};

}  // namespace kvpcie::sim
