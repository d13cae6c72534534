// The tools' shared code: frames of every pixel type as RGBA, and raw recording names.
#include "PixelConversion.h"
#include "RawRecordingName.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using kvpcie::tools::ConvertToRgba;
using kvpcie::tools::ParseRawRecordingName;
using kvpcie::tools::RawRecordingInfo;
using kvpcie::tools::Y16Window;

using Bytes = std::vector<unsigned char>;

constexpr unsigned char kUntouched = 0x5A;

// One pixel of the result; tolerance 0 where the value must be exact, not just about right.
struct Pixel {
    int index;
    int r, g, b;
    int tolerance;
};

void ExpectConverts(const char* what, ePixelType type, int width, int height, const Bytes& frame,
                    const std::vector<Pixel>& expected, const Y16Window& window = {}) {
    SCOPED_TRACE(what);
    Bytes rgba(static_cast<std::size_t>(width) * height * 4, kUntouched);
    ASSERT_TRUE(
        ConvertToRgba(type, width, height, frame.data(), frame.size(), rgba.data(), window));
    for (const Pixel& p : expected) {
        const unsigned char* seen = &rgba[4 * p.index];
        EXPECT_NEAR(seen[0], p.r, p.tolerance) << "pixel " << p.index;
        EXPECT_NEAR(seen[1], p.g, p.tolerance) << "pixel " << p.index;
        EXPECT_NEAR(seen[2], p.b, p.tolerance) << "pixel " << p.index;
        EXPECT_EQ(seen[3], 255) << "pixel " << p.index;
    }
}

TEST(PixelConversion, EachTypeShowsAsExpected) {
    // White and black sharing neutral chroma, then a pure red pair.
    ExpectConverts("UYVY BT.601 limited range", UYVY422, 4, 1, {128, 235, 128, 16, 90, 81, 240, 81},
                   {{0, 255, 255, 255, 2}, {1, 0, 0, 0, 2}, {2, 255, 0, 0, 2}, {3, 255, 0, 0, 2}});
    // Y beyond 16..235, then strong chroma pushing channels past both ends.
    ExpectConverts(
        "UYVY clamps", UYVY422, 6, 1, {128, 255, 128, 0, 16, 16, 240, 16, 240, 235, 16, 235},
        {{0, 255, 255, 255, 0}, {1, 0, 0, 0, 0}, {2, 179, 0, 0, 2}, {4, 76, 255, 255, 2}});
    // The lone last pixel must not borrow line 1's first byte (255) as V: green would be 102.
    ExpectConverts("UYVY odd width", UYVY422, 3, 2,
                   {90, 81, 240, 81, 255, 235, 255, 16, 255, 16, 255, 16},
                   {{0, 255, 0, 0, 2}, {2, 255, 205, 255, 2}});
    ExpectConverts("Y8 grey", Y8, 3, 1, {0, 77, 255},
                   {{0, 0, 0, 0, 2}, {1, 77, 77, 77, 0}, {2, 255, 255, 255, 2}});
    // Little-endian 1000, 2000, 3000: the middle one lands halfway.
    ExpectConverts("Y16 stretch", Y16, 3, 1, {0xE8, 0x03, 0xD0, 0x07, 0xB8, 0x0B},
                   {{0, 0, 0, 0, 0}, {1, 128, 128, 128, 2}, {2, 255, 255, 255, 0}});
    // The parameter line after the picture holds 0 and 65535; the picture holds 10 and 20.
    ExpectConverts("Y16 over the picture only", Y16, 2, 1, {10, 0, 20, 0, 0, 0, 0xFF, 0xFF},
                   {{0, 0, 0, 0, 0}, {1, 255, 255, 255, 0}});
    ExpectConverts("flat Y16 black", Y16, 2, 1, {0, 0, 0, 0}, {{1, 0, 0, 0, 0}});
    ExpectConverts("flat Y16 middle", Y16, 2, 1, {0x00, 0x80, 0x00, 0x80}, {{0, 128, 128, 128, 2}});
    ExpectConverts("flat Y16 white", Y16, 1, 1, {0xFF, 0xFF}, {{0, 255, 255, 255, 0}});
    // A window set by the user: 500 below it black, 2000 halfway, 4000 above it white; the
    // picture's own range (500-4000) plays no part.
    ExpectConverts("Y16 window", Y16, 3, 1, {0xF4, 0x01, 0xD0, 0x07, 0xA0, 0x0F},
                   {{0, 0, 0, 0, 0}, {1, 128, 128, 128, 2}, {2, 255, 255, 255, 0}},
                   Y16Window{false, 1000, 3000});
    ExpectConverts("Y16 window upside down is automatic", Y16, 3, 1,
                   {0xF4, 0x01, 0xD0, 0x07, 0xA0, 0x0F},
                   {{0, 0, 0, 0, 0}, {1, 110, 110, 110, 2}, {2, 255, 255, 255, 0}},
                   Y16Window{false, 3000, 1000});
    // Each pixel: the 16-bit value little-endian, then the 8-bit value shown.
    ExpectConverts("Y16&Y8", Y16_Y8, 2, 1, {0xFF, 0xFF, 10, 0x00, 0x00, 200},
                   {{0, 10, 10, 10, 0}, {1, 200, 200, 200, 0}});
    ExpectConverts("BGR24 order", BGR24, 2, 2, {0, 0, 255, 0, 255, 0, 255, 0, 0, 1, 2, 3},
                   {{0, 255, 0, 0, 0}, {1, 0, 255, 0, 0}, {2, 0, 0, 255, 0}, {3, 3, 2, 1, 0}});
    ExpectConverts("trailing lines ignored", Y8, 2, 2, {1, 2, 3, 4, 99, 99, 99, 99},
                   {{3, 4, 4, 4, 0}});
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

// The limits every front-end checks a format against before it sizes anything.
TEST(FrameFormat, ProblemsAreNamedAtTheLimitsAndJustPastThem) {
    const struct {
        ePixelType type;
        int width, height, paramLines;
        const char* problem;  // "" when the format fits
    } cases[] = {
        {Y8, 1, 1, 0, ""},
        {Y8, 65535, 320, 0, ""},  // 20,971,200 bytes: just fits
        {Y8, 65535, 321, 0, "frame of 21,036,735 bytes exceeds the 20 MiB card buffer"},
        {Y8, 0, 1, 0, "width 0 is outside 1 to 65535"},
        {Y8, 65536, 1, 0, "width 65536 is outside 1 to 65535"},
        {Y16, 10, 0, 0, "height 0 is outside 1 to 65535"},
        {Y16, 10, 65535, 1, "height 65535 + 1 parameter line(s) is outside 1 to 65535"},
        {BGR24, 4096, 2048, 0, "frame of 25,165,824 bytes exceeds the 20 MiB card buffer"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(KvFrameFormatProblem(c.type, c.width, c.height, c.paramLines), c.problem)
            << c.width << " x " << c.height << " + " << c.paramLines;
    }
}

// The fuzzer goes through names at large; these are the cases worth seeing fail by name.
TEST(RawRecordingName, AcceptsTheRecordersNamesUpToTheLimits) {
    const auto fields = [](const RawRecordingInfo& i) {
        return std::tuple(i.index, i.width, i.height, i.paramLines, i.frameRate, i.pixelType);
    };
    const std::pair<const char*, RawRecordingInfo> good[] = {
        {"12_640x512_ParamLine2_Fps50_UYVY422.raw", {12, 640, 512, 2, 50, UYVY422}},
        {"13_320x256_ParamLine1_Fps25_Y8.raw", {13, 320, 256, 1, 25, Y8}},
        {"14_640x480_ParamLine3_Fps60_Y16.raw", {14, 640, 480, 3, 60, Y16}},
        {"0_640x512_ParamLine2_Fps50_Y16&Y8.raw", {0, 640, 512, 2, 50, Y16_Y8}},
        {"9_1920x1080_ParamLine0_Fps30_BGR24.raw", {9, 1920, 1080, 0, 30, BGR24}},
        {"VideoRecord/Capture1/x_1/0_64x32_ParamLine0_Fps25_Y8.raw", {0, 64, 32, 0, 25, Y8}},
        {"C:\\rec/a\\3_1x65535_ParamLine0_Fps0_BGR24.raw", {3, 1, 65535, 0, 0, BGR24}},
        {"2147483647_65535x1_ParamLine2147483647_Fps2147483647_Y16.raw",
         {INT_MAX, 65535, 1, INT_MAX, INT_MAX, Y16}},
    };
    for (const auto& [name, expected] : good) {
        SCOPED_TRACE(name);
        const auto info = ParseRawRecordingName(name);
        ASSERT_TRUE(info.has_value());
        EXPECT_EQ(fields(*info), fields(expected));
        // A cut-off name must not pass for a shorter one.
        for (std::size_t length = 0; length < std::string_view(name).size(); ++length) {
            EXPECT_FALSE(ParseRawRecordingName(std::string_view(name, length)).has_value())
                << length;
        }
    }
}

TEST(RawRecordingName, RefusesEveryOtherName) {
    const std::string bad[] = {
        "/",
        "0_64x32_ParamLine0_Fps25_Y8.raw/",
        "0_64x32_ParamLine0_Fps25_Y8.RAW",
        "0_64x32_ParamLine0_Fps25_Y8.raw ",
        "0_64x32_ParamLine0_Fps25_y8.raw",
        "0_64x32_ParamLine0_Fps25_Y16_Y8.raw",
        "0_64x32_ParamLine0_Fps25_PIXEL32.raw",
        "0_64x32_Paramline0_Fps25_Y8.raw",
        "0_64X32_ParamLine0_Fps25_Y8.raw",
        "0_64x32_ParamLine0_Y8.raw",
        "-1_64x32_ParamLine0_Fps25_Y8.raw",
        "0_0x32_ParamLine0_Fps25_Y8.raw",
        "0_65536x32_ParamLine0_Fps25_Y8.raw",
        "0_064x32_ParamLine0_Fps25_Y8.raw",
        "0_1e3x32_ParamLine0_Fps25_Y8.raw",
        "2147483648_64x32_ParamLine0_Fps25_Y8.raw",
        // Values that wrap around to small ones in 32 and 64 bits.
        "0_64x32_ParamLine4294967296_Fps25_Y8.raw",
        "0_64x32_ParamLine0_Fps18446744073709551617_Y8.raw",
        // Digits other than ASCII ones.
        "\xD9\xA0_64x32_ParamLine0_Fps25_Y8.raw",
        // An embedded NUL ends nothing.
        std::string("0_64x32_ParamLine0_Fps25_Y8.raw\0x", 33),
        std::string("0_6\0004x32_ParamLine0_Fps25_Y8.raw", 32),
    };
    for (const std::string& name : bad) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(ParseRawRecordingName(name).has_value());
    }
}

}  // namespace
