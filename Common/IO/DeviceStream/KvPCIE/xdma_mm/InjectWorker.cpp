// The inject worker: keeps every injecting channel's card buffers filled, in ring order.
#include "DataInject4XdmaMM.h"

#include "InjectFormat.h"
#include "XdmaDevice.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace kvpcie::xdma {
namespace {

// How often a channel whose buffer is due is looked at, and how long before its due time the
// looking starts (plus a sixteenth of the period, for a card whose timing drifts).
constexpr std::chrono::microseconds kIdlePause{250};
constexpr std::chrono::milliseconds kReleaseMargin{2};

// The card's frame period for the channel's format; zero when it is not known.
std::chrono::steady_clock::duration FramePeriod(const KvFrameFormat& format) {
    if (format.frameRate <= 0) {
        return std::chrono::steady_clock::duration::zero();
    }
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
               std::chrono::seconds(1)) /
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

void DataInject4XdmaMM::ThreadFun_InjectData() {
    // The card paces the frames; the worker refills a buffer as soon as it comes free. It does
    // not spin while it waits (a yielding loop kept a core busy for one channel at 25 frames
    // per second): the card releases one buffer per frame period, so after a release the
    // worker sleeps until shortly before the next one is due, then looks every quarter of a
    // millisecond. A buffer is still refilled well within a millisecond of its release.
    while (injectThread_.IsRunning()) {
        const WorkerClock::time_point now = WorkerClock::now();
        WorkerClock::time_point wake = WorkerClock::time_point::max();
        bool handedOver = false;
        for (unsigned c = 0; c < static_cast<unsigned>(kChannelCount); ++c) {
            handedOver = ServeChannel(c, now, wake) || handedOver;
        }
        if (!handedOver) {
            // No channel to wait for (they are being stopped): look again after a pause.
            std::this_thread::sleep_until(wake == WorkerClock::time_point::max() ? now + kIdlePause
                                                                                 : wake);
        }
    }
}

bool DataInject4XdmaMM::ServeChannel(unsigned c, WorkerClock::time_point now,
                                     WorkerClock::time_point& wake) {
    Channel& state = channels_[c];
    if (!state.injecting.load(std::memory_order_acquire)) {
        return false;
    }
    std::lock_guard<std::mutex> turn(state.turnLock);
    if (!state.injecting.load(std::memory_order_acquire) || state.queue == nullptr) {
        return false;
    }
    if (now < state.quietUntil) {
        wake = std::min(wake, state.quietUntil);
        return false;
    }
    if (state.newestFrame == nullptr && state.queue->IsEmpty()) {
        // Nothing of this run yet: a buffer handed over now would play what the card's memory
        // still holds, a frame of an earlier run.
        wake = std::min(wake, now + kIdlePause);
        return false;
    }
    const unsigned b = static_cast<unsigned>(state.lastBufferIndex + 1) % kCardBufferCount;
    const std::uint32_t block = InjectBlock(c);
    const std::uint32_t status = block + InjBufferStatus(b);
    if ((XdmaReadReg(status) & kStatusStateMask) != 0) {
        // The card still plays or holds it. Until shortly before its release is due there is
        // nothing to look at.
        state.sawBusy = true;
        if (state.expectedRelease) {
            const auto quietUntil =
                *state.expectedRelease - kReleaseMargin - FramePeriod(state.format) / 16;
            if (quietUntil > now) {
                state.quietUntil = quietUntil;
                wake = std::min(wake, quietUntil);
                return false;
            }
        }
        wake = std::min(wake, now + kIdlePause);
        return false;
    }
    if (state.sawBusy) {
        // A release watched for: the next one is due a period after it. Releases keep to the
        // card's schedule, so one seen late (this thread, or the card, held up) does not move
        // the schedule later; one seen early does move it earlier.
        state.sawBusy = false;
        const auto period = FramePeriod(state.format);
        if (period > WorkerClock::duration::zero()) {
            auto base = now;
            if (state.expectedRelease && now - *state.expectedRelease < period / 2 &&
                *state.expectedRelease - now < period / 2) {
                base = std::min(now, *state.expectedRelease);
            }
            state.expectedRelease = base + period;
        }
    }
    // The slot stays ours until the next PopPtr on this queue, which only this thread makes;
    // so the newest frame stays readable there while the queue is dry.
    char* frame = state.queue->PopPtr();
    if (frame != nullptr) {
        StampFrameCounter(frame, state.format.pixelType, state.frameCounter);
        ++state.frameCounter;
        state.newestFrame = frame;
    } else if (state.newestFrame == nullptr) {
        return false;  // only this thread takes from the queue, so it holds the frame seen above
    }
    XdmaWriteRegValue(status, kStatusHostWriting);
    if (frame != nullptr) {
        state.counters.toCard.Add();
    } else {
        // Dry: the buffer goes back with the newest picture again rather than the one it held
        // eight periods ago.
        state.counters.periodsWithoutFrame.Add();
    }
    // A failed transfer is only counted: the card plays what the buffer held before.
    if (!XdmaWriteData(InjectBufferAddress(c, b), static_cast<unsigned>(state.frameSize),
                       state.newestFrame)) {
        state.counters.transfersFailed.Add();
    }
    XdmaWriteRegValue(status, kStatusInjectReady);
    XdmaWriteRegValue(block + InjBufferLength(b), static_cast<std::uint32_t>(state.transferSize));
    state.lastBufferIndex = static_cast<int>(b);
    return true;
}

}  // namespace kvpcie::xdma
