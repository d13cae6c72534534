// Frames of the card's pixel types as RGBA pictures, for PNG files and the viewer.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <cstddef>
#include <cstdint>

namespace kvpcie::tools {

// Converts one frame of width x height pixels (its first height lines; parameter lines after
// them are ignored) into `rgba`, width x height x 4 bytes, alpha 255. False, writing nothing, for
// a pixel type it cannot show (PIXEL32 included), sizes of 0 or less, a picture too large to
// address, a null pointer, or `frameBytes` too short for the picture.
//
// How each type looks:
//   UYVY422  U Y0 V Y1 per pixel pair, BT.601 limited range. An odd width leaves the last pixel
//            of a line without its V byte; it is shown without colour difference.
//   Y8       grey.
//   Y16      little-endian, stretched from the picture's minimum (black) to its maximum
//            (white). A flat picture has nothing to stretch: it shows its value scaled from
//            0..65535 to 0..255.
//   Y16&Y8   three bytes a pixel: the raw 16-bit sensor value, little-endian, then the 8-bit
//            picture made from it; the 8-bit byte is shown as grey.
//   BGR24    B, G, R bytes.
bool ConvertToRgba(ePixelType type, int width, int height, const unsigned char* frame,
                   std::size_t frameBytes, unsigned char* rgba);

// How Y16 levels become greys: stretched between the picture's own minimum and maximum
// (automatic), or between `low` (black and below) and `high` (white and above), which hold from
// frame to frame. A window with high <= low counts as automatic.
struct Y16Window {
    bool automatic = true;
    std::uint32_t low = 0;
    std::uint32_t high = 0xFFFF;
};
// As above, with Y16 shown through `window`; the other types are shown as above.
bool ConvertToRgba(ePixelType type, int width, int height, const unsigned char* frame,
                   std::size_t frameBytes, unsigned char* rgba, const Y16Window& window);

}  // namespace kvpcie::tools
