// kvpcie's self-checking frames as they come back through the card's loopback.
#include "TestFrames.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace kvpcie::tools {
namespace {

constexpr std::size_t kBytes = 4096;
constexpr int kChannel = 2;
constexpr std::uint32_t kRun = 0xC0FFEE;
constexpr int kStampBytes = 2;  // Y16: the counter covers the first pixel

// A test frame as the card plays it: the counter stamped over the first pixel.
std::vector<char> Played(std::uint32_t number, std::uint32_t run = kRun, int channel = kChannel) {
    std::vector<char> frame(kBytes);
    FillTestFrame(frame, channel, run, number);
    frame[0] = static_cast<char>(number & 0xFF);
    frame[1] = static_cast<char>(number >> 8);
    return frame;
}

struct Case {
    const char* what;
    std::function<std::vector<char>()> frame;
    std::int64_t lastVerified;
    LoopbackCheck expected;
};

class LoopbackCheckTable : public ::testing::TestWithParam<Case> {};

TEST_P(LoopbackCheckTable, SaysWhatCameBack) {
    const std::vector<char> frame = GetParam().frame();
    EXPECT_EQ(CheckLoopbackFrame(frame.data(), frame.size(), kChannel, kRun, kStampBytes,
                                 GetParam().lastVerified),
              GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, LoopbackCheckTable,
    ::testing::Values(
        Case{"first", [] { return Played(300); }, -1, LoopbackCheck::Verified},
        // The same frame again (the card played no new one) is still in order.
        Case{"same_again", [] { return Played(300); }, 300, LoopbackCheck::Verified},
        Case{"older", [] { return Played(292); }, 300, LoopbackCheck::Replayed},
        Case{"earlier_run", [] { return Played(500, kRun + 1); }, -1, LoopbackCheck::EarlierRun},
        Case{"earlier_run_after_this_ones", [] { return Played(5, kRun + 1); }, 300,
             LoopbackCheck::EarlierRun},
        Case{"damaged",
             [] {
                 std::vector<char> frame = Played(7);
                 frame[kBytes - 1] ^= 1;
                 return frame;
             },
             -1, LoopbackCheck::Mismatched},
        // Damaged and older: a mismatch, not a replay.
        Case{"damaged_and_older",
             [] {
                 std::vector<char> frame = Played(7);
                 frame[kBytes - 1] ^= 1;
                 return frame;
             },
             100, LoopbackCheck::Mismatched},
        Case{"other_channel", [] { return Played(7, kRun, kChannel + 1); }, -1,
             LoopbackCheck::Mismatched},
        Case{"unstamped",
             [] {
                 std::vector<char> frame(kBytes);
                 FillTestFrame(frame, kChannel, kRun, 7);
                 return frame;
             },
             -1, LoopbackCheck::Mismatched}),
    [](const ::testing::TestParamInfo<Case>& info) { return std::string(info.param.what); });

// The ramp is written and compared a period at a time: every byte, at every phase, is right.
TEST(TestFrame, EveryByteIsTheHeaderOrTheRampAtItsPlace) {
    for (std::uint32_t number : {0u, 1u, 85u, 86u, 300u}) {
        std::vector<char> frame(1000);
        FillTestFrame(frame, 3, kRun, number);
        for (std::size_t k = kTestFrameHeaderBytes; k < frame.size(); ++k) {
            ASSERT_EQ(static_cast<unsigned char>(frame[k]), (k + number * 3 + 3 * 64) & 0xFF)
                << "byte " << k << " of frame " << number;
        }
        EXPECT_EQ(TestFrameNumber(frame.data()), number);
        frame[999] ^= 1;
        EXPECT_EQ(CheckLoopbackFrame(frame.data(), frame.size(), 3, kRun, 0, -1),
                  LoopbackCheck::Mismatched);
    }
}

TEST(TestRun, TwoRunsGetDifferentTags) {
    EXPECT_NE(NewTestRun(), NewTestRun());
}

}  // namespace
}  // namespace kvpcie::tools
