// A camera-like moving scene for the simulated card's capture channels: gradients, a warm disc
// and a dark bar that move, the frame's number drawn top right, and sensor noise.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kvpcie::sim {

struct SceneFrame {
    std::uint32_t number = 0;
    std::uint32_t width = 0;
    std::uint32_t lines = 0;      // all lines of the frame, parameter lines included
    std::uint32_t pixelCode = 0;  // the capture channel's pixel code: 0 UYVY422 ... 5 PIXEL32
};

// Bytes per pixel of a pixel code; 0 for a code the scene does not draw.
std::uint32_t SceneBytesPerPixel(std::uint32_t pixelCode);

// Bytes [offset, offset + size) of the frame. Bytes past width x lines pixels are zero, and so
// is a frame whose sizes or pixel code make no picture.
void GenerateScene(const SceneFrame& frame, std::uint32_t offset, std::uint8_t* out,
                   std::size_t size);

}  // namespace kvpcie::sim
