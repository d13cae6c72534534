// kvpcie's self-checking frames as they come back through the card's loopback: the card's
// counter over the first pixel, a replay after an underrun, and a damaged byte.
#include "TestFrames.h"

#include <gtest/gtest.h>

#include <vector>

namespace kvpcie::cli {
namespace {

constexpr std::size_t kBytes = 4096;
constexpr int kChannel = 2;
constexpr int kStampBytes = 2;  // Y16: the counter covers the first pixel

// A test frame as the card plays it: the counter stamped over the first pixel.
std::vector<char> Played(std::uint32_t number) {
    std::vector<char> frame(kBytes);
    FillTestFrame(frame, kChannel, number);
    frame[0] = static_cast<char>(number & 0xFF);
    frame[1] = static_cast<char>(number >> 8);
    return frame;
}

TEST(LoopbackCheck, InOrderFramesVerifyAndAnOlderIntactOneIsAReplay) {
    std::vector<char> scratch(kBytes);
    EXPECT_EQ(CheckLoopbackFrame(Played(300).data(), scratch, kChannel, kStampBytes, -1),
              LoopbackCheck::Verified);
    // The same frame again (the card played no new one) is still in order.
    EXPECT_EQ(CheckLoopbackFrame(Played(300).data(), scratch, kChannel, kStampBytes, 300),
              LoopbackCheck::Verified);
    EXPECT_EQ(CheckLoopbackFrame(Played(292).data(), scratch, kChannel, kStampBytes, 300),
              LoopbackCheck::Replayed);
}

TEST(LoopbackCheck, ADamagedByteAWrongChannelOrAMissingStampIsAMismatch) {
    std::vector<char> scratch(kBytes);
    std::vector<char> damaged = Played(7);
    damaged[kBytes - 1] ^= 1;
    EXPECT_EQ(CheckLoopbackFrame(damaged.data(), scratch, kChannel, kStampBytes, -1),
              LoopbackCheck::Mismatched);
    // Damaged and older: a mismatch, not a replay.
    EXPECT_EQ(CheckLoopbackFrame(damaged.data(), scratch, kChannel, kStampBytes, 100),
              LoopbackCheck::Mismatched);
    EXPECT_EQ(CheckLoopbackFrame(Played(7).data(), scratch, kChannel + 1, kStampBytes, -1),
              LoopbackCheck::Mismatched);
    std::vector<char> unstamped(kBytes);
    FillTestFrame(unstamped, kChannel, 7);
    EXPECT_EQ(CheckLoopbackFrame(unstamped.data(), scratch, kChannel, kStampBytes, -1),
              LoopbackCheck::Mismatched);
}

}  // namespace
}  // namespace kvpcie::cli
