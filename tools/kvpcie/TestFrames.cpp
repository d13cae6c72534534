// kvpcie's self-checking frames.
#include "TestFrames.h"

#include <chrono>
#include <cstring>
#include <random>

namespace kvpcie::cli {
namespace {

std::uint32_t Word(const char* frame, std::size_t at) {
    std::uint32_t word = 0;
    std::memcpy(&word, frame + at, 4);
    return word;
}

}  // namespace

void FillTestFrame(std::vector<char>& frame, int channel, std::uint32_t run, std::uint32_t number) {
    const std::uint32_t words[3] = {number, static_cast<std::uint32_t>(channel), run};
    for (std::size_t k = 0; k < frame.size(); ++k) {
        if (k < 4) {
            frame[k] = static_cast<char>(0xEE);
        } else if (k < kTestFrameHeaderBytes) {
            frame[k] = static_cast<char>(words[(k - 4) / 4] >> (8 * (k % 4)));
        } else {
            frame[k] =
                static_cast<char>((k + number * 3 + static_cast<std::size_t>(channel) * 64) & 0xFF);
        }
    }
}

std::uint32_t TestFrameNumber(const char* frame) {
    return Word(frame, 4);
}

std::uint32_t NewTestRun() {
    std::random_device entropy;
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    return entropy() ^ static_cast<std::uint32_t>(now) ^ static_cast<std::uint32_t>(now >> 32);
}

LoopbackCheck CheckLoopbackFrame(const char* frame, std::vector<char>& scratch, int channel,
                                 std::uint32_t run, int stampBytes, std::int64_t lastVerified) {
    const std::uint32_t number = TestFrameNumber(frame);
    const std::uint32_t frameRun =
        scratch.size() >= kTestFrameHeaderBytes ? Word(frame, 12) : run;
    FillTestFrame(scratch, channel, frameRun, number);
    for (int i = 0; i < stampBytes && static_cast<std::size_t>(i) < scratch.size(); ++i) {
        scratch[static_cast<std::size_t>(i)] = static_cast<char>(number >> (8 * i));
    }
    if (std::memcmp(frame, scratch.data(), scratch.size()) != 0) {
        return LoopbackCheck::Mismatched;
    }
    if (frameRun != run) {
        return LoopbackCheck::EarlierRun;
    }
    return static_cast<std::int64_t>(number) >= lastVerified ? LoopbackCheck::Verified
                                                              : LoopbackCheck::Replayed;
}

}  // namespace kvpcie::cli
