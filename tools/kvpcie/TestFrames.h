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

}  // namespace kvpcie::cli
