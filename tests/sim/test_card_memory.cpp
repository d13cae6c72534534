// Card memory that keeps capture frames as descriptions reads exactly as plain bytes would.
#include "sim/CardMemory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

namespace kvpcie::sim {
namespace {

constexpr std::uint64_t kSlot = xdma::kCardBufferBytes;

// What the card's memory would hold with every frame written out.
struct Reference {
    std::vector<std::uint8_t> bytes = std::vector<std::uint8_t>(3 * kSlot, 0);

    void Describe(unsigned buffer, const FrameDescription& frame) {
        std::uint8_t* at = bytes.data() + buffer * kSlot;
        for (std::uint32_t k = 0; k < frame.bytes; ++k) {
            if (frame.kind == FrameDescription::Kind::Loopback) {
                at[k] = k < frame.loopback->size() ? (*frame.loopback)[k] : 0;
            } else if (k < 4) {
                at[k] = static_cast<std::uint8_t>(frame.number >> (8 * k));
            } else if (k < 8) {
                at[k] = static_cast<std::uint8_t>(frame.channel >> (8 * (k - 4)));
            } else {
                at[k] = static_cast<std::uint8_t>(k + frame.number);
            }
        }
    }
};

FrameDescription Pattern(std::uint32_t number, std::uint32_t bytes) {
    FrameDescription frame;
    frame.kind = FrameDescription::Kind::Pattern;
    frame.number = number;
    frame.channel = 0;
    frame.bytes = bytes;
    return frame;
}

TEST(CardMemory, DescribedFramesReadAsWrittenOnesAcrossEveryBoundary) {
    CardMemory memory(1ull << 31);
    Reference reference;
    const auto describe = [&](unsigned buffer, const FrameDescription& frame) {
        memory.Describe(0, buffer, frame);
        reference.Describe(buffer, frame);
    };
    const auto write = [&](std::uint64_t address, std::size_t size, std::uint8_t value) {
        const std::vector<std::uint8_t> data(size, value);
        ASSERT_EQ(memory.Write(address, data.data(), size), size);
        std::memset(reference.bytes.data() + address, value, size);
    };

    write(kSlot - 100, 300, 0x11);  // plain bytes across the first boundary
    describe(0, Pattern(5, 100000));
    write(90000, 20000, 0xAB);       // over the frame's end: the frame becomes bytes
    describe(0, Pattern(300, 600));  // smaller: the old tail stays
    describe(1, Pattern(7, 3));      // shorter than its header
    auto loop = std::make_shared<std::vector<std::uint8_t>>(50);
    for (std::size_t k = 0; k < loop->size(); ++k) {
        (*loop)[k] = static_cast<std::uint8_t>(200 + k);
    }
    FrameDescription looped;
    looped.kind = FrameDescription::Kind::Loopback;
    looped.loopback = loop;
    looped.bytes = 5000;
    describe(2, looped);              // zeros past the looped-back frame
    describe(0, Pattern(301, 4096));  // bigger again

    std::mt19937 random(1234);
    std::uniform_int_distribution<std::uint64_t> start(0, 3 * kSlot - 1);
    std::vector<std::uint8_t> read;
    for (int round = 0; round < 300; ++round) {
        // Mostly near the interesting places: headers, frame ends, buffer boundaries.
        const std::uint64_t anchors[] = {0,         600,   4096,      90000,     110000,
                                         kSlot - 8, kSlot, kSlot + 3, 2 * kSlot, 2 * kSlot + 5000};
        std::uint64_t address = round % 2 == 0 ? start(random) : anchors[round % 10];
        if (round % 2 != 0 && address >= 16) {
            address -= random() % 16;
        }
        const std::size_t size = static_cast<std::size_t>(
            std::min<std::uint64_t>(1 + random() % 200000, 3 * kSlot - address));
        read.assign(size, 0x5A);
        ASSERT_EQ(memory.Read(address, read.data(), size), size);
        ASSERT_EQ(0, std::memcmp(read.data(), reference.bytes.data() + address, size))
            << "read of " << size << " bytes at " << address;
    }
}

TEST(CardMemory, OutsideTheCaptureBuffersAndPastTheEndItIsPlainMemory) {
    CardMemory memory(0x50000000);
    const std::uint64_t inject = 0x40000000;
    const std::uint8_t data[4] = {1, 2, 3, 4};
    EXPECT_EQ(memory.Write(inject, data, 4), 4u);
    std::uint8_t back[4] = {};
    EXPECT_EQ(memory.Read(inject, back, 4), 4u);
    EXPECT_EQ(0, std::memcmp(back, data, 4));
    EXPECT_EQ(memory.Read(0x50000000 - 2, back, 4), 2u);
    EXPECT_EQ(memory.Read(0x50000000, back, 4), 0u);
    EXPECT_EQ(memory.Write(0x50000000 - 1, data, 4), 1u);
}

}  // namespace
}  // namespace kvpcie::sim
