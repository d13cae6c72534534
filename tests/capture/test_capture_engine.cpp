// Capture through the facade: the buffer ring, delivery, DMA faults, timing read-back, stop.
#include "../inject/InjectTestSupport.h"
#include "../support/Environment.h"

#include <algorithm>
#include <cstdlib>
#include <future>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace kvpcie::testing {
namespace {

constexpr int kWidth = 160;
constexpr int kHeight = 120;
constexpr std::size_t kFrameBytes = kWidth * kHeight * 2;  // Y16

class Capture : public InjectTest {
protected:
    bool StartQuiet(int channel, FrameSink& sink, bool extended = false) {
        return extended ? StartQuietCapture(channel, kWidth, kHeight, &FrameSink::OnFrameEx, sink)
                        : StartQuietCapture(channel, kWidth, kHeight, &FrameSink::OnFrame, sink);
    }
};

TEST_F(Capture, TheRingIsReadInOrderAcrossItsWrap) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log or makes frames on demand");
    FrameSink sink(kFrameBytes);
    ASSERT_TRUE(StartQuiet(1, sink));
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 1, 7));
    ASSERT_TRUE(WaitFor([&] { return sink.delivered == 7; }));
    KvPCIeSim::TakeAccessLog(kCard);
    // Last handled 6, latest 1: buffers 7, 0 and 1 in this order.
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 1, 3));
    ASSERT_TRUE(WaitFor([&] { return sink.delivered == 10; }));
    std::vector<std::uint32_t> read;
    for (const CardAccess& access : KvPCIeSim::TakeAccessLog(kCard)) {
        if (access.kind == CardAccess::CardToHost) {
            read.push_back(access.address);
        }
    }
    EXPECT_EQ(read, (std::vector<std::uint32_t>{BufferAddress(1, 7), BufferAddress(1, 0),
                                                BufferAddress(1, 1)}));
    EXPECT_EQ(sink.Numbers(), (std::vector<std::uint32_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(sink.badFrames, 0);
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(Peek(StatusRegister(1, i)), 0u) << "buffer " << i << " released";
    }
}

TEST_F(Capture, OnlyStatusTwoIsReadyAndBitFiveIsTheErrorFlag) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log or makes frames on demand");
    FrameSink sink(kFrameBytes);
    ASSERT_TRUE(StartQuiet(0, sink, true));
    std::vector<char> frame(kFrameBytes);
    for (std::size_t k = 8; k < kFrameBytes; ++k) {
        frame[k] = static_cast<char>(k & 0xFF);  // frame 0 of channel 0
    }
    const std::uint32_t statuses[] = {0x22, 0x12};
    for (int buffer = 0; buffer < 2; ++buffer) {
        ASSERT_TRUE(
            KvPCIeSim::PokeMemory(kCard, BufferAddress(0, buffer), frame.data(), frame.size()));
        ASSERT_TRUE(KvPCIeSim::PokeRegister(kCard, StatusRegister(0, buffer), statuses[buffer]));
        ASSERT_TRUE(KvPCIeSim::PokeRegister(kCard, CaptureBlock(0) + 0x14, buffer));
        ASSERT_TRUE(WaitFor([&] { return sink.delivered == buffer + 1; }));
    }
    {
        std::lock_guard<std::mutex> lock(sink.mutex);
        EXPECT_EQ(sink.flags, (std::vector<bool>{true, false}));
    }
    // 0x03 is not ready: the scan stops there and leaves the buffer to the card.
    ASSERT_TRUE(KvPCIeSim::PokeRegister(kCard, StatusRegister(0, 2), 0x03));
    ASSERT_TRUE(KvPCIeSim::PokeRegister(kCard, CaptureBlock(0) + 0x14, 2));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(sink.delivered, 2);
    EXPECT_EQ(Peek(StatusRegister(0, 2)), 0x03u);
}

TEST_F(Capture, AFailedDmaReadReleasesTheBufferAndIsLogged) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log or makes frames on demand");
    FrameSink sink(kFrameBytes);
    ASSERT_TRUE(StartQuiet(3, sink));
    Write(ControlBlock(3) + kCtlDmaFaults, 1);
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 3, 2));
    ASSERT_TRUE(WaitFor([&] { return sink.delivered == 1; }));
    EXPECT_EQ(sink.Numbers(), std::vector<std::uint32_t>{1});
    EXPECT_EQ(Peek(StatusRegister(3, 0)), 0u);
    manager.StopCapture(3);
    EXPECT_TRUE(WaitFor([] { return LogText("Capture_AllChannel").contains("采集失败"); }));
}

TEST_F(Capture, TimingReadBackCountsTheDelayClockAndOutlivesTheEngine) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log or makes frames on demand");
    FrameSink sink(kFrameBytes);
    ASSERT_TRUE(StartQuiet(1, sink));
    ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(kCard, 1, 3));
    ASSERT_TRUE(WaitFor([&] { return sink.delivered == 3; }));
    const tagCaptureDelayStatusInfo* records = manager.GetCaptureDelayStatus(1);
    ASSERT_NE(records, nullptr);
    // The card answers the last selector written (2) for each buffer (their order is
    // TimingReadBack's): the engine's value is that count in seconds of the 125 MHz delay clock.
    for (int i = 0; i < 3; ++i) {
        const std::uint32_t answer = Peek(CaptureBlock(1) + 0x10C + i * 0x10);
        tagCaptureDelayStatusInfo record;
        std::memcpy(&record, &records[i], sizeof record);
        EXPECT_EQ(answer >> 28, 2u);
        EXPECT_DOUBLE_EQ(record.delaySel2, (answer & 0x0FFFFFFF) / 125000000.0);
        EXPECT_GT(record.delaySel1, 0.0) << "released after it became ready";
        EXPECT_EQ(record.delayTestCount, 0);
    }
    EXPECT_EQ(manager.GetCaptureDelayStatus(4), nullptr);
    // The records belong to the manager: a host that kept the pointer still reads them after
    // CloseCard has freed the engine (a sanitizer build would see any read of freed memory).
    tagCaptureDelayStatusInfo before;
    std::memcpy(&before, &records[0], sizeof before);
    manager.CloseCard();
    tagCaptureDelayStatusInfo after;
    std::memcpy(&after, &records[0], sizeof after);
    EXPECT_DOUBLE_EQ(after.delaySel2, before.delaySel2);
}

TEST_F(Capture, StoppingTheLastChannelEndsThePendingEventReadAndThePolling) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log or makes frames on demand");
    FrameSink sink(kFrameBytes);
    ASSERT_TRUE(StartQuiet(2, sink));
    // No events from the card: the stop must end the pending event read, not wait 3 s for it.
    Write(ControlBlock(2) + kCtlNoEvents, 1);
    ASSERT_TRUE(KvPCIeSim::SetUserEventTimeout(kCard, 60000));
    auto stopped = std::async(std::launch::async, [&] { manager.StopCapture(2); });
    ASSERT_EQ(stopped.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_FALSE(manager.IsStartCapture(2));

    KvPCIeSim::CardCounters before{};
    KvPCIeSim::CardCounters after{};
    ASSERT_TRUE(KvPCIeSim::ReadCounters(kCard, before));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    ASSERT_TRUE(KvPCIeSim::ReadCounters(kCard, after));
    EXPECT_EQ(after.registerReads, before.registerReads) << "nothing polls any more";
}

// Woken by events, by the millisecond scan, or both racing, each frame comes once and in order;
// real-time polling's event threads take no core of the table.
struct WakeCase {
    bool events;
    bool realTime;
};

void PrintTo(const WakeCase& wake, std::ostream* out) {
    *out << (wake.events ? "events" : "no events") << (wake.realTime ? ", real-time" : "");
}

class CaptureWake : public Capture, public ::testing::WithParamInterface<WakeCase> {
protected:
    void TearDown() override {
        Capture::TearDown();
        UnsetEnvironment("KVPCIE_REALTIME_POLLING");
    }
};

TEST_P(CaptureWake, EachFrameComesOnceAndInOrder) {
    const WakeCase wake = GetParam();
    if (wake.realTime) {
        SetEnvironment("KVPCIE_REALTIME_POLLING", "1");
        manager.CloseCard();
        ASSERT_TRUE(manager.OpenCard(path));  // the engines read it when the card opens
    }
    const unsigned cores = FreeCores();
    FrameSink sink(kFrameBytes);
    ASSERT_TRUE(StartQuiet(3, sink));
    const unsigned threadCores = wake.realTime ? 1 : 2;  // the polling thread, its event thread
    EXPECT_EQ(FreeCores(), cores - std::min(cores, threadCores));
    Write(ControlBlock(3) + kCtlNoEvents, wake.events ? 0 : 1);
    Write(ControlBlock(3) + kCtlExternalRate, 500);
    ASSERT_TRUE(WaitFor([&] { return sink.delivered >= 300; })) << sink.delivered << " frames";
    manager.StopCapture(3);
    EXPECT_EQ(FreeCores(), cores) << "every core back";
    const std::vector<std::uint32_t> numbers = sink.Numbers();
    for (std::size_t k = 1; k < numbers.size(); ++k) {
        ASSERT_GT(numbers[k], numbers[k - 1]) << "frame " << k;
    }
    // Frames the card dropped for want of a free buffer leave gaps, never repeats.
    const std::uint32_t dropped = Peek(ControlBlock(3) + kCtlFramesDropped);
    EXPECT_LE(numbers.back() - numbers.front() + 1, numbers.size() + dropped);
    EXPECT_EQ(sink.badFrames, 0);
    KvPCIeSim::CardCounters counters{};
    if (KvPCIeSim::ReadCounters(kCard, counters)) {  // the in-process card counts its events
        EXPECT_EQ(counters.userEventsRaised > 0, wake.events);
    }
}

INSTANTIATE_TEST_SUITE_P(Events, CaptureWake,
                         ::testing::Values(WakeCase{true, false}, WakeCase{false, false},
                                           WakeCase{true, true}, WakeCase{false, true}),
                         [](const ::testing::TestParamInfo<WakeCase>& info) {
                             return std::string(info.param.events ? "Raised" : "NeverRaised") +
                                    (info.param.realTime ? "RealTimePolling" : "");
                         });

}  // namespace
}  // namespace kvpcie::testing
