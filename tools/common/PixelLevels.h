// The raw value of one pixel, and the levels of a whole picture, for every pixel type: what a
// pixel inspector and a histogram show.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kvpcie::tools {

// What pixel (x, y) of a frame holds, as its bytes mean it: "Y 16 U 128 V 128" (UYVY422),
// "128" (Y8), "4660 (0x1234)" (Y16), "4660 (0x1234), Y8 77" (Y16&Y8), "B 1 G 2 R 3" (BGR24),
// "0x01020304" (PIXEL32). Empty for a pixel outside the picture or a frame too short for it.
std::string DescribePixel(ePixelType type, int width, int height, const unsigned char* frame,
                          std::size_t frameBytes, int x, int y);

// The levels of a picture in 256 bins: 8-bit levels as they are, 16-bit ones by their high
// byte; UYVY422 counts Y, Y16&Y8 its 16-bit value, BGR24 its luma. A pixel is clipped when its
// level is the lowest or the highest one the type can hold.
struct LevelHistogram {
    std::array<std::uint32_t, 256> bins{};
    std::uint64_t pixels = 0;
    std::uint64_t clippedLow = 0;
    std::uint64_t clippedHigh = 0;
    int bits = 8;
    // Over the pixels counted, in the type's own levels (0-65535 for the 16-bit types).
    std::uint32_t minLevel = 0;
    std::uint32_t maxLevel = 0;
    std::uint64_t levelSum = 0;

    double ClippedLowShare() const { return pixels == 0 ? 0.0 : double(clippedLow) / pixels; }
    double ClippedHighShare() const { return pixels == 0 ? 0.0 : double(clippedHigh) / pixels; }
    double MeanLevel() const { return pixels == 0 ? 0.0 : double(levelSum) / pixels; }
};

// Counts every `step`-th pixel of every `step`-th line (step 1: all). False, counting nothing,
// for a type without levels (PIXEL32), bad sizes or a frame too short for the picture.
bool CountLevels(ePixelType type, int width, int height, const unsigned char* frame,
                 std::size_t frameBytes, int step, LevelHistogram& out);

}  // namespace kvpcie::tools
