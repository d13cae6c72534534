// The model of one XDMA frame card: its user registers, card memory, user events and the log
// of what the host did to it.
#pragma once

#include "SimCardRegisters.h"
#include "SparseMemory.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace kvpcie::sim {

// Shared by the registry and by every device file open on the card, so a file outlives the
// card's removal safely and then fails. All members are thread-safe.
class SimXdmaCard {
public:
    explicit SimXdmaCard(int number);
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

    enum class EventWait { Raised, TimedOut, Failed };
    // Blocks until the event is raised, the timeout passes, `cancelled` is set (then call
    // WakeEventWaiters) or the card is removed.
    EventWait WaitUserEvent(int event, const std::atomic<bool>& cancelled);
    void WakeEventWaiters();

    void Restart();
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
    SparseMemory& Memory() { return memory_; }

private:
    static constexpr std::size_t kAccessLogCapacity = 65536;

    std::uint32_t RegisterValueLocked(std::uint32_t address) const;
    void StoreRegisterLocked(std::uint32_t address, std::uint32_t value);
    void LogLocked(KvPCIeSim::CardAccess::Kind kind, std::uint32_t address, std::uint32_t value);

    const int number_;
    SparseMemory memory_;
    std::atomic<bool> removed_{false};

    mutable std::mutex mutex_;
    std::condition_variable eventRaised_;
    std::unordered_map<std::uint32_t, std::uint32_t> registers_;
    std::array<bool, kUserEventCount> eventPending_{};
    std::chrono::milliseconds eventTimeout_;
    std::set<std::string> absentNodes_;
    std::deque<KvPCIeSim::CardAccess> accessLog_;
    KvPCIeSim::CardCounters counters_{};
};

}  // namespace kvpcie::sim
