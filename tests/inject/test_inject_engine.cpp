// Injection through the facade on the simulated card: channel programming, the queue, the ring
// handshake, the counter stamp, stop and restart, the timing read-back. (Loopback: the soak.)
#include "../support/ProcessCounters.h"
#include "InjectTestSupport.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <utility>

namespace kvpcie::testing {
namespace {

class Inject : public InjectTest {
protected:
    // Queues one frame, offering it again while the queue is full.
    bool Offer(unsigned channel, int rate, int width, int height, ePixelType type,
               std::vector<char>& frame) {
        eErrorCode error = ERR_NO_CARD;
        bool queued = false;
        WaitFor([&] {
            queued =
                manager.StartInject(channel, rate, width, height, type, 0, frame.data(), error);
            return queued || error != ERR_QUEUE_FULL;
        });
        return queued;
    }
    // Host-to-card transfers until `count` are in card memory (their ready status written).
    bool GatherTransfers(std::vector<CardAccess>& transfers, std::size_t count) {
        return WaitFor([&] {
            for (const CardAccess& access : KvPCIeSim::TakeAccessLog(kCard)) {
                if (access.kind == CardAccess::HostToCard) {
                    pending_.push_back(access);
                } else if (!pending_.empty() && access.kind == CardAccess::RegisterWrite &&
                           access.value == 0x12 &&
                           access.address == StatusOf(pending_.front().address)) {
                    transfers.push_back(pending_.front());
                    pending_.erase(pending_.begin());
                }
            }
            return transfers.size() >= count;
        });
    }
    static std::uint32_t StatusOf(std::uint32_t bufferAddress) {
        const std::uint32_t offset = bufferAddress - InjectBufferAddress(0, 0);
        return InjectStatus(static_cast<int>(offset / 0xA000000),
                            static_cast<int>(offset % 0xA000000 / 0x1400000));
    }
    std::vector<unsigned char> CardBytes(std::uint32_t address, std::size_t size) {
        std::vector<unsigned char> bytes(size);
        EXPECT_TRUE(KvPCIeSim::PeekMemory(kCard, address, bytes.data(), size));
        return bytes;
    }

private:
    std::vector<CardAccess> pending_;
};

// A start writes the channel's block in one order (a head, the ring of eight buffers, a tail),
// then its enable bit; capture and inject alike.
using Writes = std::vector<std::pair<std::uint32_t, std::uint32_t>>;  // address, value

Writes BlockWrites(const Writes& head, std::uint32_t status0, std::uint32_t buffer0,
                   const Writes& tail) {
    Writes writes = head;
    for (std::uint32_t i = 0; i < 8; ++i) {
        writes.push_back({status0 - 8 + i * 0x10, buffer0 + i * 0x1400000});
        writes.push_back({status0 + i * 0x10, 0});
    }
    writes.insert(writes.end(), tail.begin(), tail.end());
    return writes;
}

struct StartRow {
    const char* name;
    int channel;
    bool capture;
    std::function<bool(PCIeDataManager&)> start;
    Writes expected;
    std::uint32_t enableMask;
    std::uint32_t frameBytes, transfer;  // an inject start's first transfer and length register
};

void PrintTo(const StartRow& row, std::ostream* out) {
    *out << row.name;
}

StartRow CaptureStart(const char* name, bool cardTiming) {
    constexpr int kWidth = 160, kHeight = 120, kBytes = kWidth * kHeight * 2;
    const std::uint32_t b = CaptureBlock(2);
    auto sink = std::make_shared<FrameSink>(kBytes);
    Writes tail = {{b + 0x020, kWidth + (cardTiming ? 200u : 100u)}};
    if (cardTiming) {
        tail.push_back({b + 0x024, 100000000 / 25});
    }
    tail.push_back({b + 0x01C, cardTiming ? 0x201u : 0u});
    return {name, 2, true,
            [=](PCIeDataManager& m) {
                eErrorCode error = ERR_NO_CARD;
                const bool quiet = m.WriteReg(ControlBlock(2) + kCtlExternalRate, 0) == 4;
                KvPCIeSim::TakeAccessLog(0);
                return quiet && m.StartCapture(2, cardTiming, kWidth, kHeight, Y16, error,
                                      &FrameSink::OnFrame, sink.get(), sink->buffer.data());
            },
            BlockWrites({{b, 2}, {b + 4, (kWidth << 16) | kHeight}, {b + 8, 8},
                         {b + 0xC, 0x1400000}, {b + 0x10, kBytes}},
                        StatusRegister(2, 0), BufferAddress(2, 0), tail),
            0x100018, 0, 0};
}

StartRow InjectStart(const char* name, int channel, bool parameterLine, ePixelType type,
                     int width, int height, int rate, int linePeriod, std::uint32_t code,
                     std::uint32_t geometry, std::uint32_t frameBytes, std::uint32_t transfer) {
    const std::uint32_t b = InjectBlock(channel);
    return {name, channel, false,
            [=](PCIeDataManager& m) {
                m.UpdateParamSimulate(channel, parameterLine, tagThermalImgParams{});
                KvPCIeSim::TakeAccessLog(0);
                std::vector<char> frame(frameBytes, 0x11);
                eErrorCode error = ERR_NO_CARD;
                return m.StartInject(channel, rate, width, height, type, linePeriod,
                                     frame.data(), error) && error == ERR_NONE &&
                       m.IsStartInject(channel);
            },
            BlockWrites({{b, code}, {b + 4, geometry}, {b + 8, 8}, {b + 0xC, transfer}},
                        InjectStatus(channel, 0), InjectBufferAddress(channel, 0),
                        {{b + 0x1C, 0}, {b + 0x20, std::uint32_t(linePeriod)},
                         {b + 0x24, 100000000u / rate}}),
            kInjectEnableMask, frameBytes, transfer};
}

class ChannelStart : public InjectTest, public ::testing::WithParamInterface<StartRow> {};

TEST_P(ChannelStart, ProgramsTheBlockInOrderThenEnablesTheChannel) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log");
    const StartRow& row = GetParam();
    ASSERT_TRUE(row.start(manager)) << manager.LastErrorText();
    std::vector<CardAccess> writes;
    std::vector<CardAccess> transfers;
    const auto enabled = [&] {
        return std::find_if(writes.begin() + std::min(writes.size(), row.expected.size()),
                            writes.end(),
                            [&](const CardAccess& a) { return a.address == row.enableMask; });
    };
    ASSERT_TRUE(WaitFor([&] {
        for (const CardAccess& access : KvPCIeSim::TakeAccessLog(kCard)) {
            (access.kind == CardAccess::HostToCard ? transfers : writes).push_back(access);
        }
        return enabled() != writes.end() && (row.frameBytes == 0 || !transfers.empty());
    }));
    for (std::size_t k = 0; k < row.expected.size(); ++k) {
        EXPECT_EQ(writes[k].address, row.expected[k].first) << "write " << k;
        EXPECT_EQ(writes[k].value, row.expected[k].second) << "write " << k;
    }
    EXPECT_EQ(enabled()->value, 1u << row.channel);
    if (row.frameBytes != 0) {
        // The transfer moves the frame; the length register gets the rounded transfer size.
        EXPECT_EQ(transfers.front().value, row.frameBytes);
        const int buffer = static_cast<int>(
            (transfers.front().address - InjectBufferAddress(row.channel, 0)) / 0x1400000);
        EXPECT_TRUE(WaitFor([&] { return Peek(InjectLength(row.channel, buffer)) == row.transfer; }));
    }
    row.capture ? manager.StopCapture(row.channel) : manager.StopInject(row.channel);
    EXPECT_EQ(Peek(row.enableMask), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ChannelStart,
    ::testing::Values(CaptureStart("CaptureWithCardTiming", true),
                      CaptureStart("CaptureWithExternalTiming", false),
                      InjectStart("InjectY8", 2, false, Y8, 640, 480, 50, 777, 1, 0x028001E0,
                                  307200, 307200),
                      // The parameter line is one more line of the geometry.
                      InjectStart("InjectUyvyWithAParameterLine", 1, true, UYVY422, 640, 512, 25,
                                  900, 0, 0x02800201, 656640, 657408)),
    [](const ::testing::TestParamInfo<StartRow>& info) { return std::string(info.param.name); });

struct ReadBackRow {
    const char* name;
    std::uint32_t block;  // of the channel read
    std::uint32_t selectors[4];
    std::function<const void*(PCIeDataManager&)> read;
};

void PrintTo(const ReadBackRow& row, std::ostream* out) {
    *out << row.name;
}

class TimingReadBack : public InjectTest, public ::testing::WithParamInterface<ReadBackRow> {};

TEST_P(TimingReadBack, WritesEachBuffersFourSelectorsInOrder) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log");
    const ReadBackRow& row = GetParam();
    ASSERT_NE(row.read(manager), nullptr);
    const std::vector<CardAccess> writes = Accesses(CardAccess::RegisterWrite);
    ASSERT_EQ(writes.size(), 32u);
    for (std::uint32_t k = 0; k < 32; ++k) {
        EXPECT_EQ(writes[k].address, row.block + 0x10C + k / 4 * 0x10) << "write " << k;
        EXPECT_EQ(writes[k].value, row.selectors[k % 4] << 28) << "write " << k;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, TimingReadBack,
    ::testing::Values(
        ReadBackRow{"Capture", CaptureBlock(1), {3, 1, 0, 2},
                    [](PCIeDataManager& m) -> const void* { return m.GetCaptureDelayStatus(1); }},
        // A channel never started reads channel 0's registers.
        ReadBackRow{"InjectOfAChannelNeverStarted", InjectBlock(0), {3, 1, 2, 0},
                    [](PCIeDataManager& m) -> const void* { return m.GetInjectDelayStatus(2); }}),
    [](const ::testing::TestParamInfo<ReadBackRow>& info) { return std::string(info.param.name); });

// The first call fixes the run's format; later calls are checked for their channel and data only.
TEST_F(Inject, ALaterFrameIsQueuedWhateverItsOtherFields) {
    std::vector<char> frame(64 * 32 * 2, 1);
    eErrorCode error = ERR_NO_CARD;
    ASSERT_TRUE(manager.StartInject(1, 50, 64, 32, Y16, 0, frame.data(), error));
    const struct {
        int frameRate;
        int width;
        int height;
        ePixelType type;
    } later[] = {{0, 64, 32, Y16}, {50, 0, 32, Y16}, {50, 64, 70000, Y16}, {-3, -1, -1, PIXEL32}};
    for (const auto& row : later) {
        error = ERR_NO_CARD;
        EXPECT_TRUE(manager.StartInject(1, row.frameRate, row.width, row.height, row.type, 0,
                                        frame.data(), error))
            << manager.LastErrorText();
        EXPECT_EQ(error, ERR_NONE);
    }
    EXPECT_EQ(InjectStats(1).framesQueued, 5u);
    // The channel and the data still count.
    EXPECT_FALSE(manager.StartInject(1, 0, 64, 32, Y16, 0, nullptr, error));
    EXPECT_FALSE(manager.StartInject(4, 50, 64, 32, Y16, 0, frame.data(), error));
    manager.StopInject(1);
    // A first call after the stop is checked whole again.
    EXPECT_FALSE(manager.StartInject(1, 0, 64, 32, Y16, 0, frame.data(), error));
    EXPECT_STREQ(manager.LastErrorText(), "frame rate 0 is below 1");
}

TEST_F(Inject, BuffersGoOverInRingOrderEachWithAFrameAndTheSixteenthFrameWaitsForATake) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log or memory");
    constexpr int kWidth = 64, kHeight = 16;  // Y16: 2048 bytes
    std::vector<char> frame(kWidth * kHeight * 2, 0x22);
    // One frame a second: the card plays nothing while the queue fills.
    ASSERT_TRUE(Offer(0, 1, kWidth, kHeight, Y16, frame));
    ASSERT_TRUE(WaitFor([&] {
        for (int b = 0; b < 8; ++b) {
            if (Peek(InjectStatus(0, b)) != 0x12) {
                return false;
            }
        }
        return true;
    }));
    // From buffer 0 on, each buffer marked busy, filled, then ready with its length; the seven
    // after the one queued frame take it again (the newest), never what they held before.
    std::vector<std::uint32_t> handovers;
    for (const CardAccess& access : KvPCIeSim::TakeAccessLog(kCard)) {
        if (access.kind == CardAccess::HostToCard) {
            handovers.insert(handovers.end(), {0xD0A, access.address});
        } else if (access.kind == CardAccess::RegisterWrite &&
                   access.address >= InjectBlock(0) + 0x100 &&
                   access.address < InjectBlock(0) + 0x180 && (access.address & 0xF) != 0) {
            handovers.insert(handovers.end(), {access.address, access.value});
        }
    }
    std::vector<std::uint32_t> expected;
    for (int b = 0; b < 8; ++b) {
        expected.insert(expected.end(),
                        {InjectStatus(0, b), 1, 0xD0A, InjectBufferAddress(0, b),
                         InjectStatus(0, b), 0x12, InjectLength(0, b), 2048});
    }
    // The start cleared every status before the worker began.
    ASSERT_GE(handovers.size(), 16u);
    EXPECT_EQ(std::vector<std::uint32_t>(handovers.begin() + 16, handovers.end()), expected);
    const KvInjectStatistics stats = InjectStats(0);
    EXPECT_EQ(stats.framesToCard, 1u);
    EXPECT_EQ(stats.periodsWithoutFrame, 7u);

    // 15 frames wait at most.
    eErrorCode error = ERR_NONE;
    for (int queued = 0; queued < 15; ++queued) {
        ASSERT_TRUE(manager.StartInject(0, 1, kWidth, kHeight, Y16, 0, frame.data(), error));
    }
    EXPECT_FALSE(manager.StartInject(0, 1, kWidth, kHeight, Y16, 0, frame.data(), error));
    EXPECT_EQ(error, ERR_QUEUE_FULL);

    // The card plays buffer 0, the worker refills it from the queue, and there is room again.
    std::vector<CardAccess> taken;
    ASSERT_TRUE(GatherTransfers(taken, 1));
    EXPECT_EQ(taken.front().address, InjectBufferAddress(0, 0));
    error = ERR_NONE;
    EXPECT_TRUE(manager.StartInject(0, 1, kWidth, kHeight, Y16, 0, frame.data(), error));
    EXPECT_EQ(error, ERR_NONE);
}

// What the loopback shows of a channel's frames: the fill byte past the counter stamp.
struct LoopbackSink {
    explicit LoopbackSink(std::size_t bytes) : buffer(bytes) {}
    static void OnFrame(int, const char* frame, void* context) {
        auto* sink = static_cast<LoopbackSink*>(context);
        std::lock_guard<std::mutex> lock(sink->mutex);
        sink->fills.push_back(static_cast<unsigned char>(frame[8]));
    }
    std::vector<unsigned char> Fills() {
        std::lock_guard<std::mutex> lock(mutex);
        return fills;
    }
    std::vector<char> buffer;
    std::mutex mutex;
    std::vector<unsigned char> fills;
};

TEST_F(Inject, ARestartedChannelNeverPlaysAFrameOfTheRunBefore) {
    constexpr int kWidth = 64, kHeight = 48;  // Y8 both ways: the loopback frame fits exactly
    constexpr int kRate = 100;
    LoopbackSink sink(kWidth * kHeight);
    Write(ControlBlock(1) + KvPCIeSim::kCtlCaptureSource, 1);
    Write(ControlBlock(1) + kCtlExternalRate, kRate);
    eErrorCode error = ERR_NO_CARD;
    ASSERT_TRUE(manager.StartCapture(1, false, kWidth, kHeight, Y8, error, &LoopbackSink::OnFrame,
                                     &sink, sink.buffer.data()));
    const auto play = [&](const std::vector<char>& fills) {
        for (char fill : fills) {
            std::vector<char> frame(kWidth * kHeight, fill);
            ASSERT_TRUE(Offer(1, kRate, kWidth, kHeight, Y8, frame));
        }
        ASSERT_TRUE(WaitFor([&] {
            return Peek(ControlBlock(1) + KvPCIeSim::kCtlInjectPlayed) >= fills.size();
        }));
    };
    // The first run's last picture (0xAF) stays on show until the next run plays something.
    std::vector<char> first(15, static_cast<char>(0xA0));
    first.push_back(static_cast<char>(0xAF));
    play(first);
    manager.StopInject(1);
    const std::size_t before = sink.Fills().size();
    // The new run's first frame, then a whole ring's worth of periods with nothing new.
    play({static_cast<char>(0xB0)});
    ASSERT_TRUE(WaitFor([&] { return Peek(ControlBlock(1) + KvPCIeSim::kCtlInjectPlayed) >= 10; }));
    play(std::vector<char>(20, static_cast<char>(0xB0)));
    ASSERT_TRUE(WaitFor([&] {
        const auto fills = sink.Fills();
        return std::count(fills.begin() + static_cast<long>(before), fills.end(), 0xB0) >= 20;
    }));
    manager.StopCapture(1);
    manager.StopInject(1);
    const auto fills = sink.Fills();
    const std::vector<int> shown(fills.begin() + static_cast<long>(before), fills.end());
    EXPECT_EQ(std::count(shown.begin(), shown.end(), 0xA0), 0) << ::testing::PrintToString(shown);
    // Once the new run's frame shows, nothing else does.
    const auto firstNew = std::find(fills.begin() + static_cast<long>(before), fills.end(), 0xB0);
    ASSERT_NE(firstNew, fills.end());
    EXPECT_TRUE(std::all_of(firstNew, fills.end(), [](unsigned char f) { return f == 0xB0; }))
        << ::testing::PrintToString(shown);
}

TEST_F(Inject, TheFrameCounterIsStampedLittleEndianOverTheFirstPixel) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log or memory");
    struct Case {
        ePixelType type;
        int frames;
        std::vector<unsigned char> lastHead;  // the stamp of the last frame, then pixel bytes
    };
    const Case cases[] = {
        {Y8, 3, {0x02, 0xAA}},
        {UYVY422, 4, {0x03, 0x00, 0xAA}},
        {Y16_Y8, 300, {0x2B, 0x01, 0x00, 0xAA}},
    };
    constexpr int kWidth = 32, kHeight = 8;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        std::vector<char> frame(static_cast<std::size_t>(KvFrameSizeBytes(c.type, kWidth, kHeight)),
                                static_cast<char>(0xAA));
        std::vector<CardAccess> transfers;
        for (int n = 0; n < c.frames; ++n) {
            ASSERT_TRUE(Offer(3, 1000, kWidth, kHeight, c.type, frame));
        }
        ASSERT_TRUE(
            WaitFor([&] { return InjectStats(3).framesToCard == std::uint64_t(c.frames); }));
        // Stopped, the worker moves nothing more: card memory holds what the log says.
        manager.StopInject(3);
        ASSERT_TRUE(GatherTransfers(transfers, static_cast<std::size_t>(c.frames)));
        // The host's frames stay as they were: the stamp goes into the queue's copy.
        EXPECT_EQ(static_cast<unsigned char>(frame[0]), 0xAA);
        const std::size_t stamp = c.lastHead.size() - 1;
        // A buffer holds its last transfer's frame; numbers never go down (a dry queue resends).
        std::uint32_t previous = 0;
        for (std::size_t n = 0; n < transfers.size(); ++n) {
            const bool overwritten = std::any_of(
                transfers.begin() + static_cast<long>(n) + 1, transfers.end(),
                [&](const CardAccess& later) { return later.address == transfers[n].address; });
            if (overwritten) {
                continue;
            }
            const auto head = CardBytes(transfers[n].address, c.lastHead.size());
            std::uint32_t number = 0;
            for (std::size_t i = 0; i < stamp; ++i) {
                number |= std::uint32_t{head[i]} << (8 * i);
            }
            EXPECT_GE(number, previous) << "transfer " << n;
            EXPECT_LT(number, static_cast<std::uint32_t>(c.frames)) << "transfer " << n;
            EXPECT_EQ(head[stamp], 0xAA) << "transfer " << n;
            previous = number;
        }
        EXPECT_EQ(CardBytes(transfers.back().address, c.lastHead.size()), c.lastHead);
    }
}

TEST_F(Inject, StopAndRestartWhileFramesFlowBeginAgainAtBufferZeroAndCounterZero) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log or memory");
    constexpr int kWidth = 32, kHeight = 8;
    std::vector<char> frame(kWidth * kHeight, 0x33);
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        for (unsigned channel : {0u, 2u}) {
            ASSERT_TRUE(Offer(channel, 500, kWidth, kHeight, Y8, frame));
        }
        // After a start the ring begins at buffer 0, and the first frame carries counter 0.
        const std::array<int, 2> channels = {0, 2};
        std::vector<CardAccess> writes;
        std::vector<CardAccess> transfers;
        ASSERT_TRUE(WaitFor([&] {
            for (const CardAccess& access : KvPCIeSim::TakeAccessLog(kCard)) {
                if (access.kind == CardAccess::HostToCard) {
                    transfers.push_back(access);
                } else if (access.kind == CardAccess::RegisterWrite) {
                    writes.push_back(access);
                }
            }
            // Each channel's first frame went over, and its ready status after it.
            return std::all_of(channels.begin(), channels.end(), [&](int channel) {
                return std::any_of(transfers.begin(), transfers.end(), [&](const CardAccess& t) {
                    return t.address == InjectBufferAddress(channel, 0) &&
                           std::any_of(writes.begin(), writes.end(), [&](const CardAccess& w) {
                               return w.address == StatusOf(t.address) && w.value == 0x12;
                           });
                });
            });
        }));
        for (int channel : {0, 2}) {
            SCOPED_TRACE(channel);
            const auto firstHandover =
                std::find_if(writes.begin(), writes.end(), [&](const CardAccess& w) {
                    return w.value == 1 && w.address >= InjectStatus(channel, 0) &&
                           w.address <= InjectStatus(channel, 7);
                });
            ASSERT_NE(firstHandover, writes.end());
            EXPECT_EQ(firstHandover->address, InjectStatus(channel, 0));
            const auto firstTransfer =
                std::find_if(transfers.begin(), transfers.end(), [&](const CardAccess& t) {
                    return t.address >= InjectBufferAddress(channel, 0) &&
                           t.address <= InjectBufferAddress(channel, 7);
                });
            ASSERT_NE(firstTransfer, transfers.end());
            EXPECT_EQ(firstTransfer->address, InjectBufferAddress(channel, 0));
            // The card's own record of what it played (card memory is rewritten as it frees
            // buffers): with one frame queued, counter 0.
            ASSERT_TRUE(WaitFor([&] {
                return Peek(ControlBlock(channel) + KvPCIeSim::kCtlInjectPlayed) >= 1;
            }));
            EXPECT_EQ(Peek(ControlBlock(channel) + KvPCIeSim::kCtlLastInjectHead), 0x33333300u);
        }
        for (int n = 0; n < 20; ++n) {
            ASSERT_TRUE(Offer(0, 500, kWidth, kHeight, Y8, frame));
            ASSERT_TRUE(Offer(2, 500, kWidth, kHeight, Y8, frame));
        }
        manager.StopInject(0);
        EXPECT_EQ(Peek(kInjectEnableMask), 4u);
        manager.StopInject(2);
        EXPECT_EQ(Peek(kInjectEnableMask), 0u);
        // A stop of a stopped channel touches nothing.
        KvPCIeSim::TakeAccessLog(kCard);
        manager.StopInject(2);
        EXPECT_TRUE(Accesses(CardAccess::RegisterWrite).empty());
        // The restart must not wait for the card to play out what it holds.
        KvPCIeSim::TakeAccessLog(kCard);
    }
}

TEST_F(Inject, TheTimingReadBackGivesBoundedTimesOnTheDelayClock) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log or memory");
    constexpr int kWidth = 32, kHeight = 8;
    std::vector<char> frame(kWidth * kHeight, 0x44);
    for (int n = 0; n < 12; ++n) {
        ASSERT_TRUE(Offer(0, 200, kWidth, kHeight, Y8, frame));
    }
    ASSERT_TRUE(WaitFor([&] { return Peek(ControlBlock(0) + 0x10) >= 12; }));
    const tagInjectDelayStatusInfo* records = manager.GetInjectDelayStatus(0);
    ASSERT_NE(records, nullptr);
    // Every buffer has been played: each time is a real, bounded one on the 125 MHz clock.
    const double longest = double(0x0FFFFFFF) / 125000000.0;
    for (int b = 0; b < 8; ++b) {
        SCOPED_TRACE(b);
        const double values[] = {records[b].delaySel0, records[b].delaySel1, records[b].delaySel2,
                                 records[b].delaySel3};
        for (double value : values) {
            EXPECT_TRUE(std::isfinite(value));
            EXPECT_GE(value, 0.0);
            EXPECT_LE(value, longest);
        }
        EXPECT_GT(records[b].delaySel2, 0.0);  // the play interval
        EXPECT_GT(records[b].delaySel3, 0.0);  // host writing to the end of the play
    }
    EXPECT_EQ(manager.GetInjectDelayStatus(4), nullptr);
}

#ifdef __linux__
// The low-latency setting raises the threads that wait for the card and no other: real-time
// threads that all wake at once starve each other.
TEST_F(Inject, TheLowLatencySettingRaisesTheThreadsThatWaitForTheCardAndNoOther) {
    SetEnvironment("KVPCIE_REALTIME_POLLING", "1");
    manager.CloseCard();
    const bool opened = manager.OpenCard(path);  // the engines read it when the card opens
    UnsetEnvironment("KVPCIE_REALTIME_POLLING");
    ASSERT_TRUE(opened);
    bool granted = false;
    std::thread([&] {
        sched_param parameters{};
        parameters.sched_priority = sched_get_priority_min(SCHED_FIFO);
        granted = pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters) == 0;
    }).join();
    constexpr int kWidth = 64, kHeight = 16;
    FrameSink sink(kWidth * kHeight * 2);
    ASSERT_TRUE(StartQuietCapture(0, kWidth, kHeight, FrameSink::OnFrame, sink));
    std::vector<char> frame(kWidth * kHeight * 2, 0x22);
    ASSERT_TRUE(Offer(1, 100, kWidth, kHeight, Y16, frame));
    ASSERT_TRUE(WaitFor([&] { return InjectStats(1).framesToCard >= 1; }));
    const std::map<std::string, int> policies = ThreadPolicies("kvpcie-");
    const int raised = granted ? SCHED_FIFO : SCHED_OTHER;
    for (const char* name : {"kvpcie-capture", "kvpcie-event0", "kvpcie-inject"}) {
        ASSERT_EQ(policies.count(name), 1u) << name;
        EXPECT_EQ(policies.at(name), raised) << name;
    }
    for (const auto& [name, policy] : policies) {
        if (name != "kvpcie-capture" && name != "kvpcie-event0" && name != "kvpcie-inject") {
            EXPECT_EQ(policy, SCHED_OTHER) << name;
        }
    }
    if (!granted) {  // a refusal is told, not kept quiet
        EXPECT_TRUE(LogText("Inject_AllChannel").contains("the inject worker keeps its normal"));
    }
    manager.StopCapture(0);
    manager.StopInject(1);
}
#endif

}  // namespace
}  // namespace kvpcie::testing
