// The frames kvpcie injects: each carries its number, so that a frame that comes back through
// the card's loopback can be checked byte for byte.
#pragma once

#include <cstdint>
#include <vector>

namespace kvpcie::cli {

// Bytes 0-3 are 0xEE (the card stamps its frame counter over the first ones), 4-7 the frame's
// number, 8-11 the channel, then a ramp that moves with the number.
void FillTestFrame(std::vector<char>& frame, int channel, std::uint32_t number);
// The number that FillTestFrame put into a frame.
std::uint32_t TestFrameNumber(const char* frame);

enum class LoopbackCheck {
    Verified,    // intact, and not older than the last one verified
    Replayed,    // intact, but older: the card played a buffer again after an underrun
    Mismatched,  // not the bytes of any test frame
};
// Checks a frame that came back through the loopback against the test frame of its own
// number, with the card's frame counter in the first `stampBytes` bytes (the frames were queued
// in order, so the counter is the number). `scratch` has the frame's size.
LoopbackCheck CheckLoopbackFrame(const char* frame, std::vector<char>& scratch, int channel,
                                 int stampBytes, std::int64_t lastVerified);

}  // namespace kvpcie::cli
