// What the capture suites share: the card's registers and its test pattern.
#pragma once

#include "../support/TestCard.h"
#include "../support/WaitFor.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kvpcie::testing {

constexpr std::uint32_t CaptureBlock(int channel) {
    return 0x101000 + static_cast<std::uint32_t>(channel) * 0x1000;
}
constexpr std::uint32_t ControlBlock(int channel) {
    return 0x1F1000 + static_cast<std::uint32_t>(channel) * 0x1000;
}
constexpr std::uint32_t StatusRegister(int channel, int buffer) {
    return CaptureBlock(channel) + 0x108 + static_cast<std::uint32_t>(buffer) * 0x10;
}
constexpr std::uint32_t BufferAddress(int channel, int buffer) {
    return static_cast<std::uint32_t>(channel) * 0xA000000 +
           static_cast<std::uint32_t>(buffer) * 0x1400000;
}
constexpr std::uint32_t kCtlExternalRate = 0x04;
constexpr std::uint32_t kCtlFramesDropped = 0x0C;
constexpr std::uint32_t kCtlDmaFaults = 0x24;
constexpr std::uint32_t kCtlPostStatus = 0x28;
constexpr std::uint32_t kCtlNoEvents = 0x34;
constexpr std::uint32_t kCtlStaging = 0x400;

// A register of card `card` as the card itself sees it: in this process, or the driver model's.
inline std::uint32_t Peek(std::uint32_t address, int card = 0) {
    std::uint32_t value = 0;
    if (OnDriverModel()) {
        EXPECT_TRUE(ReadModelRegister(card, address, value)) << "register 0x" << std::hex << address;
        return value;
    }
    EXPECT_TRUE(KvPCIeSim::PeekRegister(card, address, value));
    return value;
}

// The facade's last error text on this thread begins with `reason`.
inline void ExpectReason(PCIeDataManager& manager, const char* reason) {
    const std::string text = manager.LastErrorText();
    EXPECT_EQ(text.rfind(reason, 0), 0u) << "error text: " << text;
}

inline std::uint32_t FrameNumberOf(const char* frame) {
    std::uint32_t number = 0;
    std::memcpy(&number, frame, 4);
    return number;
}

// True when `frame` is frame `number` of the card's test pattern on `channel`.
inline bool IsPatternFrame(const char* frame, std::size_t size, int channel, std::uint32_t number) {
    std::uint32_t header[2];
    std::memcpy(header, frame, 8);
    if (header[0] != number || header[1] != static_cast<std::uint32_t>(channel)) {
        return false;
    }
    for (std::size_t k = 8; k < size; ++k) {
        if (static_cast<unsigned char>(frame[k]) !=
            static_cast<unsigned char>((k + number) & 0xFF)) {
            return false;
        }
    }
    return true;
}

// Collects what one channel's frame callback sees.
struct FrameSink {
    std::size_t frameBytes = 0;
    std::vector<char> buffer;  // the channel's frame buffer
    std::mutex mutex;
    std::vector<std::uint32_t> numbers;
    std::vector<bool> flags;
    std::atomic<int> delivered{0};
    std::atomic<int> badFrames{0};

    explicit FrameSink(std::size_t bytes) : frameBytes(bytes), buffer(bytes) {}

    static void OnFrame(int channel, const char* frame, void* context) {
        static_cast<FrameSink*>(context)->Take(channel, frame, false);
    }
    static void OnFrameEx(int channel, const char* frame, void* context, bool flag) {
        static_cast<FrameSink*>(context)->Take(channel, frame, flag);
    }
    void Take(int channel, const char* frame, bool flag) {
        const std::uint32_t number = FrameNumberOf(frame);
        if (frame != buffer.data() || !IsPatternFrame(frame, frameBytes, channel, number)) {
            ++badFrames;
        }
        std::lock_guard<std::mutex> lock(mutex);
        numbers.push_back(number);
        flags.push_back(flag);
        ++delivered;
    }
    std::vector<std::uint32_t> Numbers() {
        std::lock_guard<std::mutex> lock(mutex);
        return numbers;
    }
};

}  // namespace kvpcie::testing
