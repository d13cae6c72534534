// What the fault suites share: sinks that notice late or wrong frames, the accounting of lost
// frames, and a bound on every call that could hang.
#pragma once

#include "../capture/CaptureTestSupport.h"
#include "../inject/InjectTestSupport.h"
#include "../support/TempDir.h"
#include "../support/Watchdog.h"

#include <QDir>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace kvpcie::testing {

constexpr int kFaultWidth = 160;
constexpr int kFaultHeight = 120;
constexpr std::size_t kFaultFrameBytes = kFaultWidth * kFaultHeight * 2;  // Y16

// Runs `call` on this thread (the facade's control thread) under a watchdog.
inline void ReturnsWithin(const char* what, const std::function<void()>& call,
                          std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const Watchdog watchdog(what, limit);
    call();
}

// A frame sink that also counts the callbacks that came after its channel was stopped.
struct GuardedSink : FrameSink {
    std::atomic<bool> stopped{false};
    std::atomic<int> lateFrames{0};

    GuardedSink() : FrameSink(kFaultFrameBytes) {}
    static void OnFrame(int channel, const char* frame, void* context) {
        auto* sink = static_cast<GuardedSink*>(context);
        if (sink->stopped.load()) {
            ++sink->lateFrames;
        }
        sink->Take(channel, frame, false);
    }
};

// Frames up to the last delivered that were neither delivered nor counted as dropped by the
// card, beyond `expectedMissing`; negative when later drops were counted too.
inline long UncountedLosses(const std::vector<std::uint32_t>& numbers, std::uint32_t dropped,
                            long expectedMissing = 0) {
    if (numbers.empty()) {
        return 0;
    }
    const long missing = static_cast<long>(numbers.back()) + 1 - static_cast<long>(numbers.size());
    return missing - expectedMissing - static_cast<long>(dropped);
}

inline bool StrictlyIncreasing(const std::vector<std::uint32_t>& numbers) {
    for (std::size_t k = 1; k < numbers.size(); ++k) {
        if (numbers[k] <= numbers[k - 1]) {
            return false;
        }
    }
    return true;
}

// A facade on a fresh simulated card in a scratch directory, closed under a watchdog.
class FaultTest : public InjectTest {
protected:
    void TearDown() override {
        ReturnsWithin("CloseCard", [this] { manager.CloseCard(); });
    }

    // `rate` frames per second from the channel's external source; 0 for none.
    bool StartCapture(int channel, GuardedSink& sink, std::uint32_t rate) {
        Write(ControlBlock(channel) + KvPCIeSim::kCtlExternalFrameRate, rate);
        eErrorCode error = ERR_NO_CARD;
        const bool started =
            manager.StartCapture(static_cast<unsigned>(channel), false, kFaultWidth, kFaultHeight,
                                 Y16, error, &GuardedSink::OnFrame, &sink, sink.buffer.data());
        return started && error == ERR_NONE;
    }
    void StopCapture(int channel, GuardedSink& sink) {
        ReturnsWithin("StopCapture", [&] { manager.StopCapture(channel); });
        sink.stopped = true;
    }
    // One frame offered to inject `channel` at 50 fps; the result of StartInject.
    bool Inject(int channel, std::vector<char>& frame, eErrorCode& error) {
        error = ERR_NO_CARD;
        return manager.StartInject(static_cast<unsigned>(channel), 50, kFaultWidth, kFaultHeight,
                                   Y16, 0, frame.data(), error);
    }
    // Channels 0 to `count` - 1 capturing `rate` frames a second, each into a sink of its own.
    std::vector<std::unique_ptr<GuardedSink>> StartSinks(int count, std::uint32_t rate) {
        std::vector<std::unique_ptr<GuardedSink>> sinks;
        for (int channel = 0; channel < count; ++channel) {
            sinks.push_back(std::make_unique<GuardedSink>());
            EXPECT_TRUE(StartCapture(channel, *sinks.back(), rate)) << "channel " << channel;
        }
        return sinks;
    }
    // Beyond `expectedMissing`, every frame the channel missed was counted by the card; none
    // was wrong, out of order or late.
    void ExpectNoUncountedLoss(int channel, GuardedSink& sink, long expectedMissing = 0) {
        SCOPED_TRACE(channel);
        EXPECT_EQ(sink.badFrames, 0);
        const std::vector<std::uint32_t> numbers = sink.Numbers();
        EXPECT_TRUE(StrictlyIncreasing(numbers));
        const std::uint32_t dropped = Peek(ControlBlock(channel) + KvPCIeSim::kCtlFramesDropped);
        EXPECT_LE(UncountedLosses(numbers, dropped, expectedMissing), 0);
        EXPECT_EQ(sink.lateFrames, 0);
    }
    // A fresh capture of `channel` delivers `count` frames without a loss.
    void ExpectCaptureWorks(int channel, int count) {
        GuardedSink sink;
        ASSERT_TRUE(StartCapture(channel, sink, 200));
        EXPECT_TRUE(WaitFor([&] { return sink.delivered >= count; }, std::chrono::seconds(10)));
        StopCapture(channel, sink);
        ExpectNoUncountedLoss(channel, sink);
    }
    static bool AllDelivered(const std::vector<std::unique_ptr<GuardedSink>>& sinks, int count) {
        for (const auto& sink : sinks) {
            if (sink->delivered < count) {
                return false;
            }
        }
        return true;
    }
};

}  // namespace kvpcie::testing
