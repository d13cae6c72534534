// The simulated XDMA card's register file, memory, user events, capture frames and frame clock.
#include "SimXdmaCard.h"

#include "SimCardRegisters.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaCardRegisters.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <algorithm>

namespace kvpcie::sim {

using KvPCIeSim::CardAccess;

static_assert(xdma::kChannelCount == 4, "one capture channel object per channel below");

SimXdmaCard::SimXdmaCard(int number)
    : number_(number),
      memory_(kCardMemoryBytes),
      eventTimeout_(std::chrono::milliseconds(kDefaultEventTimeoutMs)),
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
    unsigned channel = 0;
    unsigned buffer = 0;
    std::uint32_t offset = 0;
    if (InChannelBlock(address, xdma::CaptureBlock(0), channel, offset) &&
        IsBufferWord(offset, xdma::CapBufferDelay(0), buffer)) {
        return DelayRegisterLocked(channel, buffer);
    }
    if (InChannelBlock(address, xdma::InjectBlock(0), channel, offset)) {
        return InjectRegisterValueLocked(channel, offset);
    }
    const auto found = registers_.find(address);
    return found == registers_.end() ? 0 : found->second;
}

std::uint32_t SimXdmaCard::DelayRegisterLocked(unsigned channel, unsigned buffer) const {
    const auto found = registers_.find(xdma::CaptureBlock(channel) + xdma::CapBufferDelay(buffer));
    const std::uint32_t selector =
        found == registers_.end() ? 0 : found->second >> xdma::kDelaySelectorShift;
    return selector << xdma::kDelaySelectorShift |
           capture_[channel].DelayTicks(buffer, selector, Clock::now());
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
                ObserveEventLocked(-1);
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
    unsigned channel = 0;
    std::uint32_t offset = 0;
    if (InChannelBlock(address, xdma::CaptureBlock(0), channel, offset)) {
        CaptureRegisterWrittenLocked(channel, offset, value);
    } else if (InChannelBlock(address, xdma::InjectBlock(0), channel, offset)) {
        InjectRegisterWrittenLocked(channel, offset, value);
    } else if (InChannelBlock(address, ControlBlock(0), channel, offset)) {
        ControlRegisterWrittenLocked(channel, offset, value);
    } else {
        registers_[address] = value;
    }
}

void SimXdmaCard::SetCaptureEnableLocked(std::uint32_t mask) {
    registers_[xdma::kRegCaptureEnableMask] = mask;
    const TimePoint now = Clock::now();
    bool anyRunning = false;
    for (unsigned channel = 0; channel < xdma::kChannelCount; ++channel) {
        SimCaptureChannel& capture = capture_[channel];
        const bool enabled = (mask >> channel & 1) != 0;
        if (enabled && !capture.Running()) {
            const std::uint32_t control = ControlBlock(channel);
            registers_[control + kCtlFramesProduced] = 0;
            registers_[control + kCtlFramesDropped] = 0;
            registers_[xdma::CaptureBlock(channel) + xdma::kCapLatestBuffer] =
                kLatestBufferBeforeFirst;
            capture.Start(now, FramePeriodLocked(channel));
        } else if (!enabled && capture.Running()) {
            capture.Stop();
        }
        anyRunning = anyRunning || capture.Running();
    }
    if (anyRunning) {
        StartClockLocked();
    }
    clockWake_.notify_all();
}

void SimXdmaCard::CaptureRegisterWrittenLocked(unsigned channel, std::uint32_t offset,
                                               std::uint32_t value) {
    unsigned buffer = 0;
    if (IsBufferWord(offset, xdma::CapBufferStatus(0), buffer) &&
        RegisterValueLocked(ControlBlock(channel) + kCtlStuckCaptureBuffer) == buffer + 1) {
        return;
    }
    registers_[xdma::CaptureBlock(channel) + offset] = value;
    switch (offset) {
        case xdma::kCapSyncMode:
        case xdma::kCapFramePeriod:
            RetimeLocked(channel);
            break;
        case xdma::kCapStatusControl:
            if (value == 0) {
                if (auto block = capture_[channel].TakeStatusBlock()) {
                    ShowStatusBlockLocked(channel, *block);
                }
            }
            break;
        default:
            if (value == 0 && IsBufferWord(offset, xdma::CapBufferStatus(0), buffer)) {
                capture_[channel].RecordRelease(buffer, Clock::now());
            }
            break;
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

void SimXdmaCard::RetimeLocked(unsigned channel) {
    capture_[channel].Retime(Clock::now(), FramePeriodLocked(channel));
    clockWake_.notify_all();
}

void SimXdmaCard::PostStatusLocked(unsigned channel, std::uint32_t length) {
    if (length < 1 || length > static_cast<std::uint32_t>(xdma::kMailboxBytes)) {
        return;
    }
    SimCaptureChannel::StatusBlock block{length, std::vector<std::uint32_t>((length + 3) / 4)};
    const std::uint32_t staging = ControlBlock(channel) + kCtlStatusStaging;
    for (std::size_t word = 0; word < block.words.size(); ++word) {
        block.words[word] = RegisterValueLocked(staging + static_cast<std::uint32_t>(word) * 4);
    }
    const std::uint32_t lastBytes = length % 4;
    if (lastBytes != 0) {
        block.words.back() &= (std::uint32_t{1} << (8 * lastBytes)) - 1;
    }
    // Queued behind any earlier block, so that they reach the host in order.
    SimCaptureChannel& capture = capture_[channel];
    if (!capture.QueueStatusBlock(std::move(block))) {
        return;
    }
    const std::uint32_t control =
        RegisterValueLocked(xdma::CaptureBlock(channel) + xdma::kCapStatusControl);
    if ((control & xdma::kMailboxFull) == 0) {
        ShowStatusBlockLocked(channel, *capture.TakeStatusBlock());
    }
}

void SimXdmaCard::ShowStatusBlockLocked(unsigned channel,
                                        const SimCaptureChannel::StatusBlock& block) {
    const std::uint32_t base = xdma::CaptureBlock(channel);
    for (std::size_t word = 0; word < block.words.size(); ++word) {
        registers_[base + xdma::kCapStatusData + static_cast<std::uint32_t>(word) * 4] =
            block.words[word];
    }
    registers_[base + xdma::kCapStatusControl] = xdma::kMailboxFull | (block.length - 1);
}

SimXdmaCard::Clock::duration SimXdmaCard::FramePeriodLocked(unsigned channel) const {
    const std::uint32_t block = xdma::CaptureBlock(channel);
    Clock::duration period{};
    if ((RegisterValueLocked(block + xdma::kCapSyncMode) & kSyncCardTimed) != 0) {
        period = std::chrono::duration_cast<Clock::duration>(
            TimingClockTicks(RegisterValueLocked(block + xdma::kCapFramePeriod)));
    } else {
        const std::uint32_t rate =
            RegisterValueLocked(ControlBlock(channel) + kCtlExternalFrameRate);
        if (rate != 0) {
            period = std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(1)) / rate;
        }
    }
    if (period <= Clock::duration::zero()) {
        return Clock::duration::zero();
    }
    return std::max<Clock::duration>(period, kMinFramePeriod);
}

CaptureSettings SimXdmaCard::CaptureSettingsLocked(unsigned channel) const {
    const std::uint32_t block = xdma::CaptureBlock(channel);
    const std::uint32_t control = ControlBlock(channel);
    CaptureSettings settings;
    settings.frameBytes = RegisterValueLocked(block + xdma::kCapFrameBytes);
    settings.loopback = RegisterValueLocked(control + kCtlCaptureSource) == kCaptureSourceLoopback;
    settings.errorEvery = RegisterValueLocked(control + kCtlErrorFrameEvery);
    for (unsigned buffer = 0; buffer < xdma::kCardBufferCount; ++buffer) {
        const std::uint32_t status = RegisterValueLocked(block + xdma::CapBufferStatus(buffer));
        settings.held[buffer] = (status & xdma::kStatusStateMask) == xdma::kStatusCaptureReady;
    }
    return settings;
}

void SimXdmaCard::StartClockLocked() {
    if (!clock_.joinable()) {
        clock_ = std::thread([this] { RunClock(); });
    }
}

void SimXdmaCard::RunClock() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopClock_) {
        const TimePoint now = Clock::now();
        std::optional<TimePoint> earliest;
        unsigned due = 0;
        bool injectDue = false;
        if (!IsRemoved()) {
            for (unsigned channel = 0; channel < xdma::kChannelCount; ++channel) {
                // A claimed channel is skipped; its producer wakes us when done.
                const SimCaptureChannel& capture = capture_[channel];
                const std::optional<TimePoint> deadline = capture.Deadline();
                if (deadline && !capture.Claimed() && (!earliest || *deadline < *earliest)) {
                    earliest = deadline;
                    due = channel;
                    injectDue = false;
                }
                const std::optional<TimePoint> tick = inject_[channel].Deadline();
                if (tick && (!earliest || *tick < *earliest)) {
                    earliest = tick;
                    due = channel;
                    injectDue = true;
                }
            }
        }
        if (!earliest) {
            clockWake_.wait(lock);
        } else if (*earliest > now) {
            clockWake_.wait_until(lock, *earliest);
        } else if (injectDue) {
            if (PlayLocked(lock, due)) {
                inject_[due].Advance(*earliest, now, InjectFramePeriodLocked(due));
            }
        } else if (ProduceLocked(lock, due, 1, *earliest)) {
            capture_[due].Advance(*earliest, now, FramePeriodLocked(due));
        }
    }
}

bool SimXdmaCard::ProduceLocked(std::unique_lock<std::mutex>& lock, unsigned channel, int count,
                                TimePoint start) {
    SimCaptureChannel& capture = capture_[channel];
    const int dropped = capture.Plan(CaptureSettingsLocked(channel), count, start);
    registers_[ControlBlock(channel) + kCtlFramesDropped] += static_cast<std::uint32_t>(dropped);
    if (capture.Planned().count > 0) {
        // The host keeps reading registers while a frame of up to 20 MiB goes in.
        lock.unlock();
        capture.WriteFrames(memory_);
        lock.lock();
    }
    const bool current = capture.Finish();
    if (current) {
        PublishLocked(channel);
    }
    clockWake_.notify_all();
    return current;
}

void SimXdmaCard::PublishLocked(unsigned channel) {
    SimCaptureChannel& capture = capture_[channel];
    const std::uint32_t block = xdma::CaptureBlock(channel);
    const std::uint32_t control = ControlBlock(channel);
    const bool raiseEvents = RegisterValueLocked(control + kCtlFrameEventOff) != kFrameEventOff;
    const TimePoint ready = Clock::now();
    const SimCaptureChannel::Batch& batch = capture.Planned();
    for (int i = 0; i < batch.count; ++i) {
        const SimCaptureChannel::Frame& frame = batch.frames[i];
        registers_[block + xdma::CapBufferStatus(frame.buffer)] =
            xdma::kStatusCaptureReady | (frame.error ? xdma::kStatusErrorFrame : 0);
        registers_[block + xdma::kCapLatestBuffer] = frame.buffer;
        ++registers_[control + kCtlFramesProduced];
        capture.RecordReady(frame, ready);
        if (raiseEvents) {
            RaiseUserEventLocked(static_cast<int>(channel));
        }
    }
}

bool SimXdmaCard::ProduceCaptureFrames(int channel, int count) {
    if (channel < 0 || channel >= xdma::kChannelCount || count < 1 ||
        count > xdma::kCardBufferCount) {
        return false;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    SimCaptureChannel& capture = capture_[channel];
    // A claim lasts one batch's write.
    clockWake_.wait(lock, [&] { return !capture.Claimed(); });
    if (IsRemoved() || !capture.Running()) {
        return false;
    }
    return ProduceLocked(lock, static_cast<unsigned>(channel), count, Clock::now());
}

bool SimXdmaCard::CaptureReadyTime(int channel, std::uint32_t frameNumber, TimePoint& ready) const {
    if (channel < 0 || channel >= xdma::kChannelCount) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    return capture_[channel].ReadyTime(frameNumber, ready);
}

bool SimXdmaCard::InjectRefillTimes(int channel, std::int64_t& longestNanos,
                                    std::uint64_t& count) const {
    if (channel < 0 || channel >= xdma::kChannelCount) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    const SimInjectChannel& inject = inject_[channel];
    longestNanos =
        std::chrono::duration_cast<std::chrono::nanoseconds>(inject.LongestRefill()).count();
    count = inject.RefillsTimed();
    return true;
}

void SimXdmaCard::SetLoopbackFrame(int channel, const void* data, std::size_t size) {
    if (channel < 0 || channel >= xdma::kChannelCount || (data == nullptr && size != 0)) {
        return;
    }
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    auto frame = std::make_shared<const std::vector<std::uint8_t>>(bytes, bytes + size);
    std::lock_guard<std::mutex> lock(mutex_);
    capture_[channel].SetLoopbackFrame(std::move(frame));
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
    for (SimCaptureChannel& capture : capture_) {
        capture.Stop();
    }
    for (SimInjectChannel& inject : inject_) {
        inject.Stop();
        inject.ResetCommand();
    }
    clockWake_.notify_all();
    eventPending_.fill(false);
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
    eventPending_[event] = true;
    eventRaised_.notify_all();
    ObserveEventLocked(event);
}

void SimXdmaCard::ObserveEventLocked(int event) {
    if (eventObserver_) {
        eventObserver_(event);
    }
}

bool SimXdmaCard::IsUserEventPending(int event) const {
    if (event < 0 || event >= kUserEventCount) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    return eventPending_[event];
}

void SimXdmaCard::SetEventObserver(std::function<void(int event)> observer) {
    std::lock_guard<std::mutex> lock(mutex_);
    eventObserver_ = std::move(observer);
}

void SimXdmaCard::SetEventTimeout(std::chrono::milliseconds timeout) {
    std::lock_guard<std::mutex> lock(mutex_);
    eventTimeout_ = timeout;
}

void SimXdmaCard::SetRemoved(bool removed) {
    std::lock_guard<std::mutex> lock(mutex_);
    removed_.store(removed, std::memory_order_release);
    eventRaised_.notify_all();
    clockWake_.notify_all();
    if (removed) {
        ObserveEventLocked(-1);
    }
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
    registers_[address] = value;
}

}  // namespace kvpcie::sim
