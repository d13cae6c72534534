// The card-side state of one capture channel: its frame clock, ring position, frame content,
// status blocks waiting for the mailbox, and the times behind the delay read-back.
#pragma once

#include "CardMemory.h"
#include "SimCardRegisters.h"
#include "SimFrameClock.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

namespace kvpcie::sim {

// What the card's registers say about the next frames.
struct CaptureSettings {
    std::uint32_t frameBytes = 0;
    bool loopback = false;
    // The moving scene instead of the test pattern, drawn in the channel's format.
    bool scene = false;
    std::uint32_t width = 0;
    std::uint32_t lines = 0;
    std::uint32_t pixelCode = 0;
    std::uint32_t errorEvery = 0;
    // The host has not taken the frame in the buffer yet.
    std::array<bool, xdma::kCardBufferCount> held{};
};

// Not thread-safe: the card calls every member under its register mutex, except WriteFrames,
// which it calls without the mutex while the channel is claimed.
class SimCaptureChannel {
public:
    using Clock = SimFrameClock::Clock;
    using TimePoint = SimFrameClock::TimePoint;

    struct Frame {
        std::uint32_t number;
        unsigned buffer;
        bool error;
        TimePoint start;
        Clock::duration writeTime;
    };
    struct Batch {
        std::array<Frame, xdma::kCardBufferCount> frames;
        int count = 0;
    };
    struct StatusBlock {
        std::uint32_t length;              // bytes
        std::vector<std::uint32_t> words;  // the last one zero-padded
    };
    // Since Start; the control block shows them.
    struct Counts {
        std::uint32_t framesProduced = 0;
        std::uint32_t framesDropped = 0;
    };

    explicit SimCaptureChannel(unsigned channel);

    // --- the clock ---
    // Frame 0 goes to buffer 0, one period from now. A zero period gives no frames.
    void Start(TimePoint now, Clock::duration period);
    // A batch being written when the channel stops or starts again is not published.
    void Stop() { clock_.Stop(); }
    bool Running() const { return clock_.Running(); }
    void Retime(TimePoint now, Clock::duration period) { clock_.Retime(now, period); }
    std::optional<TimePoint> Deadline() const { return clock_.Deadline(); }
    // After the frame due at `due`, produced on waking at `wake`.
    void Advance(TimePoint due, TimePoint wake, Clock::duration period) {
        clock_.Advance(due, wake, period);
    }

    // --- producing frames ---
    // One producer at a time: the clock and ProduceCaptureFrames both claim the channel.
    bool Claimed() const { return claimed_; }
    // Claims the channel and numbers `count` (at most the ring size) frames starting at `start`.
    // Frames whose buffer the host still holds are dropped and counted.
    void Plan(const CaptureSettings& settings, int count, TimePoint start);
    void WriteFrames(CardMemory& memory);
    // Ends the claim. False when the channel stopped or started again since Plan: then nothing
    // of the batch is published.
    bool Finish();
    const Batch& Planned() const { return batch_; }
    // The frame was made ready: it counts as produced.
    void RecordReady(const Frame& frame, TimePoint ready);
    void RecordRelease(unsigned buffer, TimePoint now);
    // Frames in loopback take this one, cut or zero-filled; none gives zeros.
    void SetLoopbackFrame(std::shared_ptr<const std::vector<std::uint8_t>> frame);

    // --- read-back ---
    // Delay-clock ticks for `selector`, saturated to the register's count field.
    std::uint32_t DelayTicks(unsigned buffer, unsigned selector, TimePoint now) const;
    bool ReadyTime(std::uint32_t number, TimePoint& ready) const;

    // --- counts ---
    const Counts& Counted() const { return counts_; }
    // The control API sets them as the card itself would.
    void SetCounted(const Counts& counts) { counts_ = counts; }

    // --- the mailbox ---
    // False when the queue is full.
    bool QueueStatusBlock(StatusBlock block);
    std::optional<StatusBlock> TakeStatusBlock();

private:
    struct BufferTimes {
        bool filled = false;
        bool released = false;
        TimePoint start{};
        TimePoint ready{};
        TimePoint release{};
        Clock::duration writeTime{};
        Clock::duration sincePreviousReady{};
    };
    struct ReadyRecord {
        bool kept = false;
        std::uint32_t number = 0;
        TimePoint time{};
    };

    const unsigned channel_;
    SimFrameClock clock_;
    unsigned position_ = 0;
    std::uint32_t number_ = 0;
    Counts counts_;

    bool claimed_ = false;
    Batch batch_;
    std::uint64_t batchGeneration_ = 0;
    std::uint32_t batchBytes_ = 0;
    bool batchLoopback_ = false;
    bool batchScene_ = false;
    std::uint32_t batchWidth_ = 0;
    std::uint32_t batchLines_ = 0;
    std::uint32_t batchPixelCode_ = 0;
    std::shared_ptr<const std::vector<std::uint8_t>> batchLoopbackFrame_;
    std::shared_ptr<const std::vector<std::uint8_t>> loopbackFrame_;

    std::array<BufferTimes, xdma::kCardBufferCount> buffers_{};
    std::optional<TimePoint> previousReady_;
    std::array<ReadyRecord, kReadyTimesKept> readyTimes_{};
    std::deque<StatusBlock> statusQueue_;
};

}  // namespace kvpcie::sim
