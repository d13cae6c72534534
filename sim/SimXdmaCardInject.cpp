// The simulated XDMA card's inject channels and command mailboxes.
#include "SimXdmaCard.h"

#include "SimCardRegisters.h"

#include "drivers/XdmaCardRegisters.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <algorithm>
#include <memory>

namespace kvpcie::sim {

void SimXdmaCard::SetInjectEnableLocked(std::uint32_t mask) {
    registers_[xdma::kRegInjectEnableMask] = mask;
    const TimePoint now = Clock::now();
    bool anyRunning = false;
    for (unsigned channel = 0; channel < xdma::kChannelCount; ++channel) {
        SimInjectChannel& inject = inject_[channel];
        const bool enabled = (mask >> channel & 1) != 0;
        if (enabled && !inject.Running()) {
            inject.Start(now, InjectFramePeriodLocked(channel));
            // A new run has played nothing yet: the loopback shows no picture of the last one.
            capture_[channel].SetLoopbackFrame(nullptr);
        } else if (!enabled && inject.Running()) {
            inject.Stop();
        }
        anyRunning = anyRunning || inject.Running();
    }
    if (anyRunning) {
        StartClockLocked();
    }
    clockWake_.notify_all();
}

void SimXdmaCard::InjectRegisterWrittenLocked(unsigned channel, std::uint32_t offset,
                                              std::uint32_t value) {
    if (offset == xdma::kInjCommandControl) {
        CommandControlWrittenLocked(channel, value);
        return;
    }
    registers_[xdma::InjectBlock(channel) + offset] = value;
    unsigned buffer = 0;
    if (offset == xdma::kInjFramePeriod) {
        inject_[channel].Retime(Clock::now(), InjectFramePeriodLocked(channel));
        clockWake_.notify_all();
    } else if (IsBufferWord(offset, xdma::InjBufferStatus(0), buffer)) {
        if (value == xdma::kStatusHostWriting) {
            inject_[channel].RecordHostWriting(buffer, Clock::now());
        } else if (value == xdma::kStatusInjectReady) {
            inject_[channel].RecordReady(buffer, Clock::now());
        }
    }
}

std::uint32_t SimXdmaCard::InjectRegisterValueLocked(unsigned channel, std::uint32_t offset) const {
    const std::uint32_t stored = StoredLocked(xdma::InjectBlock(channel) + offset);
    unsigned buffer = 0;
    if (offset == xdma::kInjCommandControl) {
        // Evaluated at each read: the busy time needs no thread to end it.
        const bool started = inject_[channel].CommandStarted(Clock::now());
        return (stored & ~xdma::kCommandBusy) | (started ? xdma::kCommandBusy : 0);
    }
    if (IsBufferWord(offset, xdma::InjBufferDelay(0), buffer)) {
        const std::uint32_t selector = stored >> xdma::kDelaySelectorShift;
        return selector << xdma::kDelaySelectorShift |
               inject_[channel].DelayTicks(buffer, selector);
    }
    return stored;
}

void SimXdmaCard::CommandControlWrittenLocked(unsigned channel, std::uint32_t value) {
    SimInjectChannel& inject = inject_[channel];
    const std::uint32_t address = xdma::InjectBlock(channel) + xdma::kInjCommandControl;
    if ((value & xdma::kCommandBusy) == 0) {
        registers_[address] = value;
        inject.SetUntakenStart(false);
        return;
    }
    const TimePoint now = Clock::now();
    if (inject.CommandBusy(now)) {
        return;  // still moving the last command: the start is lost, as on the card
    }
    registers_[address] = value;
    const std::uint32_t busyMicros =
        RegisterValueLocked(ControlBlock(channel) + kCtlCommandBusyMicros);
    if (busyMicros == kCommandNeverTaken) {
        inject.SetUntakenStart(true);
        return;
    }
    TakeCommandLocked(channel, (value & xdma::kCommandLengthMask) + 1);
    inject.TakeCommand(now + std::chrono::microseconds(busyMicros));
}

void SimXdmaCard::TakeCommandLocked(unsigned channel, std::uint32_t length) {
    const std::uint32_t data = xdma::InjectBlock(channel) + xdma::kInjCommandData;
    const std::uint32_t control = ControlBlock(channel);
    // Every word is rewritten, so a shorter command leaves nothing of a longer one behind.
    for (std::uint32_t first = 0; first < static_cast<std::uint32_t>(xdma::kCommandMaxBytes);
         first += 4) {
        std::uint32_t word = 0;
        if (first < length) {
            word = RegisterValueLocked(data + first);
            if (length - first < 4) {
                word &= (std::uint32_t{1} << (8 * (length - first))) - 1;
            }
        }
        registers_[control + kCtlLastCommand + first] = word;
    }
    registers_[control + kCtlLastCommandLength] = length;
}

SimXdmaCard::Clock::duration SimXdmaCard::InjectFramePeriodLocked(unsigned channel) const {
    const std::uint32_t ticks =
        RegisterValueLocked(xdma::InjectBlock(channel) + xdma::kInjFramePeriod);
    const Clock::duration period =
        ticks == 0 ? std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(1)) /
                         kDefaultInjectFrameRate
                   : std::chrono::duration_cast<Clock::duration>(TimingClockTicks(ticks));
    return std::max<Clock::duration>(period, kMinFramePeriod);
}

bool SimXdmaCard::PlayLocked(std::unique_lock<std::mutex>& lock, unsigned channel) {
    SimInjectChannel& inject = inject_[channel];
    const std::uint32_t block = xdma::InjectBlock(channel);
    const std::uint32_t control = ControlBlock(channel);
    const unsigned buffer = inject.Position();
    if (RegisterValueLocked(block + xdma::InjBufferStatus(buffer)) != xdma::kStatusInjectReady) {
        inject.CountUnderrun();  // the loopback frame stays the last one
        return true;
    }
    // The host writes a buffer's length just after handing it over, so a tick can fall in
    // between; until a buffer's first length comes, the channel's transfer size stands for it.
    std::uint32_t length = RegisterValueLocked(block + xdma::InjBufferLength(buffer));
    if (length == 0) {
        length = RegisterValueLocked(block + xdma::kInjTransferBytes);
    }
    length = std::min(length, xdma::kCardBufferBytes);
    inject.BeginPlay();
    // The host keeps polling registers while a frame of up to 20 MiB comes out; it leaves a
    // handed-over buffer alone until the card gives it back.
    lock.unlock();
    auto frame = std::make_shared<std::vector<std::uint8_t>>(length);
    memory_.Read(xdma::InjectBufferAddress(channel, buffer), frame->data(), length);
    lock.lock();
    if (!inject.FinishPlay(Clock::now())) {
        return false;
    }
    std::uint32_t head = 0;
    for (std::size_t byte = 0; byte < std::min<std::size_t>(4, frame->size()); ++byte) {
        head |= std::uint32_t{(*frame)[byte]} << (8 * byte);
    }
    registers_[block + xdma::InjBufferStatus(buffer)] = 0;
    registers_[control + kCtlLastInjectHead] = head;
    capture_[channel].SetLoopbackFrame(std::move(frame));
    return true;
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

bool SimXdmaCard::RestartInjectRefillTimes(int channel) {
    if (channel < 0 || channel >= xdma::kChannelCount) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    inject_[channel].RestartRefillTimes();
    return true;
}

}  // namespace kvpcie::sim
