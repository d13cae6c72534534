// The simulated XDMA card's register file, host accesses, user events and control side.
#include "SimXdmaCard.h"

#include "SimCardRegisters.h"

#include "drivers/XdmaCardRegisters.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <algorithm>

namespace kvpcie::sim {

using KvPCIeSim::CardAccess;

static_assert(xdma::kChannelCount == 4, "one capture channel object per channel below");

SimXdmaCard::SimXdmaCard(int number)
    : number_(number),
      memory_(kCardMemoryBytes),
      capture_{SimCaptureChannel(0), SimCaptureChannel(1), SimCaptureChannel(2),
               SimCaptureChannel(3)} {
    for (unsigned channel = 0; channel < xdma::kChannelCount; ++channel) {
        registers_[ControlBlock(channel) + kCtlExternalFrameRate] = kDefaultExternalFrameRate;
        registers_[ControlBlock(channel) + kCtlCommandBusyMicros] = kDefaultCommandBusyMicros;
        registers_[xdma::CaptureBlock(channel) + xdma::kCapLatestBuffer] = kLatestBufferBeforeFirst;
    }
}

SimXdmaCard::~SimXdmaCard() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopClock_ = true;
    }
    clockWake_.notify_all();
    if (clock_.joinable()) {
        clock_.join();
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
    const RegisterAddress decoded = DecodeRegister(address);
    switch (decoded.kind) {
        case RegisterAddress::Kind::Capture:
            return CaptureRegisterValueLocked(decoded.channel, decoded.offset);
        case RegisterAddress::Kind::Inject:
            return InjectRegisterValueLocked(decoded.channel, decoded.offset);
        case RegisterAddress::Kind::Control:
            return ControlRegisterValueLocked(decoded.channel, decoded.offset);
        case RegisterAddress::Kind::Card:
            break;
    }
    return StoredLocked(address);
}

std::uint32_t SimXdmaCard::StoredLocked(std::uint32_t address) const {
    const auto found = registers_.find(address);
    return found == registers_.end() ? 0 : found->second;
}

std::uint32_t SimXdmaCard::ControlRegisterValueLocked(unsigned channel,
                                                      std::uint32_t offset) const {
    if (const std::optional<std::uint32_t> count = CountLocked(channel, offset)) {
        return *count;
    }
    if (offset == kCtlReadyTimeLow || offset == kCtlReadyTimeHigh) {
        const std::uint64_t nanos = ReadyNanosLocked(channel);
        return static_cast<std::uint32_t>(offset == kCtlReadyTimeLow ? nanos : nanos >> 32);
    }
    return StoredLocked(ControlBlock(channel) + offset);
}

std::uint64_t SimXdmaCard::ReadyNanosLocked(unsigned channel) const {
    TimePoint ready;
    if (!capture_[channel].ReadyTime(StoredLocked(ControlBlock(channel) + kCtlReadyTimeFrame),
                                     ready)) {
        return 0;
    }
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(ready.time_since_epoch()).count());
}

std::optional<std::uint32_t> SimXdmaCard::CountLocked(unsigned channel,
                                                      std::uint32_t offset) const {
    const SimCaptureChannel::Counts& capture = capture_[channel].Counted();
    const SimInjectChannel::Counts& inject = inject_[channel].Counted();
    switch (offset) {
        case kCtlFramesProduced:
            return capture.framesProduced;
        case kCtlFramesDropped:
            return capture.framesDropped;
        case kCtlInjectPlayed:
            return inject.framesPlayed;
        case kCtlInjectUnderruns:
            return inject.underruns;
        case kCtlCommandsTaken:
            return inject.commandsTaken;
        default:
            return std::nullopt;
    }
}

bool SimXdmaCard::SetCountLocked(unsigned channel, std::uint32_t offset, std::uint32_t value) {
    SimCaptureChannel::Counts capture = capture_[channel].Counted();
    SimInjectChannel::Counts inject = inject_[channel].Counted();
    switch (offset) {
        case kCtlFramesProduced:
            capture.framesProduced = value;
            break;
        case kCtlFramesDropped:
            capture.framesDropped = value;
            break;
        case kCtlInjectPlayed:
            inject.framesPlayed = value;
            break;
        case kCtlInjectUnderruns:
            inject.underruns = value;
            break;
        case kCtlCommandsTaken:
            inject.commandsTaken = value;
            break;
        default:
            return false;
    }
    capture_[channel].SetCounted(capture);
    inject_[channel].SetCounted(inject);
    return true;
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
                events_.EndWaits();
            }
            return;
        case xdma::kRegCaptureEnableMask:
            SetCaptureEnableLocked(value);
            return;
        case xdma::kRegInjectEnableMask:
            SetInjectEnableLocked(value);
            return;
        default:
            break;
    }
    const RegisterAddress decoded = DecodeRegister(address);
    switch (decoded.kind) {
        case RegisterAddress::Kind::Capture:
            CaptureRegisterWrittenLocked(decoded.channel, decoded.offset, value);
            return;
        case RegisterAddress::Kind::Inject:
            InjectRegisterWrittenLocked(decoded.channel, decoded.offset, value);
            return;
        case RegisterAddress::Kind::Control:
            ControlRegisterWrittenLocked(decoded.channel, decoded.offset, value);
            return;
        case RegisterAddress::Kind::Card:
            registers_[address] = value;
            return;
    }
}

void SimXdmaCard::ControlRegisterWrittenLocked(unsigned channel, std::uint32_t offset,
                                               std::uint32_t value) {
    if (offset >= kCtlLastCommand && offset < kCtlLastCommand + xdma::kCommandMaxBytes) {
        return;
    }
    switch (offset) {
        case kCtlFramesProduced:
        case kCtlFramesDropped:
        case kCtlInjectPlayed:
        case kCtlInjectUnderruns:
        case kCtlCommandsTaken:
        case kCtlLastCommandLength:
        case kCtlLastInjectHead:
        case kCtlReadyTimeLow:
        case kCtlReadyTimeHigh:
            return;  // the card's own record
        case kCtlPostStatus:
            PostStatusLocked(channel, value);
            return;
        default:
            registers_[ControlBlock(channel) + offset] = value;
            if (offset == kCtlExternalFrameRate) {
                RetimeLocked(channel);
            }
            return;
    }
}

bool SimXdmaCard::TakeDmaFaultLocked(std::uint64_t address) {
    const std::uint64_t channel = address / xdma::kChannelMemoryStride;
    if (channel >= static_cast<std::uint64_t>(xdma::kChannelCount)) {
        return false;
    }
    const auto found =
        registers_.find(ControlBlock(static_cast<unsigned>(channel)) + kCtlDmaFaults);
    if (found == registers_.end() || found->second == 0) {
        return false;
    }
    --found->second;
    return true;
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
        if (IsRemoved() || TakeDmaFaultLocked(address)) {
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
    return events_.Wait(lock, event,
                        [&] { return cancelled.load(std::memory_order_acquire) || IsRemoved(); });
}

void SimXdmaCard::WakeEventWaiters() {
    // Taking the lock orders the waker's flag against a waiter between its check and its wait.
    std::lock_guard<std::mutex> lock(mutex_);
    events_.WakeWaiters();
}

bool SimXdmaCard::RaiseUserEvent(int event) {
    if (event < 0 || event >= kUserEventCount) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    RaiseUserEventLocked(event);
    return true;
}

void SimXdmaCard::RaiseUserEventLocked(int event) {
    ++counters_.userEventsRaised;
    events_.Raise(event);
}

bool SimXdmaCard::IsUserEventPending(int event) const {
    if (event < 0 || event >= kUserEventCount) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    return events_.IsPending(event);
}

void SimXdmaCard::SetEventObserver(std::function<void(int event)> observer) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.SetObserver(std::move(observer));
}

void SimXdmaCard::SetEventTimeout(std::chrono::milliseconds timeout) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.SetTimeout(timeout);
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
    for (SimCaptureChannel& capture : capture_) {
        capture.Stop();
    }
    for (SimInjectChannel& inject : inject_) {
        inject.Stop();
        inject.ResetCommand();
    }
    clockWake_.notify_all();
    events_.Clear();
}

bool SimXdmaCard::RestartUnlessInUse() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (counters_.openFiles > 0) {
            return false;
        }
    }
    Restart();
    return true;
}

void SimXdmaCard::SetRemoved(bool removed) {
    std::lock_guard<std::mutex> lock(mutex_);
    removed_.store(removed, std::memory_order_release);
    if (removed) {
        events_.EndWaits();
    } else {
        events_.WakeWaiters();
    }
    clockWake_.notify_all();
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

void SimXdmaCard::PokeRegister(std::uint32_t address, std::uint32_t value) {
    std::lock_guard<std::mutex> lock(mutex_);
    const RegisterAddress decoded = DecodeRegister(address);
    if (decoded.kind == RegisterAddress::Kind::Control &&
        SetCountLocked(decoded.channel, decoded.offset, value)) {
        return;
    }
    registers_[address] = value;
}

}  // namespace kvpcie::sim
