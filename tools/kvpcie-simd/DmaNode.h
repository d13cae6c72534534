// The DMA files: /dev/xdmaN_c2h_0, read from card memory, and /dev/xdmaN_h2c_0, written to it.
#pragma once

#include "NodeHandler.h"

namespace kvpcie::simd {

class DmaNode final : public CardFileNode {
public:
    enum class Direction { CardToHost, HostToCard };

    DmaNode(std::shared_ptr<sim::SimXdmaCard> card, Direction direction)
        : CardFileNode(std::move(card)), direction_(direction) {}

    // The offset is the card address; one call is one driver request.
    int Read(char* buffer, std::size_t size, std::int64_t offset) override;
    int Write(const char* buffer, std::size_t size, std::int64_t offset) override;

private:
    const Direction direction_;
};

}  // namespace kvpcie::simd
