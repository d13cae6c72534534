// kvpcie.h on a bench of several cards: side by side, one going away, open/close cycles.
#include "../support/ModelCards.h"
#include "../support/ProcessCounters.h"
#include "../support/WaitFor.h"
#include "../support/Watchdog.h"

#include <KvPCIeInjectSdk/kvpcie.h>

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <string>
#include <thread>

namespace kvpcie::testing {
namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 32;
constexpr std::size_t kFrameBytes = kWidth * kHeight;  // Y8

constexpr std::uint32_t Control(int channel, std::uint32_t offset) {
    return 0x1F1000u + static_cast<std::uint32_t>(channel) * 0x1000u + offset;
}
constexpr std::uint32_t kFrameRate = 0x04;
constexpr std::uint32_t kCaptureSource = 0x00;  // 1: loopback of the inject channel
constexpr std::uint32_t kIdentity = 0x1F0000;

class CApiCards : public ::testing::Test {
protected:
    // On the driver models (with-model.sh --cards 2) their two cards are already there.
    void SetUp() override {
        if (!OnDriverModel()) {
            ASSERT_EQ(kvpcie_sim_configure("xdma:2,riffa:1"), KVPCIE_OK);
        }
    }
    void TearDown() override {
        if (!OnDriverModel()) {
            kvpcie_sim_configure("");
        }
    }
};

// What one card's capture saw: frames whose last byte names the card they were injected into.
struct CardFrames {
    char card = 0;
    std::atomic<int> frames{0};
    std::atomic<int> foreign{0};
    std::array<unsigned char, kFrameBytes> buffer{};
};

void KVPCIE_CALL CountOwnFrames(const kvpcie_frame* frame, void* context) {
    auto* seen = static_cast<CardFrames*>(context);
    const auto* bytes = static_cast<const unsigned char*>(frame->data);
    const unsigned char mark = bytes[frame->bytes - 1];
    // Before the first play the loopback shows zeros; after it, only this card's frame.
    if (mark == 0) {
        return;
    }
    ++seen->frames;
    if (mark != static_cast<unsigned char>(seen->card)) {
        ++seen->foreign;
    }
}

TEST_F(CApiCards, TwoCardsCaptureAndInjectSideBySideEachItsOwn) {
    const Watchdog watchdog("two cards", std::chrono::seconds(30));
    const std::string pathA = CardPath(0);
    const std::string pathB = CardPath(1);
    kvpcie_card* a = kvpcie_open(pathA.c_str());
    kvpcie_card* b = kvpcie_open(pathB.c_str());
    ASSERT_NE(a, nullptr) << kvpcie_last_error();
    ASSERT_NE(b, nullptr) << kvpcie_last_error();
    EXPECT_EQ(kvpcie_card_path(a), pathA);
    EXPECT_EQ(kvpcie_card_path(b), pathB);
    // A register written through one handle is not the other card's.
    ASSERT_EQ(kvpcie_write_reg(a, Control(0, kFrameRate), 100), KVPCIE_OK);
    ASSERT_EQ(kvpcie_write_reg(b, Control(0, kFrameRate), 20), KVPCIE_OK);
    std::uint32_t value = 0;
    ASSERT_EQ(kvpcie_read_reg(a, Control(0, kFrameRate), &value), KVPCIE_OK);
    EXPECT_EQ(value, 100u);
    ASSERT_EQ(kvpcie_read_reg(b, Control(0, kFrameRate), &value), KVPCIE_OK);
    EXPECT_EQ(value, 20u);

    // Each card loops back frames that name it; a capture that got the other card's frames
    // would count them as foreign.
    static CardFrames seenA;
    static CardFrames seenB;
    seenA.card = 'A';
    seenB.card = 'B';
    std::array<unsigned char, kFrameBytes> frameA;
    std::array<unsigned char, kFrameBytes> frameB;
    frameA.fill('A');
    frameB.fill('B');
    for (kvpcie_card* card : {a, b}) {
        ASSERT_EQ(kvpcie_write_reg(card, Control(1, kCaptureSource), 1), KVPCIE_OK);
        ASSERT_EQ(kvpcie_write_reg(card, Control(1, kFrameRate), 100), KVPCIE_OK);
    }
    ASSERT_EQ(kvpcie_start_capture(a, 1, 0, kWidth, kHeight, KVPCIE_Y8, seenA.buffer.data(),
                                   CountOwnFrames, &seenA),
              KVPCIE_OK);
    ASSERT_EQ(kvpcie_start_capture(b, 1, 0, kWidth, kHeight, KVPCIE_Y8, seenB.buffer.data(),
                                   CountOwnFrames, &seenB),
              KVPCIE_OK);
    ASSERT_EQ(kvpcie_inject(a, 1, 100, kWidth, kHeight, KVPCIE_Y8, frameA.data()), KVPCIE_OK);
    ASSERT_EQ(kvpcie_inject(b, 1, 100, kWidth, kHeight, KVPCIE_Y8, frameB.data()), KVPCIE_OK);
    EXPECT_TRUE(WaitFor([&] { return seenA.frames > 20 && seenB.frames > 20; }))
        << seenA.frames << " and " << seenB.frames << " frames";

    // Closing one card leaves the other one open and capturing.
    kvpcie_close(a);
    const int before = seenB.frames;
    EXPECT_TRUE(WaitFor([&] { return seenB.frames > before + 10; }));
    ASSERT_EQ(kvpcie_read_reg(b, Control(0, kFrameRate), &value), KVPCIE_OK);
    EXPECT_EQ(value, 20u);
    kvpcie_close(b);
    EXPECT_EQ(seenA.foreign, 0);
    EXPECT_EQ(seenB.foreign, 0);
}

// ------------------------------------------------------------------ a card that goes away

struct LostSeen {
    std::atomic<int> calls{0};
    std::atomic<bool> closedInside{false};
    kvpcie_card* closeThis = nullptr;
    std::string path;
    std::chrono::steady_clock::time_point at;
};

void KVPCIE_CALL RecordLoss(const char* path, void* context) {
    auto* seen = static_cast<LostSeen*>(context);
    seen->path = path;
    seen->at = std::chrono::steady_clock::now();
    if (seen->closeThis != nullptr) {
        kvpcie_close(seen->closeThis);  // a close inside the callback is allowed
        seen->closedInside = true;
    }
    ++seen->calls;
}

void KVPCIE_CALL CountFrames(const kvpcie_frame*, void* context) {
    ++*static_cast<std::atomic<int>*>(context);
}

TEST_F(CApiCards, ACardThatGoesAwayIsToldToEveryHandleOnceAndCallsSaySo) {
    const Watchdog watchdog("card lost", std::chrono::seconds(30));
    kvpcie_card* capturing = kvpcie_open("sim:xdma0");
    kvpcie_card* watching = kvpcie_open("sim:xdma0");
    kvpcie_card* otherCard = kvpcie_open("sim:xdma1");
    ASSERT_NE(capturing, nullptr);
    ASSERT_NE(watching, nullptr);
    ASSERT_NE(otherCard, nullptr);
    static LostSeen first;
    static LostSeen second;
    static LostSeen third;
    second.closeThis = watching;
    ASSERT_EQ(kvpcie_set_card_lost_callback(capturing, RecordLoss, &first), KVPCIE_OK);
    ASSERT_EQ(kvpcie_set_card_lost_callback(watching, RecordLoss, &second), KVPCIE_OK);
    ASSERT_EQ(kvpcie_set_card_lost_callback(otherCard, RecordLoss, &third), KVPCIE_OK);
    static std::array<unsigned char, kFrameBytes> buffer;
    static std::atomic<int> frames{0};
    ASSERT_EQ(kvpcie_write_reg(capturing, Control(0, kFrameRate), 200), KVPCIE_OK);
    ASSERT_EQ(kvpcie_start_capture(capturing, 0, 0, kWidth, kHeight, KVPCIE_Y8, buffer.data(),
                                   CountFrames, &frames),
              KVPCIE_OK);
    ASSERT_TRUE(WaitFor([&] { return frames > 5; }));
    EXPECT_EQ(kvpcie_is_card_lost(capturing), 0);

    const auto removedAt = std::chrono::steady_clock::now();
    ASSERT_EQ(kvpcie_sim_set_removed(0, 1), KVPCIE_OK);
    ASSERT_TRUE(WaitFor([&] { return first.calls > 0 && second.calls > 0; }));
    std::printf("the card-lost callback came %lld ms after the removal\n",
                static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                           first.at - removedAt)
                                           .count()));
    EXPECT_EQ(first.path, "sim:xdma0");
    EXPECT_TRUE(second.closedInside);
    EXPECT_EQ(kvpcie_is_card_lost(capturing), 1);
    kvpcie_capture_statistics statistics{};
    statistics.size = sizeof statistics;
    ASSERT_EQ(kvpcie_capture_statistics_get(capturing, 0, &statistics), KVPCIE_OK);
    EXPECT_EQ(statistics.card_lost, 1);
    EXPECT_GT(statistics.card_lost_at_ms, 0);
    std::uint32_t value = 5;
    EXPECT_EQ(kvpcie_read_reg(capturing, kIdentity, &value), KVPCIE_CARD_LOST);
    EXPECT_NE(std::strstr(kvpcie_last_error(), "gone"), nullptr) << kvpcie_last_error();
    EXPECT_EQ(kvpcie_start_capture(capturing, 1, 0, kWidth, kHeight, KVPCIE_Y8, buffer.data(),
                                   nullptr, nullptr),
              KVPCIE_CARD_LOST);
    const int framesAtLoss = frames;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_LE(frames, framesAtLoss + 1);
    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(third.calls, 0) << "the other card is there";
    ASSERT_EQ(kvpcie_read_reg(otherCard, kIdentity, &value), KVPCIE_OK);
    kvpcie_close(capturing);

    // Open again once it is back: the open's restart finds it.
    ASSERT_EQ(kvpcie_sim_set_removed(0, 0), KVPCIE_OK);
    kvpcie_card* again = kvpcie_open("sim:xdma0");
    ASSERT_NE(again, nullptr) << kvpcie_last_error();
    EXPECT_EQ(kvpcie_is_card_lost(again), 0);
    ASSERT_EQ(kvpcie_read_reg(again, kIdentity, &value), KVPCIE_OK);
    EXPECT_EQ(value, 0x53494D31u);
    // Gone again with nothing running: the read itself finds it, and gives no value.
    ASSERT_EQ(kvpcie_sim_set_removed(0, 1), KVPCIE_OK);
    EXPECT_NE(kvpcie_read_reg(again, kIdentity, &value), KVPCIE_OK);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(kvpcie_read_reg(again, kIdentity, &value), KVPCIE_CARD_LOST);
    kvpcie_close(again);
    ASSERT_EQ(kvpcie_sim_set_removed(0, 0), KVPCIE_OK);
    kvpcie_close(otherCard);
}

// ------------------------------------------------------------------ cycles that give back

struct CycleCase {
    const char* name;
    bool riffa;
    int cycles;
};

void PrintTo(const CycleCase& cycleCase, std::ostream* out) {
    *out << cycleCase.name;
}

class OpenCloseCycles : public CApiCards, public ::testing::WithParamInterface<CycleCase> {};

// After a few cycles that bring up what lives as long as the process, more give back all.
TEST_P(OpenCloseCycles, GiveBackTheirThreadsDescriptorsAndMemory) {
    const CycleCase& param = GetParam();
    const Watchdog watchdog(param.name, std::chrono::seconds(120));
    const auto cycle = [&] {
        kvpcie_card* card = param.riffa ? kvpcie_open_riffa(0) : kvpcie_open("sim:xdma0");
        ASSERT_NE(card, nullptr) << kvpcie_last_error();
        std::uint32_t value = 0;
        ASSERT_EQ(kvpcie_read_reg(card, kIdentity, &value), KVPCIE_OK);
        EXPECT_EQ(value, 0x53494D31u);
        kvpcie_close(card);
    };
    for (int i = 0; i < 5; ++i) {
        ASSERT_NO_FATAL_FAILURE(cycle());
    }
    // The card thread ends after its last user: wait until it has.
    ASSERT_TRUE(WaitFor([&] {
        const int threads = ThreadCount();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return ThreadCount() == threads;
    }));
    const int threadsBefore = ThreadCount();
    const int descriptorsBefore = OpenDescriptorCount();
    const long heapBefore = HeapInUse();
    for (int i = 0; i < param.cycles; ++i) {
        ASSERT_NO_FATAL_FAILURE(cycle());
    }
    EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threadsBefore; }))
        << ThreadCount() << " threads, " << threadsBefore << " before";
    EXPECT_EQ(OpenDescriptorCount(), descriptorsBefore);
    // Per cycle, less than a hundred bytes: caches, not a record or a log per handle.
    EXPECT_LT(HeapInUse() - heapBefore, 100L * param.cycles + (64 << 10))
        << "heap before " << heapBefore << ", after " << HeapInUse();
}

// An XDMA open restarts the card and waits 50 ms for it: fewer cycles keep the suite fast.
INSTANTIATE_TEST_SUITE_P(Kinds, OpenCloseCycles,
                         ::testing::Values(CycleCase{"XDMA card handles", false, 100},
                                           CycleCase{"RIFFA device handles", true, 1000}),
                         [](const ::testing::TestParamInfo<CycleCase>& info) {
                             return std::string(info.param.riffa ? "Riffa" : "Xdma");
                         });

}  // namespace
}  // namespace kvpcie::testing
