// The sysfs PCI attributes: a card's vendor and device, read; its remove, and the bus's rescan,
// written; and the Windows driver model's restart, a removal and rescan in one.
#pragma once

#include "ModelNodes.h"
#include "NodeHandler.h"

namespace kvpcie::simd {

class ModelFileSystem;

class PciAttributeNode final : public NodeHandler {
public:
    // `card` is null for the rescan; `model` must outlive this object.
    PciAttributeNode(ModelFileSystem& model, const Node& node,
                     std::shared_ptr<sim::SimXdmaCard> card)
        : model_(model), node_(node), card_(std::move(card)) {}

    int Read(char* buffer, std::size_t size, std::int64_t offset) override;
    int Write(const char* buffer, std::size_t size, std::int64_t offset) override;

private:
    ModelFileSystem& model_;
    const Node node_;
    const std::shared_ptr<sim::SimXdmaCard> card_;
};

}  // namespace kvpcie::simd
