// The simulated card's camera-like scene.
#include "SimScene.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace kvpcie::sim {
namespace {

constexpr std::uint32_t kUyvy = 0;
constexpr std::uint32_t kY8 = 1;
constexpr std::uint32_t kY16 = 2;
constexpr std::uint32_t kY16Y8 = 3;
constexpr std::uint32_t kBgr24 = 4;
constexpr std::uint32_t kPixel32 = 5;

// 5 x 7 digits, one row a byte, the leftmost column in bit 4.
constexpr std::uint8_t kDigits[10][7] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}};
constexpr int kCounterDigits = 6;

// What lies at a point of the scene: its 16-bit level, and which object it belongs to (the
// colour types tint the objects).
enum class Object { Background, Disc, Bar, Counter };

// Everything about a frame that does not change from pixel to pixel.
struct Layout {
    std::int64_t width, lines;
    std::int64_t discX, discY, discRadius2;
    std::int64_t barLeft, barRight, barTop, barBottom;
    std::int64_t scale;  // counter pixels per font pixel
    char digits[kCounterDigits];
    std::uint32_t number;
};

Layout MakeLayout(const SceneFrame& frame) {
    Layout layout{};
    layout.width = frame.width;
    layout.lines = frame.lines;
    layout.number = frame.number;
    // One turn of the disc in ten seconds at 25 frames per second.
    const double t = frame.number * (2.0 * 3.14159265358979 / 250.0);
    layout.discX = static_cast<std::int64_t>(frame.width * (0.5 + 0.3 * std::cos(t)));
    layout.discY = static_cast<std::int64_t>(frame.lines * (0.45 + 0.25 * std::sin(1.7 * t)));
    const std::int64_t radius = std::max<std::int64_t>(2, std::min(frame.width, frame.lines) / 8);
    layout.discRadius2 = radius * radius;
    const std::int64_t barWidth = std::max<std::int64_t>(2, frame.width / 6);
    const std::int64_t travel = frame.width + barWidth;
    layout.barLeft = static_cast<std::int64_t>(frame.number * 3 % travel) - barWidth;
    layout.barRight = layout.barLeft + barWidth;
    layout.barTop = frame.lines * 62 / 100;
    layout.barBottom = frame.lines * 78 / 100;
    layout.scale = std::max<std::int64_t>(1, frame.lines / 96);
    std::uint32_t n = frame.number;
    for (int i = kCounterDigits - 1; i >= 0; --i) {
        layout.digits[i] = static_cast<char>(n % 10);
        n /= 10;
    }
    return layout;
}

// A cheap, well-mixed hash for the noise.
std::uint32_t Mix(std::uint32_t a) {
    a ^= a >> 16;
    a *= 0x7FEB352Du;
    a ^= a >> 15;
    a *= 0x846CA68Bu;
    a ^= a >> 16;
    return a;
}

// The counter stands in the top right corner (a viewer's own figures go top left).
bool OnCounter(const Layout& layout, std::int64_t x, std::int64_t y, bool& lit) {
    const std::int64_t margin = 2 * layout.scale;
    const std::int64_t cell = 6 * layout.scale;
    const std::int64_t right = margin + kCounterDigits * cell + layout.scale;
    const std::int64_t bottom = margin + 9 * layout.scale;
    x -= layout.width - right;
    if (x < 0 || y >= bottom) {
        return false;
    }
    lit = false;
    const std::int64_t fx = (x - margin - layout.scale) / layout.scale;
    const std::int64_t fy = (y - margin - layout.scale) / layout.scale;
    if (x >= margin + layout.scale && y >= margin + layout.scale && fy < 7) {
        const std::int64_t digit = fx / 6;
        const std::int64_t column = fx % 6;
        if (digit < kCounterDigits && column < 5) {
            lit = (kDigits[static_cast<int>(layout.digits[digit])][fy] >> (4 - column) & 1) != 0;
        }
    }
    return true;
}

std::uint32_t Level(const Layout& layout, std::int64_t x, std::int64_t y, Object& object) {
    bool lit = false;
    if (OnCounter(layout, x, y, lit)) {
        object = Object::Counter;
        return lit ? 60000 : 3000;
    }
    // A sky-to-ground gradient with light from the left.
    std::int64_t level = 9000 + 22000 * y / layout.lines + 9000 * (layout.width - x) / layout.width;
    object = Object::Background;
    const std::int64_t dx = x - layout.discX;
    const std::int64_t dy = y - layout.discY;
    const std::int64_t distance2 = dx * dx + dy * dy;
    if (distance2 < layout.discRadius2) {
        // Warm in the middle, cooler to the rim.
        level = 58000 - 16000 * distance2 / layout.discRadius2;
        object = Object::Disc;
    } else if (x >= layout.barLeft && x < layout.barRight && y >= layout.barTop &&
               y < layout.barBottom) {
        level = 5000;
        object = Object::Bar;
    }
    const std::uint32_t noise =
        Mix(static_cast<std::uint32_t>(x) * 0x9E3779B1u ^ static_cast<std::uint32_t>(y) << 16 ^
            layout.number * 0x85EBCA77u);
    level += static_cast<std::int64_t>(noise & 0x3FF) - 512;
    return static_cast<std::uint32_t>(std::clamp<std::int64_t>(level, 1, 65534));
}

std::uint8_t Clamp8(std::int64_t value) {
    return static_cast<std::uint8_t>(std::clamp<std::int64_t>(value, 0, 255));
}

// The pixel's bytes into `bytes` (at most 4).
void PixelBytes(const Layout& layout, std::uint32_t code, std::int64_t pixel, std::uint8_t* bytes) {
    const std::int64_t x = pixel % layout.width;
    const std::int64_t y = pixel / layout.width;
    Object object = Object::Background;
    const std::uint32_t level = Level(layout, x, y, object);
    const auto grey = static_cast<std::uint8_t>(level >> 8);
    switch (code) {
        case kY8:
            bytes[0] = grey;
            return;
        case kY16:
        case kY16Y8:
            bytes[0] = static_cast<std::uint8_t>(level);
            bytes[1] = static_cast<std::uint8_t>(level >> 8);
            bytes[2] = grey;
            return;
        case kUyvy: {
            // Y in the limited range; U and V of the pair's first pixel: a blue sky, an orange
            // disc, a blue bar.
            Object first = object;
            if (x % 2 == 1) {
                Level(layout, x - 1, y, first);
            }
            std::int64_t u = 128 + 24 - 48 * y / layout.lines;
            std::int64_t v = 128 - 8;
            if (first == Object::Disc) {
                u = 90;
                v = 190;
            } else if (first == Object::Bar) {
                u = 170;
                v = 110;
            } else if (first == Object::Counter) {
                u = v = 128;
            }
            bytes[0] = Clamp8(x % 2 == 0 ? u : v);
            bytes[1] = Clamp8(16 + grey * 219 / 255);
            return;
        }
        default: {
            std::int64_t b = grey + 30 - 40 * y / layout.lines;
            std::int64_t g = grey;
            std::int64_t r = grey - 10;
            if (object == Object::Disc) {
                r = 255;
                g = grey * 3 / 5;
                b = 40;
            } else if (object == Object::Bar) {
                r = 30;
                g = 60;
                b = 160;
            } else if (object == Object::Counter) {
                r = g = b = grey;
            }
            bytes[0] = Clamp8(b);
            bytes[1] = Clamp8(g);
            bytes[2] = Clamp8(r);
            bytes[3] = 0;
            return;
        }
    }
}

}  // namespace

std::uint32_t SceneBytesPerPixel(std::uint32_t pixelCode) {
    switch (pixelCode) {
        case kUyvy:
        case kY16:
            return 2;
        case kY8:
            return 1;
        case kY16Y8:
        case kBgr24:
            return 3;
        case kPixel32:
            return 4;
        default:
            return 0;
    }
}

void GenerateScene(const SceneFrame& frame, std::uint32_t offset, std::uint8_t* out,
                   std::size_t size) {
    const std::uint32_t bpp = SceneBytesPerPixel(frame.pixelCode);
    const std::uint64_t pictureBytes = std::uint64_t{frame.width} * frame.lines * bpp;
    std::size_t done = 0;
    if (bpp != 0 && frame.width != 0 && frame.lines != 0) {
        const Layout layout = MakeLayout(frame);
        std::uint8_t bytes[4];
        while (done < size && offset + done < pictureBytes) {
            const std::uint64_t at = offset + done;
            const auto pixel = static_cast<std::int64_t>(at / bpp);
            const std::uint32_t first = static_cast<std::uint32_t>(at % bpp);
            PixelBytes(layout, frame.pixelCode, pixel, bytes);
            const std::size_t piece = std::min<std::size_t>(bpp - first, size - done);
            std::memcpy(out + done, bytes + first, piece);
            done += piece;
        }
    }
    std::memset(out + done, 0, size - done);
}

}  // namespace kvpcie::sim
