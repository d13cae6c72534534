// The tools' shared code: frames of every pixel type as RGBA, and raw recording names.
#include "PixelConversion.h"
#include "RawRecordingName.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using kvpcie::tools::ConvertToRgba;
using kvpcie::tools::ParseRawRecordingName;
using kvpcie::tools::RawRecordingInfo;

using Rgba = std::array<int, 4>;
using Bytes = std::vector<unsigned char>;

constexpr unsigned char kUntouched = 0x5A;

// Converts and returns the picture's pixels; an empty result when the conversion refused.
std::vector<Rgba> Convert(ePixelType type, int width, int height, const Bytes& frame) {
    Bytes rgba(static_cast<std::size_t>(width) * height * 4, kUntouched);
    if (!ConvertToRgba(type, width, height, frame.data(), frame.size(), rgba.data())) {
        return {};
    }
    std::vector<Rgba> pixels;
    for (std::size_t i = 0; i < rgba.size(); i += 4) {
        pixels.push_back({rgba[i], rgba[i + 1], rgba[i + 2], rgba[i + 3]});
    }
    return pixels;
}

::testing::AssertionResult Near(const Rgba& seen, int r, int g, int b) {
    const bool near = std::abs(seen[0] - r) <= 2 && std::abs(seen[1] - g) <= 2 &&
                      std::abs(seen[2] - b) <= 2 && seen[3] == 255;
    if (near) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure()
           << "saw (" << seen[0] << ", " << seen[1] << ", " << seen[2] << ", " << seen[3]
           << "), expected (" << r << ", " << g << ", " << b << ", 255)";
}

TEST(PixelConversion, UyvyIsBt601LimitedRange) {
    // Two pixel pairs: white and black sharing neutral chroma, then a pure red pair.
    const Bytes frame = {128, 235, 128, 16, 90, 81, 240, 81};
    const auto pixels = Convert(UYVY422, 4, 1, frame);
    ASSERT_EQ(pixels.size(), 4u);
    EXPECT_TRUE(Near(pixels[0], 255, 255, 255));
    EXPECT_TRUE(Near(pixels[1], 0, 0, 0));
    EXPECT_TRUE(Near(pixels[2], 255, 0, 0));
    EXPECT_TRUE(Near(pixels[3], 255, 0, 0));
}

TEST(PixelConversion, UyvyClampsColoursOutsideTheRange) {
    // Y beyond 16..235 with neutral chroma, then strong chroma pushing channels past both ends.
    const Bytes frame = {128, 255, 128, 0, 16, 16, 240, 16, 240, 235, 16, 235};
    const auto pixels = Convert(UYVY422, 6, 1, frame);
    ASSERT_EQ(pixels.size(), 6u);
    EXPECT_EQ(pixels[0], (Rgba{255, 255, 255, 255}));
    EXPECT_EQ(pixels[1], (Rgba{0, 0, 0, 255}));
    EXPECT_TRUE(Near(pixels[2], 179, 0, 0));
    EXPECT_TRUE(Near(pixels[4], 76, 255, 255));
}

TEST(PixelConversion, UyvyWithAnOddWidthShowsTheLastPixelWithoutColour) {
    // Line 0: a red pair and a lone pixel whose V byte would be line 1's first byte (255).
    const Bytes frame = {90, 81, 240, 81, 255, 235, 255, 16, 255, 16, 255, 16};
    const auto pixels = Convert(UYVY422, 3, 2, frame);
    ASSERT_EQ(pixels.size(), 6u);
    EXPECT_TRUE(Near(pixels[0], 255, 0, 0));
    // Y = 235, U = 255: with V = 255 green would be about 102.
    EXPECT_TRUE(Near(pixels[2], 255, 205, 255));
}

TEST(PixelConversion, Y8IsGrey) {
    const auto pixels = Convert(Y8, 3, 1, {0, 77, 255});
    ASSERT_EQ(pixels.size(), 3u);
    EXPECT_TRUE(Near(pixels[0], 0, 0, 0));
    EXPECT_EQ(pixels[1], (Rgba{77, 77, 77, 255}));
    EXPECT_TRUE(Near(pixels[2], 255, 255, 255));
}

TEST(PixelConversion, Y16IsLittleEndianStretchedFromMinimumToMaximum) {
    // 1000, 2000, 3000: the middle one lands halfway.
    const Bytes frame = {0xE8, 0x03, 0xD0, 0x07, 0xB8, 0x0B};
    const auto pixels = Convert(Y16, 3, 1, frame);
    ASSERT_EQ(pixels.size(), 3u);
    EXPECT_EQ(pixels[0], (Rgba{0, 0, 0, 255}));
    EXPECT_TRUE(Near(pixels[1], 128, 128, 128));
    EXPECT_EQ(pixels[2], (Rgba{255, 255, 255, 255}));
}

TEST(PixelConversion, Y16StretchesOverThePictureOnly) {
    // The parameter line after the picture holds 0 and 65535; the picture holds 10 and 20.
    const Bytes frame = {10, 0, 20, 0, 0, 0, 0xFF, 0xFF};
    const auto pixels = Convert(Y16, 2, 1, frame);
    ASSERT_EQ(pixels.size(), 2u);
    EXPECT_EQ(pixels[0], (Rgba{0, 0, 0, 255}));
    EXPECT_EQ(pixels[1], (Rgba{255, 255, 255, 255}));
}

TEST(PixelConversion, AFlatY16PictureShowsItsValueScaled) {
    const auto black = Convert(Y16, 2, 1, {0, 0, 0, 0});
    const auto middle = Convert(Y16, 2, 1, {0x00, 0x80, 0x00, 0x80});
    const auto white = Convert(Y16, 1, 1, {0xFF, 0xFF});
    ASSERT_EQ(black.size(), 2u);
    ASSERT_EQ(middle.size(), 2u);
    ASSERT_EQ(white.size(), 1u);
    EXPECT_EQ(black[1], (Rgba{0, 0, 0, 255}));
    EXPECT_TRUE(Near(middle[0], 128, 128, 128));
    EXPECT_EQ(white[0], (Rgba{255, 255, 255, 255}));
}

TEST(PixelConversion, Y16AndY8ShowsTheEightBitValue) {
    // Each pixel: 16-bit value little-endian, then the 8-bit value.
    const Bytes frame = {0xFF, 0xFF, 10, 0x00, 0x00, 200};
    const auto pixels = Convert(Y16_Y8, 2, 1, frame);
    ASSERT_EQ(pixels.size(), 2u);
    EXPECT_EQ(pixels[0], (Rgba{10, 10, 10, 255}));
    EXPECT_EQ(pixels[1], (Rgba{200, 200, 200, 255}));
}

TEST(PixelConversion, Bgr24IsBlueGreenRed) {
    const Bytes frame = {0, 0, 255, 0, 255, 0, 255, 0, 0, 1, 2, 3};
    const auto pixels = Convert(BGR24, 2, 2, frame);
    ASSERT_EQ(pixels.size(), 4u);
    EXPECT_EQ(pixels[0], (Rgba{255, 0, 0, 255}));
    EXPECT_EQ(pixels[1], (Rgba{0, 255, 0, 255}));
    EXPECT_EQ(pixels[2], (Rgba{0, 0, 255, 255}));
    EXPECT_EQ(pixels[3], (Rgba{3, 2, 1, 255}));
}

TEST(PixelConversion, LinesAfterThePictureAreIgnored) {
    const Bytes frame = {1, 2, 3, 4, 99, 99, 99, 99};
    const auto pixels = Convert(Y8, 2, 2, frame);
    ASSERT_EQ(pixels.size(), 4u);
    EXPECT_EQ(pixels[3], (Rgba{4, 4, 4, 255}));
}

TEST(PixelConversion, RefusesWithoutWritingAnything) {
    const Bytes frame(64, 0x80);
    Bytes rgba(256, kUntouched);
    const auto refused = [&](ePixelType type, int width, int height, std::size_t bytes) {
        const bool converted = ConvertToRgba(type, width, height, frame.data(), bytes, rgba.data());
        return !converted && rgba == Bytes(256, kUntouched);
    };
    EXPECT_TRUE(refused(PIXEL32, 2, 2, 64));
    EXPECT_TRUE(refused(static_cast<ePixelType>(9), 2, 2, 64));
    EXPECT_TRUE(refused(static_cast<ePixelType>(-1), 2, 2, 64));
    EXPECT_TRUE(refused(Y8, 0, 2, 64));
    EXPECT_TRUE(refused(Y8, 2, 0, 64));
    EXPECT_TRUE(refused(Y8, -2, 2, 64));
    EXPECT_TRUE(refused(Y8, 2, -2, 64));
    EXPECT_TRUE(refused(Y8, 4, 4, 15));
    EXPECT_TRUE(refused(UYVY422, 4, 2, 15));
    EXPECT_TRUE(refused(Y16, 4, 2, 15));
    EXPECT_TRUE(refused(Y16_Y8, 4, 2, 23));
    EXPECT_TRUE(refused(BGR24, 4, 2, 23));
    // Sizes whose product would wrap around in 32 bits.
    EXPECT_TRUE(refused(BGR24, INT_MAX, INT_MAX, 64));
    EXPECT_TRUE(refused(Y16, 65536, 32768, 64));
    EXPECT_FALSE(ConvertToRgba(Y8, 2, 2, nullptr, 64, rgba.data()));
    EXPECT_FALSE(ConvertToRgba(Y8, 2, 2, frame.data(), 64, nullptr));
    // The exact size is enough.
    EXPECT_TRUE(ConvertToRgba(BGR24, 4, 2, frame.data(), 24, rgba.data()));
}

// The name as the recorder writes it.
std::string NameOf(const RawRecordingInfo& info) {
    const char* type = info.pixelType == UYVY422  ? "UYVY422"
                       : info.pixelType == Y8     ? "Y8"
                       : info.pixelType == Y16    ? "Y16"
                       : info.pixelType == Y16_Y8 ? "Y16&Y8"
                                                  : "BGR24";
    return std::to_string(info.index) + "_" + std::to_string(info.width) + "x" +
           std::to_string(info.height) + "_ParamLine" + std::to_string(info.paramLines) + "_Fps" +
           std::to_string(info.frameRate) + "_" + type + ".raw";
}

TEST(RawRecordingName, RoundTripsEachType) {
    for (ePixelType type : {UYVY422, Y8, Y16, Y16_Y8, BGR24}) {
        RawRecordingInfo written;
        written.index = 12;
        written.width = 640;
        written.height = 512;
        written.paramLines = 2;
        written.frameRate = 50;
        written.pixelType = type;
        const std::string name = NameOf(written);
        SCOPED_TRACE(name);
        const auto info = ParseRawRecordingName(name);
        ASSERT_TRUE(info.has_value());
        EXPECT_EQ(info->index, 12);
        EXPECT_EQ(info->width, 640);
        EXPECT_EQ(info->height, 512);
        EXPECT_EQ(info->paramLines, 2);
        EXPECT_EQ(info->frameRate, 50);
        EXPECT_EQ(info->pixelType, type);
    }
    // The recorder's own spelling, as its tests show it.
    const auto y16y8 = ParseRawRecordingName("0_640x512_ParamLine2_Fps50_Y16&Y8.raw");
    ASSERT_TRUE(y16y8.has_value());
    EXPECT_EQ(y16y8->pixelType, Y16_Y8);
}

TEST(RawRecordingName, TakesTheLastPartOfAPath) {
    const auto slash =
        ParseRawRecordingName("VideoRecord/Capture1/x_1/0_64x32_ParamLine0_Fps25_Y8.raw");
    ASSERT_TRUE(slash.has_value());
    EXPECT_EQ(slash->width, 64);
    EXPECT_EQ(slash->height, 32);
    const auto backslash = ParseRawRecordingName("C:\\rec/a\\3_1x65535_ParamLine0_Fps0_BGR24.raw");
    ASSERT_TRUE(backslash.has_value());
    EXPECT_EQ(backslash->index, 3);
    EXPECT_EQ(backslash->height, 65535);
    EXPECT_EQ(backslash->frameRate, 0);
    EXPECT_EQ(backslash->pixelType, BGR24);
}

TEST(RawRecordingName, AcceptsTheLimits) {
    const auto info =
        ParseRawRecordingName("2147483647_65535x1_ParamLine2147483647_Fps2147483647_Y16.raw");
    ASSERT_TRUE(info.has_value());
    EXPECT_EQ(info->index, INT_MAX);
    EXPECT_EQ(info->width, 65535);
    EXPECT_EQ(info->height, 1);
    EXPECT_EQ(info->paramLines, INT_MAX);
    EXPECT_EQ(info->frameRate, INT_MAX);
}

TEST(RawRecordingName, RefusesEveryOtherName) {
    const std::string_view bad[] = {
        "",
        "/",
        "dir/",
        ".raw",
        "0_64x32_ParamLine0_Fps25_Y8.raw/",
        "0_64x32_ParamLine0_Fps25_Y8",
        "0_64x32_ParamLine0_Fps25_Y8.RAW",
        "0_64x32_ParamLine0_Fps25_Y8.raw ",
        " 0_64x32_ParamLine0_Fps25_Y8.raw",
        "0_64x32_ParamLine0_Fps25_Y8.raw.raw",
        "0_64x32_ParamLine0_Fps25_y8.raw",
        "0_64x32_ParamLine0_Fps25_Y16_Y8.raw",
        "0_64x32_ParamLine0_Fps25_PIXEL32.raw",
        "0_64x32_ParamLine0_Fps25_.raw",
        "0_64x32_ParamLine0_Fps25Y8.raw",
        "0_64x32_ParamLine0_Fps_Y8.raw",
        "0_64x32_ParamLine_Fps25_Y8.raw",
        "0_64x32_Paramline0_Fps25_Y8.raw",
        "0_64x32_ParamLine0_fps25_Y8.raw",
        "0_64x32__ParamLine0_Fps25_Y8.raw",
        "0_64X32_ParamLine0_Fps25_Y8.raw",
        "0_64x_ParamLine0_Fps25_Y8.raw",
        "0_x32_ParamLine0_Fps25_Y8.raw",
        "0_64_ParamLine0_Fps25_Y8.raw",
        "_64x32_ParamLine0_Fps25_Y8.raw",
        "0_64x32_Fps25_Y8.raw",
        "0_64x32_ParamLine0_Y8.raw",
        "x_64x32_ParamLine0_Fps25_Y8.raw",
        "-1_64x32_ParamLine0_Fps25_Y8.raw",
        "+1_64x32_ParamLine0_Fps25_Y8.raw",
        "0_-64x32_ParamLine0_Fps25_Y8.raw",
        "0_64x32_ParamLine-1_Fps25_Y8.raw",
        "0_64x32_ParamLine0_Fps-25_Y8.raw",
        "0_0x32_ParamLine0_Fps25_Y8.raw",
        "0_64x0_ParamLine0_Fps25_Y8.raw",
        "0_65536x32_ParamLine0_Fps25_Y8.raw",
        "0_64x65536_ParamLine0_Fps25_Y8.raw",
        "0_064x32_ParamLine0_Fps25_Y8.raw",
        "00_64x32_ParamLine0_Fps25_Y8.raw",
        "0_64x32_ParamLine00_Fps25_Y8.raw",
        "0_6 4x32_ParamLine0_Fps25_Y8.raw",
        "0_0x40x32_ParamLine0_Fps25_Y8.raw",
        "0_1e3x32_ParamLine0_Fps25_Y8.raw",
        "2147483648_64x32_ParamLine0_Fps25_Y8.raw",
        "99999999999999999999999_64x32_ParamLine0_Fps25_Y8.raw",
        "0_64x32_ParamLine4294967296_Fps25_Y8.raw",
        "0_64x32_ParamLine0_Fps18446744073709551617_Y8.raw",
        "0_64x32_ParamLine0_Fps25_Y8.raw\\",
        "0_64x32_ParamLine0_Fps25_\xD9\xA8.raw",
        "\xD9\xA0_64x32_ParamLine0_Fps25_Y8.raw",
    };
    for (std::string_view name : bad) {
        SCOPED_TRACE(std::string(name));
        EXPECT_FALSE(ParseRawRecordingName(name).has_value());
    }
    // An embedded NUL ends nothing: the name is still longer than it should be.
    const std::string withNul("0_64x32_ParamLine0_Fps25_Y8.raw\0x", 33);
    EXPECT_FALSE(ParseRawRecordingName(withNul).has_value());
    const std::string nulInNumber("0_6\0004x32_ParamLine0_Fps25_Y8.raw", 32);
    EXPECT_FALSE(ParseRawRecordingName(nulInNumber).has_value());
}

TEST(RawRecordingName, ParsesOnlyWhatItCanSpellBack) {
    // Every prefix, and every single-byte change, of a good name: a name that parses must be
    // exactly the recorder's spelling of what was read, so no stray byte gets through.
    const std::string good = "7_320x256_ParamLine1_Fps25_Y16&Y8.raw";
    for (std::size_t length = 0; length < good.size(); ++length) {
        EXPECT_FALSE(ParseRawRecordingName(good.substr(0, length)).has_value()) << length;
    }
    int parsed = 0;
    for (std::size_t i = 0; i < good.size(); ++i) {
        for (int byte = 0; byte < 256; ++byte) {
            std::string name = good;
            name[i] = static_cast<char>(byte);
            if (name == good) {
                continue;
            }
            if (const auto info = ParseRawRecordingName(name)) {
                ++parsed;
                EXPECT_EQ(NameOf(*info), name);
            }
        }
    }
    // Only digits may change, each to another digit: the index's 7 to 9 others, the width's 3
    // to 8 (a leading 0 is refused) and its 2 and 0 to 9 each, the height likewise, the
    // parameter lines to 9, the rate's 2 to 8 and its 5 to 9.
    EXPECT_EQ(parsed, 9 + (8 + 9 + 9) * 2 + 9 + 8 + 9);
}

}  // namespace
