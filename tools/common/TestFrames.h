// The frames the tools inject: each carries its number and its run, so that a frame that comes
// back through the card's loopback can be checked byte for byte and told from an earlier run's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kvpcie::tools {

// The fewest bytes that hold a test frame's header.
constexpr std::size_t kTestFrameHeaderBytes = 16;

// Bytes 0-3 are 0xEE (the card stamps its frame counter over the first ones), 4-7 the frame's
// number, 8-11 the channel, 12-15 the run, then a ramp that moves with the number.
void FillTestFrame(std::vector<char>& frame, int channel, std::uint32_t run, std::uint32_t number);
// The number that FillTestFrame put into a frame.
std::uint32_t TestFrameNumber(const char* frame);
// A run tag that earlier runs (of this process or another) are unlikely to have had.
std::uint32_t NewTestRun();

enum class LoopbackCheck {
    Verified,    // intact, and not older than the last one verified
    Replayed,    // intact, but older: the card played a frame again that it had played before
    EarlierRun,  // intact, but a frame of another run: what the card showed before this one
    Mismatched,  // not the bytes of any test frame
};
// Checks a frame of `size` bytes that came back through the loopback against the test frame of
// its own number, with the card's frame counter in the first `stampBytes` bytes (the frames
// were queued in order, so the counter is the number). Cheap enough for a capture callback.
LoopbackCheck CheckLoopbackFrame(const char* frame, std::size_t size, int channel,
                                 std::uint32_t run, int stampBytes, std::int64_t lastVerified);

}  // namespace kvpcie::tools
