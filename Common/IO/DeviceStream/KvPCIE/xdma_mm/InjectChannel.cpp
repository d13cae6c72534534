// One inject channel: programming its register block, its frame queue, and the handover of
// frames to its card buffers in ring order on the card's schedule.
#include "InjectChannel.h"

#include "InjectFormat.h"
#include "drivers/XdmaCardRegisters.h"
#include "XdmaChannelRegisters.h"
#include "XdmaDevice.h"

#include <algorithm>

namespace kvpcie::xdma {
namespace {

constexpr int kInjectQueueSlots = 16;  // holds 15 frames
constexpr int kInjectQueueLimit = kInjectQueueSlots - 1;
// What the start writes to the sync mode word for syncSubMode 0, 1 and 2 of mode 2.
constexpr std::uint32_t kExternalSyncWords[] = {0x002, 0x102, 0x202};
// How often a channel whose buffer is due is looked at, and how long before its due time the
// looking starts (plus a sixteenth of the period, for a card whose timing drifts).
constexpr std::chrono::microseconds kIdlePause{250};
// How often a channel whose card is lost looks again (until it is stopped or the card reopened).
constexpr std::chrono::milliseconds kLostCardPause{10};
constexpr std::chrono::milliseconds kReleaseMargin{2};

std::uint32_t InjectSyncModeWord(const KvFrameFormat& format) {
    switch (format.injectSyncMode) {
        case 1:
            return 1;
        case 2:
            if (format.syncSubMode >= 0 && format.syncSubMode <= 2) {
                return kExternalSyncWords[format.syncSubMode];
            }
            return 0;
        default:
            return 0;
    }
}

// The card's frame period for the channel's format; zero when it is not known.
InjectChannel::Clock::duration FramePeriod(const KvFrameFormat& format) {
    if (format.frameRate <= 0) {
        return InjectChannel::Clock::duration::zero();
    }
    return std::chrono::duration_cast<InjectChannel::Clock::duration>(std::chrono::seconds(1)) /
           format.frameRate;
}

// The frame counter, least significant byte first, over the frame's first pixel.
void StampFrameCounter(char* frame, ePixelType pixelType, std::uint32_t counter) {
    const int bytes = InjectBytesPerPixel(pixelType);
    for (int i = 0; i < bytes; ++i) {
        frame[i] = static_cast<char>(counter >> (8 * i) & 0xFF);
    }
}

}  // namespace

bool InjectChannel::Program(const KvFrameFormat& format) {
    const int bytesPerPixel = InjectBytesPerPixel(format.pixelType);
    const int imageSize = bytesPerPixel * format.width * (format.height + format.paramLines);
    const int frameSize = imageSize + (paramSimulate_ ? bytesPerPixel * format.width : 0);
    // A queue that cannot be had refuses the start before the card is touched, rather than
    // leaving a channel that can take no frame.
    auto queue = std::make_unique<KvCycleQueue>();
    if (!queue->Init(frameSize, kInjectQueueSlots)) {
        return false;
    }
    const int transferSize = (frameSize + static_cast<int>(kInjTransferGranule) - 1) &
                             ~(static_cast<int>(kInjTransferGranule) - 1);
    const int lines = format.height + format.paramLines + (paramSimulate_ ? 1 : 0);
    {
        std::lock_guard<std::mutex> turn(turnLock_);
        hasFormat_ = true;
        format_ = format;
        imageSize_ = imageSize;
        frameSize_ = frameSize;
        queue_ = std::move(queue);
        newestFrame_ = nullptr;
        transferSize_ = transferSize;
    }

    const auto c = static_cast<unsigned>(channel_);
    const std::uint32_t block = InjectBlock(c);
    card_.XdmaWriteRegValue(block + kInjPixelCode, InjectPixelCode(format.pixelType));
    card_.XdmaWriteRegValue(block + kInjGeometry, static_cast<std::uint32_t>(format.width) << 16 |
                                                static_cast<std::uint32_t>(lines));
    card_.XdmaWriteRegValue(block + kInjBufferCount, kCardBufferCount);
    card_.XdmaWriteRegValue(block + kInjTransferBytes, static_cast<std::uint32_t>(transferSize));
    for (unsigned b = 0; b < kCardBufferCount; ++b) {
        card_.XdmaWriteRegValue(block + InjBufferAddress(b), InjectBufferAddress(c, b));
        card_.XdmaWriteRegValue(block + InjBufferStatus(b), 0);
    }
    card_.XdmaWriteRegValue(block + kInjSyncMode, InjectSyncModeWord(format));
    const std::uint32_t framePeriod =
        card_.XdmaReadReg(kRegTimingClockHz) / static_cast<std::uint32_t>(format.frameRate);
    card_.XdmaWriteRegValue(block + kInjLinePeriod, static_cast<std::uint32_t>(format.linePeriod));
    card_.XdmaWriteRegValue(block + kInjFramePeriod, framePeriod);
    return true;
}

void InjectChannel::BeginRun() {
    std::lock_guard<std::mutex> turn(turnLock_);
    counters_.ResetFrames();
    expectedRelease_.reset();
    sawBusy_ = false;
    quietUntil_ = {};
    lastBufferIndex_ = -1;
    injecting_.store(true, std::memory_order_release);
}

bool InjectChannel::Queue(const char* frameData, eErrorCode& error) {
    if (queue_ == nullptr) {
        return false;
    }
    if (queue_->Size() >= kInjectQueueLimit) {
        counters_.refused.Add();
        error = ERR_QUEUE_FULL;
        return false;
    }
    int full = 0;
    if (!queue_->Push(frameData, frameSize_, full)) {
        return false;
    }
    counters_.queued.Add();
    return true;
}

void InjectChannel::Stop() {
    injecting_.store(false, std::memory_order_release);
    std::lock_guard<std::mutex> turn(turnLock_);
    paramSimulate_ = false;
    lastBufferIndex_ = -1;
    imageSize_ = 0;
    frameSize_ = 0;
    transferSize_ = 0;
    frameCounter_ = 0;
    if (queue_ != nullptr) {
        counters_.droppedAtStop.Add(static_cast<std::uint64_t>(queue_->Size()));
    }
    queue_.reset();
    newestFrame_ = nullptr;
}

void InjectChannel::SetParamSimulate(bool enable, const tagThermalImgParams& params) {
    std::lock_guard<std::mutex> turn(turnLock_);
    paramSimulate_ = enable;
    hasThermalParams_ = true;
    thermalParams_ = params;
}

bool InjectChannel::Due(Clock::time_point now, Clock::time_point& wake) {
    if (now < quietUntil_) {
        wake = std::min(wake, quietUntil_);
        return false;
    }
    return true;
}

void InjectChannel::NoteRelease(Clock::time_point now) {
    // Releases keep to the card's schedule, so one seen late (this thread, or the card, held
    // up) does not move the schedule later; one seen early does move it earlier.
    sawBusy_ = false;
    const auto period = FramePeriod(format_);
    if (period > Clock::duration::zero()) {
        auto base = now;
        if (expectedRelease_ && now - *expectedRelease_ < period / 2 &&
            *expectedRelease_ - now < period / 2) {
            base = std::min(now, *expectedRelease_);
        }
        expectedRelease_ = base + period;
    }
}

bool InjectChannel::Serve(Clock::time_point now, Clock::time_point& wake) {
    if (!IsInjecting()) {
        return false;
    }
    std::lock_guard<std::mutex> turn(turnLock_);
    if (!IsInjecting() || queue_ == nullptr || !Due(now, wake)) {
        return false;
    }
    if (card_.IsLost()) {
        // Nothing more goes to a card that is gone; its frames wait in the queue.
        wake = std::min(wake, now + kLostCardPause);
        return false;
    }
    if (newestFrame_ == nullptr && queue_->IsEmpty()) {
        // Nothing of this run yet: a buffer handed over now would play what the card's memory
        // still holds, a frame of an earlier run.
        wake = std::min(wake, now + kIdlePause);
        return false;
    }
    const auto c = static_cast<unsigned>(channel_);
    const unsigned b = static_cast<unsigned>(lastBufferIndex_ + 1) % kCardBufferCount;
    const std::uint32_t block = InjectBlock(c);
    const std::uint32_t status = block + InjBufferStatus(b);
    if ((card_.XdmaReadReg(status) & kStatusStateMask) != 0) {
        // The card still plays or holds it. Until shortly before its release is due there is
        // nothing to look at.
        sawBusy_ = true;
        if (expectedRelease_) {
            const auto quietUntil = *expectedRelease_ - kReleaseMargin - FramePeriod(format_) / 16;
            if (quietUntil > now) {
                quietUntil_ = quietUntil;
                wake = std::min(wake, quietUntil);
                return false;
            }
        }
        wake = std::min(wake, now + kIdlePause);
        return false;
    }
    if (sawBusy_) {
        NoteRelease(now);
    }
    // The slot stays ours until the next PopPtr on this queue, which only this thread makes;
    // so the newest frame stays readable there while the queue is dry.
    char* frame = queue_->PopPtr();
    if (frame != nullptr) {
        StampFrameCounter(frame, format_.pixelType, frameCounter_);
        ++frameCounter_;
        newestFrame_ = frame;
    } else if (newestFrame_ == nullptr) {
        return false;  // only this thread takes from the queue, so it holds the frame seen above
    }
    card_.XdmaWriteRegValue(status, kStatusHostWriting);
    if (frame != nullptr) {
        counters_.toCard.Add();
    } else {
        // Dry: the buffer goes back with the newest picture again rather than the one it held
        // eight periods ago.
        counters_.periodsWithoutFrame.Add();
    }
    // A failed transfer is only counted: the card plays what the buffer held before.
    if (!card_.XdmaWriteData(InjectBufferAddress(c, b), static_cast<unsigned>(frameSize_),
                       newestFrame_)) {
        counters_.transfersFailed.Add();
    }
    card_.XdmaWriteRegValue(status, kStatusInjectReady);
    card_.XdmaWriteRegValue(block + InjBufferLength(b), static_cast<std::uint32_t>(transferSize_));
    lastBufferIndex_ = static_cast<int>(b);
    return true;
}

void InjectChannel::AddTo(KvInjectStatistics& out) {
    out.framesQueued = counters_.queued.Get();
    out.framesRefused = counters_.refused.Get();
    out.framesToCard = counters_.toCard.Get();
    out.transfersFailed = counters_.transfersFailed.Get();
    out.framesDroppedAtStop = counters_.droppedAtStop.Get();
    out.periodsWithoutFrame = counters_.periodsWithoutFrame.Get();
    out.cardLost = card_.IsLost();
    out.cardLostAtMs = card_.LostAtMs();
    // The queue is replaced only under the turn lock.
    std::lock_guard<std::mutex> turn(turnLock_);
    out.framesWaiting = queue_ != nullptr ? static_cast<std::uint32_t>(queue_->Size()) : 0;
}

}  // namespace kvpcie::xdma
