// The DMA files: transfers between the host and the card's memory.
#include "DmaNode.h"

#include <cerrno>

namespace kvpcie::simd {

int DmaNode::Read(char* buffer, std::size_t size, std::int64_t offset) {
    if (direction_ != Direction::CardToHost || offset < 0) {
        return -EINVAL;
    }
    std::uint32_t moved = 0;
    if (!card_->ReadMemory(static_cast<std::uint64_t>(offset), buffer,
                           static_cast<std::uint32_t>(size), moved)) {
        return -EIO;
    }
    return static_cast<int>(moved);
}

int DmaNode::Write(const char* buffer, std::size_t size, std::int64_t offset) {
    if (direction_ != Direction::HostToCard || offset < 0) {
        return -EINVAL;
    }
    std::uint32_t moved = 0;
    if (!card_->WriteMemory(static_cast<std::uint64_t>(offset), buffer,
                            static_cast<std::uint32_t>(size), moved)) {
        return -EIO;
    }
    return static_cast<int>(moved);
}

}  // namespace kvpcie::simd
