// The frame geometry options that capture, inject and loopback share, and helpers around them.
#pragma once

#include "Arguments.h"

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kvpcie::cli {

struct FrameGeometry {
    int width = 640;
    int height = 512;
    ePixelType type = Y16;

    std::size_t Bytes() const {
        return static_cast<std::size_t>(KvFrameSizeBytes(type, width, height));
    }
};

// --width, --height and --type over `defaults`.
FrameGeometry ParseGeometry(const Arguments& arguments, FrameGeometry defaults = {});

// --frames N and --seconds S; without either, 10 seconds. 0 means no limit of that kind.
struct RunLimits {
    std::uint64_t frames = 0;
    double seconds = 0;
};
RunLimits ParseRunLimits(const Arguments& arguments);

// Bytes of the frame counter that the card stamps over the first pixel.
int StampBytes(ePixelType type);

// Writes a frame as a PNG a person can look at; false when it cannot be converted or saved.
bool SaveFramePng(const std::string& path, const FrameGeometry& geometry, const char* frame);

}  // namespace kvpcie::cli
