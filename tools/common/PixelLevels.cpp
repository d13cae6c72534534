// Pixel values and level histograms of the card's pixel types.
#include "PixelLevels.h"

#include <algorithm>
#include <cstdio>

namespace kvpcie::tools {
namespace {

bool FitsFrame(ePixelType type, int width, int height, std::size_t frameBytes) {
    if (width <= 0 || height <= 0 || type < UYVY422 || type > PIXEL32) {
        return false;
    }
    return KvFrameSizeBytes(type, width, height) <= frameBytes;
}

unsigned Word16(const unsigned char* p) {
    return static_cast<unsigned>(p[0]) | static_cast<unsigned>(p[1]) << 8;
}

unsigned Luma(const unsigned char* bgr) {
    return (29u * bgr[0] + 150u * bgr[1] + 77u * bgr[2]) >> 8;
}

// The level of pixel (x, y) and how many bits the type's levels have.
unsigned Level(ePixelType type, const unsigned char* frame, int width, int x, int y) {
    const std::size_t pixel = static_cast<std::size_t>(y) * width + x;
    switch (type) {
        case UYVY422:
            return frame[(pixel & ~std::size_t{1}) * 2 + 1 + (pixel & 1) * 2];
        case Y8:
            return frame[pixel];
        case Y16:
            return Word16(frame + 2 * pixel);
        case Y16_Y8:
            return Word16(frame + 3 * pixel);
        case BGR24:
            return Luma(frame + 3 * pixel);
        default:
            return 0;
    }
}

}  // namespace

std::string DescribePixel(ePixelType type, int width, int height, const unsigned char* frame,
                          std::size_t frameBytes, int x, int y) {
    if (frame == nullptr || !FitsFrame(type, width, height, frameBytes) || x < 0 || y < 0 ||
        x >= width || y >= height) {
        return {};
    }
    const std::size_t pixel = static_cast<std::size_t>(y) * width + x;
    char text[64];
    switch (type) {
        case UYVY422: {
            const unsigned char* pair = frame + (pixel & ~std::size_t{1}) * 2;
            // The last pixel of an odd line has no V byte of its own.
            const bool hasV = (pixel & ~std::size_t{1}) * 2 + 2 < frameBytes;
            std::snprintf(text, sizeof text, "Y %u U %u V %u", pair[1 + (pixel & 1) * 2], pair[0],
                          hasV ? pair[2] : 0u);
            break;
        }
        case Y8:
            std::snprintf(text, sizeof text, "%u", frame[pixel]);
            break;
        case Y16: {
            const unsigned value = Word16(frame + 2 * pixel);
            std::snprintf(text, sizeof text, "%u (0x%04X)", value, value);
            break;
        }
        case Y16_Y8: {
            const unsigned value = Word16(frame + 3 * pixel);
            std::snprintf(text, sizeof text, "%u (0x%04X), Y8 %u", value, value,
                          frame[3 * pixel + 2]);
            break;
        }
        case BGR24: {
            const unsigned char* bgr = frame + 3 * pixel;
            std::snprintf(text, sizeof text, "B %u G %u R %u", bgr[0], bgr[1], bgr[2]);
            break;
        }
        default: {
            const unsigned char* p = frame + 4 * pixel;
            std::snprintf(text, sizeof text, "0x%02X%02X%02X%02X", p[3], p[2], p[1], p[0]);
            break;
        }
    }
    return text;
}

bool CountLevels(ePixelType type, int width, int height, const unsigned char* frame,
                 std::size_t frameBytes, int step, LevelHistogram& out) {
    out = LevelHistogram{};
    if (frame == nullptr || step < 1 || type == PIXEL32 ||
        !FitsFrame(type, width, height, frameBytes)) {
        return false;
    }
    out.bits = (type == Y16 || type == Y16_Y8) ? 16 : 8;
    const unsigned top = out.bits == 16 ? 0xFFFFu : 0xFFu;
    const int shift = out.bits - 8;
    unsigned lowest = top;
    unsigned highest = 0;
    for (int y = 0; y < height; y += step) {
        for (int x = 0; x < width; x += step) {
            const unsigned level = Level(type, frame, width, x, y);
            ++out.bins[level >> shift];
            out.clippedLow += level == 0;
            out.clippedHigh += level == top;
            out.levelSum += level;
            lowest = std::min(lowest, level);
            highest = std::max(highest, level);
            ++out.pixels;
        }
    }
    out.minLevel = lowest;
    out.maxLevel = highest;
    return true;
}

}  // namespace kvpcie::tools
