// The model of one XDMA frame card: its user registers, card memory, user events, the frames its
// capture channels produce, the frames its inject channels play, its command mailboxes and the
// log of what the host did to it.
#pragma once

#include "SimCaptureChannel.h"
#include "SimCardRegisters.h"
#include "SimInjectChannel.h"
#include "SimUserEvents.h"
#include "CardMemory.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace kvpcie::sim {

// Shared by the registry and by every device file open on the card, so a file outlives the
// card's removal safely and then fails. All members are thread-safe.
//
// One timing thread per card, started by the first capture or inject enable, produces the clocked
// frames of every capture channel and plays the inject channels' ready buffers; it sleeps until
// the earliest deadline or until the host changes the timing.
class SimXdmaCard {
public:
    explicit SimXdmaCard(int number);
    ~SimXdmaCard();
    SimXdmaCard(const SimXdmaCard&) = delete;
    SimXdmaCard& operator=(const SimXdmaCard&) = delete;

    int Number() const { return number_; }

    // --- the host's side, reached through the device files ---
    // False when the card has been removed.
    bool ReadRegister(std::uint32_t address, std::uint32_t& value);
    bool WriteRegister(std::uint32_t address, std::uint32_t value);
    // DMA: one driver request. False when refused (removed card); moved may fall short at the
    // end of card memory.
    bool ReadMemory(std::uint64_t address, void* buffer, std::uint32_t size, std::uint32_t& moved);
    bool WriteMemory(std::uint64_t address, const void* buffer, std::uint32_t size,
                     std::uint32_t& moved);
    void CountRefusedTransfer();

    using EventWait = SimUserEvents::Outcome;
    // Blocks until the event is raised, the timeout passes, `cancelled` is set (then call
    // WakeEventWaiters) or the card is removed.
    EventWait WaitUserEvent(int event, const std::atomic<bool>& cancelled);
    void WakeEventWaiters();
    // Whether event `event` was raised and no wait has taken it yet.
    bool IsUserEventPending(int event) const;
    // For a process that serves the events elsewhere (the driver model, which must tell poll()
    // callers): called with the card's lock held when an event is raised (its number) or when
    // every wait must end (-1: the card was removed). It must return at once and must not call
    // the card. Set before the card is used.
    void SetEventObserver(std::function<void(int event)> observer);

    void Restart();
    // The driver-level restart of every card: one whose files are open in use is left alone,
    // as the Linux driver's PCI removal is refused and Windows will not disable a device with
    // open handles. False when the card was in use.
    bool RestartUnlessInUse();
    bool IsNodeAbsent(const std::string& node) const;
    void FileOpened();
    void FileClosed();
    bool IsRemoved() const { return removed_.load(std::memory_order_acquire); }

    // --- the control side ---
    bool RaiseUserEvent(int event);
    void SetEventTimeout(std::chrono::milliseconds timeout);
    void SetRemoved(bool removed);
    void SetNodeAbsent(const std::string& node, bool absent);
    std::vector<KvPCIeSim::CardAccess> TakeAccessLog();
    KvPCIeSim::CardCounters ReadCounters() const;
    std::uint32_t PeekRegister(std::uint32_t address) const;
    void PokeRegister(std::uint32_t address, std::uint32_t value);
    CardMemory& Memory() { return memory_; }
    // See KvPCIeSim::ProduceCaptureFrames.
    bool ProduceCaptureFrames(int channel, int count);
    bool CaptureReadyTime(int channel, std::uint32_t frameNumber,
                          SimCaptureChannel::TimePoint& ready) const;
    // See KvPCIeSim::InjectRefillTimes.
    bool InjectRefillTimes(int channel, std::int64_t& longestNanos, std::uint64_t& count) const;
    bool RestartInjectRefillTimes(int channel);

    // --- the inject side ---
    // The frame just played on inject channel `channel`, for capture channel `channel` in
    // loopback. Copied.
    void SetLoopbackFrame(int channel, const void* data, std::size_t size);

private:
    using Clock = SimCaptureChannel::Clock;
    using TimePoint = SimCaptureChannel::TimePoint;
    static constexpr std::size_t kAccessLogCapacity = 65536;

    // The register file: an address is decoded once, then served by its block's kind.
    std::uint32_t RegisterValueLocked(std::uint32_t address) const;
    void StoreRegisterLocked(std::uint32_t address, std::uint32_t value);
    // The word as last stored, for registers that are nothing more.
    std::uint32_t StoredLocked(std::uint32_t address) const;
    std::uint32_t ControlRegisterValueLocked(unsigned channel, std::uint32_t offset) const;
    // The ready time of the frame named at the channel's kCtlReadyTimeFrame; 0 when not kept.
    std::uint64_t ReadyNanosLocked(unsigned channel) const;
    void ControlRegisterWrittenLocked(unsigned channel, std::uint32_t offset, std::uint32_t value);
    // The control block's counts live in the channels; nothing for another offset.
    std::optional<std::uint32_t> CountLocked(unsigned channel, std::uint32_t offset) const;
    bool SetCountLocked(unsigned channel, std::uint32_t offset, std::uint32_t value);

    void LogLocked(KvPCIeSim::CardAccess::Kind kind, std::uint32_t address, std::uint32_t value);
    void RaiseUserEventLocked(int event);
    bool TakeDmaFaultLocked(std::uint64_t address);

    // Capture registers written or read by the host (SimXdmaCardCapture.cpp).
    void SetCaptureEnableLocked(std::uint32_t mask);
    void CaptureRegisterWrittenLocked(unsigned channel, std::uint32_t offset, std::uint32_t value);
    std::uint32_t CaptureRegisterValueLocked(unsigned channel, std::uint32_t offset) const;
    void RetimeLocked(unsigned channel);
    void PostStatusLocked(unsigned channel, std::uint32_t length);
    void ShowStatusBlockLocked(unsigned channel, const SimCaptureChannel::StatusBlock& block);
    std::uint32_t DelayRegisterLocked(unsigned channel, unsigned buffer) const;

    // Inject registers written or read by the host (SimXdmaCardInject.cpp).
    void SetInjectEnableLocked(std::uint32_t mask);
    void InjectRegisterWrittenLocked(unsigned channel, std::uint32_t offset, std::uint32_t value);
    std::uint32_t InjectRegisterValueLocked(unsigned channel, std::uint32_t offset) const;
    void CommandControlWrittenLocked(unsigned channel, std::uint32_t value);
    void TakeCommandLocked(unsigned channel, std::uint32_t length);

    // Frame production and play; the timing thread is in SimXdmaCardClock.cpp.
    Clock::duration FramePeriodLocked(unsigned channel) const;
    Clock::duration InjectFramePeriodLocked(unsigned channel) const;
    CaptureSettings CaptureSettingsLocked(unsigned channel) const;
    void StartClockLocked();
    void RunClock();
    // Writes the frames without the lock, then publishes them together. False when the channel
    // stopped or started again meanwhile.
    bool ProduceLocked(std::unique_lock<std::mutex>& lock, unsigned channel, int count,
                       TimePoint start);
    void PublishLocked(unsigned channel);
    // One tick of an inject channel: plays its buffer at the ring position if the host handed
    // it over, reading it without the lock. False when the channel stopped or started again
    // meanwhile.
    bool PlayLocked(std::unique_lock<std::mutex>& lock, unsigned channel);

    const int number_;
    CardMemory memory_;
    std::atomic<bool> removed_{false};

    mutable std::mutex mutex_;
    std::unordered_map<std::uint32_t, std::uint32_t> registers_;
    SimUserEvents events_;
    std::set<std::string> absentNodes_;
    std::deque<KvPCIeSim::CardAccess> accessLog_;
    KvPCIeSim::CardCounters counters_{};

    std::array<SimCaptureChannel, xdma::kChannelCount> capture_;
    std::array<SimInjectChannel, xdma::kChannelCount> inject_{};
    std::condition_variable clockWake_;
    bool stopClock_ = false;
    std::thread clock_;
};

}  // namespace kvpcie::sim
