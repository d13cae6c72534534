// The simulated card's moving scene: the same in any pieces, moving, numbered, and a picture
// rather than a ramp in every pixel type.
#include "sim/SimScene.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <vector>

namespace kvpcie::sim {
namespace {

std::vector<std::uint8_t> Whole(const SceneFrame& frame, std::size_t bytes) {
    std::vector<std::uint8_t> out(bytes, 0xEE);
    GenerateScene(frame, 0, out.data(), out.size());
    return out;
}

struct SceneCase {
    const char* name;
    std::uint32_t pixelCode;
    std::uint32_t width;
    std::uint32_t lines;
};

class Scene : public ::testing::TestWithParam<SceneCase> {};

TEST_P(Scene, ReadsTheSameInAnyPiecesMovesAndSpreadsItsLevels) {
    const SceneCase& c = GetParam();
    const std::uint32_t bpp = SceneBytesPerPixel(c.pixelCode);
    ASSERT_NE(bpp, 0u);
    const std::size_t bytes = std::size_t{c.width} * c.lines * bpp;
    const SceneFrame frame{40, c.width, c.lines, c.pixelCode};
    const std::vector<std::uint8_t> whole = Whole(frame, bytes + 64);
    // Past the picture: zeros.
    EXPECT_TRUE(std::all_of(whole.begin() + bytes, whole.end(), [](auto b) { return b == 0; }));

    // Pieces that start and end inside pixels, as the card's transfers read them.
    std::mt19937 random(7);
    std::vector<std::uint8_t> pieces(whole.size(), 0xEE);
    for (std::size_t at = 0; at < pieces.size();) {
        const std::size_t piece = std::min<std::size_t>(1 + random() % 997, pieces.size() - at);
        GenerateScene(frame, static_cast<std::uint32_t>(at), pieces.data() + at, piece);
        at += piece;
    }
    EXPECT_EQ(pieces, whole);

    // The next frame differs (it moves, and the noise is new), and the same frame is the same.
    EXPECT_NE(Whole(SceneFrame{41, c.width, c.lines, c.pixelCode}, bytes), Whole(frame, bytes));
    EXPECT_EQ(Whole(frame, bytes), std::vector<std::uint8_t>(whole.begin(), whole.begin() + bytes));

    // A picture, not a ramp: many distinct values of the first byte of a pixel, and for the
    // 16-bit types no pixel at either end of the range.
    std::set<std::uint8_t> values;
    for (std::size_t k = 0; k < bytes; k += bpp) {
        values.insert(whole[k + (bpp == 2 || bpp == 3 ? 1 : 0)]);
    }
    EXPECT_GT(values.size(), 64u);
    if (c.pixelCode == 2 || c.pixelCode == 3) {
        for (std::size_t k = 0; k < bytes; k += bpp) {
            const unsigned level = whole[k] | whole[k + 1] << 8;
            ASSERT_TRUE(level != 0 && level != 0xFFFF) << "pixel " << k / bpp;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    EachPixelType, Scene,
    ::testing::Values(SceneCase{"UYVY422", 0, 320, 240}, SceneCase{"Y8", 1, 640, 512},
                      SceneCase{"Y16", 2, 160, 120}, SceneCase{"Y16_Y8", 3, 161, 97},
                      SceneCase{"BGR24", 4, 200, 150}, SceneCase{"PIXEL32", 5, 64, 48}),
    [](const auto& info) { return std::string(info.param.name); });

// The frame's number stands top right in 5 x 7 digits: frames 1 and 8 differ exactly where the
// last digit's strokes differ, and only inside the counter's box.
TEST(SceneCounter, TheLastDigitIsDrawnWhereTheNumberSaysIt) {
    constexpr std::uint32_t kWidth = 96;
    constexpr std::uint32_t kLines = 96;  // one picture pixel per font pixel
    const auto grey = [](std::uint32_t number) {
        return Whole(SceneFrame{number, kWidth, kLines, 1}, kWidth * kLines);
    };
    const std::vector<std::uint8_t> one = grey(1);
    const std::vector<std::uint8_t> eight = grey(8);
    // The counter's box is 2 + 6 x 6 + 1 = 39 pixels wide, at the right edge; its digit 6
    // covers columns 3 + 5 x 6 = 33 to 37 of the box, rows 3 to 9.
    const auto at = [&](const std::vector<std::uint8_t>& frame, int x, int y) {
        return frame[static_cast<std::size_t>(y) * kWidth + static_cast<std::size_t>(x + 57)];
    };
    // "1" has its stem in the middle column; "8" has its top corners dark and its top bar lit.
    EXPECT_GT(at(one, 35, 6), 200);
    EXPECT_LT(at(one, 33, 4), 50);
    EXPECT_GT(at(eight, 33, 4), 200);
    EXPECT_GT(at(eight, 34, 3), 200);
    EXPECT_LT(at(eight, 33, 3), 50);
    // The leading zeros read the same in both frames.
    for (int x = 3; x < 33; ++x) {
        for (int y = 3; y < 10; ++y) {
            ASSERT_EQ(at(one, x, y), at(eight, x, y)) << x << ", " << y;
        }
    }
}

}  // namespace
}  // namespace kvpcie::sim
