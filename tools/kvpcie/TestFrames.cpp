// kvpcie's self-checking frames.
#include "TestFrames.h"

#include <cstring>

namespace kvpcie::cli {

void FillTestFrame(std::vector<char>& frame, int channel, std::uint32_t number) {
    const std::uint32_t words[2] = {number, static_cast<std::uint32_t>(channel)};
    for (std::size_t k = 0; k < frame.size(); ++k) {
        if (k < 4) {
            frame[k] = static_cast<char>(0xEE);
        } else if (k < 12) {
            frame[k] = static_cast<char>(words[(k - 4) / 4] >> (8 * (k % 4)));
        } else {
            frame[k] =
                static_cast<char>((k + number * 3 + static_cast<std::size_t>(channel) * 64) & 0xFF);
        }
    }
}

std::uint32_t TestFrameNumber(const char* frame) {
    std::uint32_t number = 0;
    std::memcpy(&number, frame + 4, 4);
    return number;
}

LoopbackCheck CheckLoopbackFrame(const char* frame, std::vector<char>& scratch, int channel,
                                 int stampBytes, std::int64_t lastVerified) {
    const std::uint32_t number = TestFrameNumber(frame);
    FillTestFrame(scratch, channel, number);
    for (int i = 0; i < stampBytes && static_cast<std::size_t>(i) < scratch.size(); ++i) {
        scratch[static_cast<std::size_t>(i)] = static_cast<char>(number >> (8 * i));
    }
    if (std::memcmp(frame, scratch.data(), scratch.size()) != 0) {
        return LoopbackCheck::Mismatched;
    }
    return static_cast<std::int64_t>(number) >= lastVerified ? LoopbackCheck::Verified
                                                              : LoopbackCheck::Replayed;
}

}  // namespace kvpcie::cli
