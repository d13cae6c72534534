// Frames of the card's pixel types as RGBA pictures.
#include "PixelConversion.h"

#include <QtEndian>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>

namespace kvpcie::tools {
namespace {

bool CanShow(ePixelType type) {
    switch (type) {
        case UYVY422:
        case Y8:
        case Y16:
        case Y16_Y8:
        case BGR24:
            return true;
        default:
            return false;
    }
}

void Put(unsigned char* pixel, int r, int g, int b) {
    pixel[0] = static_cast<unsigned char>(r);
    pixel[1] = static_cast<unsigned char>(g);
    pixel[2] = static_cast<unsigned char>(b);
    pixel[3] = 255;
}

// `scaled` is a colour times 256; negative values are clamped before the shift, whose result on
// them would be the compiler's choice.
int Clamp8(int scaled) {
    return std::clamp(scaled, 0, 255 * 256) >> 8;
}

// BT.601, limited range (Y 16..235, U and V 16..240), in 8.8 fixed point.
void PutYuv(unsigned char* pixel, int y, int u, int v) {
    const int c = 298 * (y - 16) + 128;
    const int d = u - 128;
    const int e = v - 128;
    Put(pixel, Clamp8(c + 409 * e), Clamp8(c - 100 * d - 208 * e), Clamp8(c + 516 * d));
}

void ConvertUyvy(std::size_t width, std::size_t height, const unsigned char* frame,
                 unsigned char* rgba) {
    for (std::size_t row = 0; row < height; ++row) {
        const unsigned char* line = frame + row * width * 2;
        for (std::size_t x = 0; x < width; ++x) {
            const unsigned char* pair = line + (x / 2) * 4;
            const int u = pair[0];
            const int y = pair[x % 2 == 0 ? 1 : 3];
            // The V byte of a lone last pixel would be the next line's first byte.
            const int v = (x / 2) * 4 + 2 < width * 2 ? pair[2] : 128;
            PutYuv(rgba + (row * width + x) * 4, y, u, v);
        }
    }
}

void ConvertGrey(std::size_t pixels, std::size_t bytesPerPixel, std::size_t greyOffset,
                 const unsigned char* frame, unsigned char* rgba) {
    for (std::size_t i = 0; i < pixels; ++i) {
        const int grey = frame[i * bytesPerPixel + greyOffset];
        Put(rgba + i * 4, grey, grey, grey);
    }
}

void ConvertY16(std::size_t pixels, const unsigned char* frame, unsigned char* rgba,
                const Y16Window& window) {
    const auto value = [frame](std::size_t i) {
        std::uint16_t word;
        std::memcpy(&word, frame + 2 * i, sizeof word);
        return static_cast<std::uint32_t>(qFromLittleEndian(word));
    };
    std::uint32_t low = 0xFFFF;
    std::uint32_t high = 0;
    for (std::size_t i = 0; i < pixels; ++i) {
        low = std::min(low, value(i));
        high = std::max(high, value(i));
    }
    // A flat picture keeps its brightness rather than turning an arbitrary grey. A window set
    // by the user holds still from frame to frame; levels outside it are black or white.
    const bool fixed = !window.automatic && window.high > window.low && window.high <= 0xFFFF;
    std::uint32_t range = high > low ? high - low : 0xFFFF;
    std::uint32_t base = high > low ? low : 0;
    if (fixed) {
        range = window.high - window.low;
        base = window.low;
    }
    // Division per pixel was most of a viewer's cost: each level that occurs gets its grey once
    // (a table per thread: nothing is allocated per frame), by a multiplication with the
    // range's reciprocal that is exact for every numerator below 2^24 since the range is at
    // most 2^16; the pixels look theirs up and are stored a word at a time.
    thread_local std::uint32_t rgbaOfLevel[0x10000];
    const std::uint64_t reciprocal = ((std::uint64_t{1} << 40) + range - 1) / range;
    for (std::uint32_t level = low; level <= high; ++level) {
        const std::uint32_t inside = std::clamp(level, base, base + range) - base;
        const std::uint64_t numerator = std::uint64_t{inside} * 255 + range / 2;
        const auto grey = static_cast<std::uint32_t>((numerator * reciprocal) >> 40);
        rgbaOfLevel[level] = qToLittleEndian(grey * 0x010101u | 0xFF000000u);
    }
    for (std::size_t i = 0; i < pixels; ++i) {
        std::memcpy(rgba + i * 4, &rgbaOfLevel[value(i)], 4);
    }
}

void ConvertBgr(std::size_t pixels, const unsigned char* frame, unsigned char* rgba) {
    for (std::size_t i = 0; i < pixels; ++i) {
        const unsigned char* bgr = frame + i * 3;
        Put(rgba + i * 4, bgr[2], bgr[1], bgr[0]);
    }
}

}  // namespace

bool ConvertToRgba(ePixelType type, int width, int height, const unsigned char* frame,
                   std::size_t frameBytes, unsigned char* rgba) {
    return ConvertToRgba(type, width, height, frame, frameBytes, rgba, Y16Window{});
}

bool ConvertToRgba(ePixelType type, int width, int height, const unsigned char* frame,
                   std::size_t frameBytes, unsigned char* rgba, const Y16Window& window) {
    if (!CanShow(type) || width <= 0 || height <= 0 || frame == nullptr || rgba == nullptr) {
        return false;
    }
    // Both factors are below 2^31, so the product fits 64 bits; the RGBA size is the larger.
    const std::uint64_t pixels = std::uint64_t(width) * std::uint64_t(height);
    if (pixels > std::numeric_limits<std::size_t>::max() / 4) {
        return false;
    }
    if (KvFrameSizeBytes(type, width, height) > frameBytes) {
        return false;
    }
    const auto count = static_cast<std::size_t>(pixels);
    switch (type) {
        case UYVY422:
            ConvertUyvy(static_cast<std::size_t>(width), static_cast<std::size_t>(height), frame,
                        rgba);
            break;
        case Y8:
            ConvertGrey(count, 1, 0, frame, rgba);
            break;
        case Y16:
            ConvertY16(count, frame, rgba, window);
            break;
        case Y16_Y8:
            ConvertGrey(count, 3, 2, frame, rgba);
            break;
        default:
            ConvertBgr(count, frame, rgba);
            break;
    }
    return true;
}

}  // namespace kvpcie::tools
