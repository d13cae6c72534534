// The simulated XDMA card's register file, memory and user events.
#include "SimXdmaCard.h"

#include "SimCardRegisters.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaCardRegisters.h"

namespace kvpcie::sim {

using KvPCIeSim::CardAccess;

SimXdmaCard::SimXdmaCard(int number)
    : number_(number),
      memory_(kCardMemoryBytes),
      eventTimeout_(std::chrono::milliseconds(kDefaultEventTimeoutMs)) {
    for (unsigned channel = 0; channel < 4; ++channel) {
        registers_[ControlBlock(channel) + kCtlExternalFrameRate] = kDefaultExternalFrameRate;
        registers_[ControlBlock(channel) + kCtlCommandBusyMicros] = kDefaultCommandBusyMicros;
    }
}

std::uint32_t SimXdmaCard::RegisterValueLocked(std::uint32_t address) const {
    switch (address) {
        case xdma::kRegTimingClockHz:
            return kTimingClockHz;
        case xdma::kRegDelayClockHz:
            return kDelayClockHz;
        case kRegIdentity:
            return kIdentityValue;
        default:
            break;
    }
    const auto found = registers_.find(address);
    return found == registers_.end() ? 0 : found->second;
}

void SimXdmaCard::StoreRegisterLocked(std::uint32_t address, std::uint32_t value) {
    switch (address) {
        case xdma::kRegTimingClockHz:
        case xdma::kRegDelayClockHz:
        case kRegIdentity:
            return;  // read-only
        case kRegSurpriseRemoval:
            if (value == 1) {
                removed_.store(true, std::memory_order_release);
                eventRaised_.notify_all();
            }
            return;
        default:
            registers_[address] = value;
    }
}

void SimXdmaCard::LogLocked(CardAccess::Kind kind, std::uint32_t address, std::uint32_t value) {
    if (accessLog_.size() == kAccessLogCapacity) {
        accessLog_.pop_front();
    }
    accessLog_.push_back(CardAccess{kind, address, value});
}

bool SimXdmaCard::ReadRegister(std::uint32_t address, std::uint32_t& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (IsRemoved()) {
        return false;
    }
    ++counters_.registerReads;
    value = RegisterValueLocked(address);
    return true;
}

bool SimXdmaCard::WriteRegister(std::uint32_t address, std::uint32_t value) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (IsRemoved()) {
        return false;
    }
    ++counters_.registerWrites;
    LogLocked(CardAccess::RegisterWrite, address, value);
    StoreRegisterLocked(address, value);
    return true;
}

bool SimXdmaCard::ReadMemory(std::uint64_t address, void* buffer, std::uint32_t size,
                             std::uint32_t& moved) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (IsRemoved()) {
            ++counters_.refusedTransfers;
            return false;
        }
        ++counters_.cardToHostTransfers;
        LogLocked(CardAccess::CardToHost, static_cast<std::uint32_t>(address), size);
    }
    moved = static_cast<std::uint32_t>(memory_.Read(address, buffer, size));
    return true;
}

bool SimXdmaCard::WriteMemory(std::uint64_t address, const void* buffer, std::uint32_t size,
                              std::uint32_t& moved) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (IsRemoved()) {
            ++counters_.refusedTransfers;
            return false;
        }
        ++counters_.hostToCardTransfers;
        LogLocked(CardAccess::HostToCard, static_cast<std::uint32_t>(address), size);
    }
    moved = static_cast<std::uint32_t>(memory_.Write(address, buffer, size));
    return true;
}

void SimXdmaCard::CountRefusedTransfer() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++counters_.refusedTransfers;
}

SimXdmaCard::EventWait SimXdmaCard::WaitUserEvent(int event, const std::atomic<bool>& cancelled) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto deadline = std::chrono::steady_clock::now() + eventTimeout_;
    const auto finished = [&] {
        return eventPending_[event] || cancelled.load(std::memory_order_acquire) || IsRemoved();
    };
    eventRaised_.wait_until(lock, deadline, finished);
    if (cancelled.load(std::memory_order_acquire) || IsRemoved()) {
        return EventWait::Failed;
    }
    if (eventPending_[event]) {
        eventPending_[event] = false;
        return EventWait::Raised;
    }
    return EventWait::TimedOut;
}

void SimXdmaCard::WakeEventWaiters() {
    // Taking the lock orders the waker's flag against a waiter between its check and its wait.
    std::lock_guard<std::mutex> lock(mutex_);
    eventRaised_.notify_all();
}

void SimXdmaCard::Restart() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++counters_.restarts;
    LogLocked(CardAccess::Restart, 0, 0);
    // The restart re-enumerates the device: a card that dropped off the bus is found again,
    // and the FPGA's channels come back disabled.
    removed_.store(false, std::memory_order_release);
    registers_[xdma::kRegCaptureEnableMask] = 0;
    registers_[xdma::kRegInjectEnableMask] = 0;
    registers_[xdma::kRegDelayTest] = 0;
    eventPending_.fill(false);
}

bool SimXdmaCard::RaiseUserEvent(int event) {
    if (event < 0 || event >= kUserEventCount) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    ++counters_.userEventsRaised;
    eventPending_[event] = true;
    eventRaised_.notify_all();
    return true;
}

void SimXdmaCard::SetEventTimeout(std::chrono::milliseconds timeout) {
    std::lock_guard<std::mutex> lock(mutex_);
    eventTimeout_ = timeout;
}

void SimXdmaCard::SetRemoved(bool removed) {
    std::lock_guard<std::mutex> lock(mutex_);
    removed_.store(removed, std::memory_order_release);
    eventRaised_.notify_all();
}

bool SimXdmaCard::IsNodeAbsent(const std::string& node) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return absentNodes_.count(node) != 0;
}

void SimXdmaCard::SetNodeAbsent(const std::string& node, bool absent) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (absent) {
        absentNodes_.insert(node);
    } else {
        absentNodes_.erase(node);
    }
}

void SimXdmaCard::FileOpened() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++counters_.openFiles;
}

void SimXdmaCard::FileClosed() {
    std::lock_guard<std::mutex> lock(mutex_);
    --counters_.openFiles;
}

std::vector<CardAccess> SimXdmaCard::TakeAccessLog() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<CardAccess> taken(accessLog_.begin(), accessLog_.end());
    accessLog_.clear();
    return taken;
}

KvPCIeSim::CardCounters SimXdmaCard::ReadCounters() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counters_;
}

std::uint32_t SimXdmaCard::PeekRegister(std::uint32_t address) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return RegisterValueLocked(address);
}

}  // namespace kvpcie::sim
