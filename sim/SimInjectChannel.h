// The card-side state of one inject channel: its frame clock, ring position, the times behind
// the delay read-back and the command mailbox's busy time.
#pragma once

#include "SimFrameClock.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>

namespace kvpcie::sim {

// Not thread-safe: the card calls every member under its register mutex. The frame itself is
// read between BeginPlay and FinishPlay without the mutex, so a stop in between is caught there.
class SimInjectChannel {
public:
    using Clock = SimFrameClock::Clock;
    using TimePoint = SimFrameClock::TimePoint;
    // The control block shows them. Plays and underruns count since Start, commands since the
    // card was made.
    struct Counts {
        std::uint32_t framesPlayed = 0;
        std::uint32_t underruns = 0;
        std::uint32_t commandsTaken = 0;
    };

    // --- the clock ---
    // The first tick comes one period from now and looks at buffer 0.
    void Start(TimePoint now, Clock::duration period);
    void Stop() { clock_.Stop(); }
    bool Running() const { return clock_.Running(); }
    void Retime(TimePoint now, Clock::duration period) { clock_.Retime(now, period); }
    std::optional<TimePoint> Deadline() const { return clock_.Deadline(); }
    // After the tick due at `due`, served on waking at `wake`.
    void Advance(TimePoint due, TimePoint wake, Clock::duration period) {
        clock_.Advance(due, wake, period);
    }

    // --- playing ---
    // The buffer the next tick plays if the host has handed it over.
    unsigned Position() const { return position_; }
    void BeginPlay();
    // False when the channel stopped or started again since BeginPlay: nothing was played.
    // Otherwise the buffer at Position() counts as played at `end` and the ring moves on.
    bool FinishPlay(TimePoint end);
    // A tick found the buffer at Position() not handed over.
    void CountUnderrun() { ++counts_.underruns; }

    // --- the delay read-back ---
    // The host wrote a buffer's status: it began filling it, or handed it over.
    void RecordHostWriting(unsigned buffer, TimePoint now);
    void RecordReady(unsigned buffer, TimePoint now);
    // Delay-clock ticks for `selector`, saturated to the register's count field; 0 for what has
    // not happened yet.
    std::uint32_t DelayTicks(unsigned buffer, unsigned selector) const;
    // From the card's release of a buffer to the host's start of refilling it, since Start:
    // the longest and how many were timed.
    Clock::duration LongestRefill() const { return longestRefill_; }
    std::uint64_t RefillsTimed() const { return refillsTimed_; }
    void RestartRefillTimes() {
        longestRefill_ = Clock::duration::zero();
        refillsTimed_ = 0;
    }

    // --- the command mailbox ---
    // Still moving the command it took last.
    bool CommandBusy(TimePoint now) const;
    // What bit 10 of the control word reads: busy, or a start the card left untaken.
    bool CommandStarted(TimePoint now) const { return untakenStart_ || CommandBusy(now); }
    // Counted as taken.
    void TakeCommand(TimePoint busyUntil);
    void SetUntakenStart(bool untaken) { untakenStart_ = untaken; }
    // A restarted card is idle.
    void ResetCommand();

    // --- counts ---
    const Counts& Counted() const { return counts_; }
    // The control API sets them as the card itself would.
    void SetCounted(const Counts& counts) { counts_ = counts; }

private:
    struct BufferTimes {
        std::optional<TimePoint> writing;
        std::optional<TimePoint> ready;
        std::optional<TimePoint> released;
        // Kept once measured, until measured again: the host reads them after the play, when it
        // may already be filling the buffer for the next round.
        Clock::duration hostWriting{};
        Clock::duration readyToPlay{};
        Clock::duration playInterval{};
        Clock::duration writingToPlay{};
    };

    SimFrameClock clock_;
    std::uint64_t playGeneration_ = 0;
    unsigned position_ = 0;
    Counts counts_;

    std::array<BufferTimes, xdma::kCardBufferCount> buffers_{};
    std::optional<TimePoint> previousPlay_;
    Clock::duration longestRefill_{};
    std::uint64_t refillsTimed_ = 0;

    std::optional<TimePoint> commandBusyUntil_;
    bool untakenStart_ = false;
};

}  // namespace kvpcie::sim
