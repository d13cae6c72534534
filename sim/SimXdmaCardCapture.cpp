// The simulated XDMA card's capture channels: their registers, status mailboxes and frames.
#include "SimXdmaCard.h"

#include "SimCardRegisters.h"

#include "drivers/XdmaCardRegisters.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <algorithm>
#include <memory>

namespace kvpcie::sim {

void SimXdmaCard::SetCaptureEnableLocked(std::uint32_t mask) {
    registers_[xdma::kRegCaptureEnableMask] = mask;
    const TimePoint now = Clock::now();
    bool anyRunning = false;
    for (unsigned channel = 0; channel < xdma::kChannelCount; ++channel) {
        SimCaptureChannel& capture = capture_[channel];
        const bool enabled = (mask >> channel & 1) != 0;
        if (enabled && !capture.Running()) {
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

std::uint32_t SimXdmaCard::CaptureRegisterValueLocked(unsigned channel,
                                                      std::uint32_t offset) const {
    unsigned buffer = 0;
    if (IsBufferWord(offset, xdma::CapBufferDelay(0), buffer)) {
        return DelayRegisterLocked(channel, buffer);
    }
    return StoredLocked(xdma::CaptureBlock(channel) + offset);
}

std::uint32_t SimXdmaCard::DelayRegisterLocked(unsigned channel, unsigned buffer) const {
    const std::uint32_t selector =
        StoredLocked(xdma::CaptureBlock(channel) + xdma::CapBufferDelay(buffer)) >>
        xdma::kDelaySelectorShift;
    return selector << xdma::kDelaySelectorShift |
           capture_[channel].DelayTicks(buffer, selector, Clock::now());
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
    const std::uint32_t source = RegisterValueLocked(control + kCtlCaptureSource);
    settings.loopback = source == kCaptureSourceLoopback;
    settings.scene = source == kCaptureSourceScene;
    const std::uint32_t geometry = RegisterValueLocked(block + xdma::kCapGeometry);
    settings.width = geometry >> 16;
    settings.lines = geometry & 0xFFFF;
    settings.pixelCode = RegisterValueLocked(block + xdma::kCapPixelCode);
    settings.errorEvery = RegisterValueLocked(control + kCtlErrorFrameEvery);
    for (unsigned buffer = 0; buffer < xdma::kCardBufferCount; ++buffer) {
        const std::uint32_t status = RegisterValueLocked(block + xdma::CapBufferStatus(buffer));
        settings.held[buffer] = (status & xdma::kStatusStateMask) == xdma::kStatusCaptureReady;
    }
    return settings;
}

bool SimXdmaCard::ProduceLocked(std::unique_lock<std::mutex>& lock, unsigned channel, int count,
                                TimePoint start) {
    SimCaptureChannel& capture = capture_[channel];
    capture.Plan(CaptureSettingsLocked(channel), count, start);
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

void SimXdmaCard::SetLoopbackFrame(int channel, const void* data, std::size_t size) {
    if (channel < 0 || channel >= xdma::kChannelCount || (data == nullptr && size != 0)) {
        return;
    }
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    auto frame = std::make_shared<const std::vector<std::uint8_t>>(bytes, bytes + size);
    std::lock_guard<std::mutex> lock(mutex_);
    capture_[channel].SetLoopbackFrame(std::move(frame));
}

}  // namespace kvpcie::sim
