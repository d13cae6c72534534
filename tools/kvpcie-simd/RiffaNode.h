// The Windows driver model's /wine/riffaN: requests to card N's RIFFA device, each written whole
// and its answer read back from the same open file.
#pragma once

#include "NodeHandler.h"
#include "RiffaExchange.h"

#include "sim/SimRiffaDevice.h"

namespace kvpcie::simd {

class RiffaNode final : public NodeHandler {
public:
    explicit RiffaNode(std::shared_ptr<sim::SimRiffaDevice> device) : device_(std::move(device)) {}

    int Read(char* buffer, std::size_t size, std::int64_t offset) override {
        return exchange_.Read(buffer, size, offset);
    }
    int Write(const char* buffer, std::size_t size, std::int64_t offset) override {
        return exchange_.Write(*device_, buffer, size, offset);
    }

private:
    const std::shared_ptr<sim::SimRiffaDevice> device_;
    RiffaExchange exchange_;
};

}  // namespace kvpcie::simd
