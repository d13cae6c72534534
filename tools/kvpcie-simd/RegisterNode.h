// The register files: /dev/xdmaN_user, the card's registers, and /dev/xdmaN_control, the
// driver's own, which read as zeros on the model.
#pragma once

#include "ModelNodes.h"
#include "NodeHandler.h"

namespace kvpcie::simd {

class RegisterNode final : public CardFileNode {
public:
    // `kind` is NodeKind::User or NodeKind::Control.
    RegisterNode(std::shared_ptr<sim::SimXdmaCard> card, NodeKind kind)
        : CardFileNode(std::move(card)), kind_(kind) {}

    int Read(char* buffer, std::size_t size, std::int64_t offset) override;
    int Write(const char* buffer, std::size_t size, std::int64_t offset) override;

private:
    const NodeKind kind_;
};

}  // namespace kvpcie::simd
