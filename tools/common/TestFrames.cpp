// The tools' self-checking frames.
#include "TestFrames.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <random>

namespace kvpcie::tools {
namespace {

constexpr std::size_t kRampPeriod = 256;

// Two periods of the byte ramp 0, 1, ..., 255: a stretch of up to one period at any phase lies
// in it, so that a frame's ramp is written and compared with memcpy and memcmp, a period at a
// time. (The loopback checks every frame on the capture thread: byte by byte that was slow
// enough under ThreadSanitizer for the card to drop frames.)
const char* Ramp() {
    static const auto ramp = [] {
        std::array<char, 2 * kRampPeriod> bytes{};
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<char>(i & 0xFF);
        }
        return bytes;
    }();
    return ramp.data();
}

// Byte k of a frame's ramp: (k + offset) mod 256.
std::size_t RampOffset(int channel, std::uint32_t number) {
    return (number * 3 + static_cast<std::size_t>(channel) * 64) & 0xFF;
}

void Header(char (&header)[kTestFrameHeaderBytes], int channel, std::uint32_t run,
            std::uint32_t number) {
    const std::uint32_t words[3] = {number, static_cast<std::uint32_t>(channel), run};
    std::memset(header, 0xEE, 4);
    std::memcpy(header + 4, words, sizeof words);
}

std::uint32_t Word(const char* frame, std::size_t at) {
    std::uint32_t word = 0;
    std::memcpy(&word, frame + at, 4);
    return word;
}

}  // namespace

void FillTestFrame(std::vector<char>& frame, int channel, std::uint32_t run, std::uint32_t number) {
    char header[kTestFrameHeaderBytes];
    Header(header, channel, run, number);
    std::memcpy(frame.data(), header, std::min(frame.size(), sizeof header));
    const std::size_t offset = RampOffset(channel, number);
    for (std::size_t k = kTestFrameHeaderBytes; k < frame.size(); k += kRampPeriod) {
        const std::size_t length = std::min(kRampPeriod, frame.size() - k);
        std::memcpy(frame.data() + k, Ramp() + ((k + offset) & 0xFF), length);
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

LoopbackCheck CheckLoopbackFrame(const char* frame, std::size_t size, int channel,
                                 std::uint32_t run, int stampBytes, std::int64_t lastVerified) {
    if (size < kTestFrameHeaderBytes) {
        return LoopbackCheck::Mismatched;
    }
    const std::uint32_t number = TestFrameNumber(frame);
    const std::uint32_t frameRun = Word(frame, 12);
    char header[kTestFrameHeaderBytes];
    Header(header, channel, frameRun, number);
    for (int i = 0; i < stampBytes && i < 4; ++i) {
        header[i] = static_cast<char>(number >> (8 * i));
    }
    if (std::memcmp(frame, header, sizeof header) != 0) {
        return LoopbackCheck::Mismatched;
    }
    const std::size_t offset = RampOffset(channel, number);
    for (std::size_t k = kTestFrameHeaderBytes; k < size; k += kRampPeriod) {
        const std::size_t length = std::min(kRampPeriod, size - k);
        if (std::memcmp(frame + k, Ramp() + ((k + offset) & 0xFF), length) != 0) {
            return LoopbackCheck::Mismatched;
        }
    }
    if (frameRun != run) {
        return LoopbackCheck::EarlierRun;
    }
    return static_cast<std::int64_t>(number) >= lastVerified ? LoopbackCheck::Verified
                                                              : LoopbackCheck::Replayed;
}

}  // namespace kvpcie::tools
