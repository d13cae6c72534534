// One inject channel of the simulated card.
#include "SimInjectChannel.h"

#include "SimCardRegisters.h"

#include <algorithm>

namespace kvpcie::sim {

void SimInjectChannel::Start(TimePoint now, Clock::duration period) {
    clock_.Start(now, period);
    position_ = 0;
    counts_.framesPlayed = 0;
    counts_.underruns = 0;
    // The host's hand-over times stay: it may fill the ring before it enables the channel.
    for (BufferTimes& times : buffers_) {
        times.readyToPlay = times.playInterval = times.writingToPlay = Clock::duration::zero();
        times.released.reset();
    }
    previousPlay_.reset();
    RestartRefillTimes();
}

void SimInjectChannel::BeginPlay() {
    playGeneration_ = clock_.Run();
}

bool SimInjectChannel::FinishPlay(TimePoint end) {
    if (!clock_.IsCurrent(playGeneration_)) {
        return false;
    }
    BufferTimes& times = buffers_[position_];
    times.readyToPlay = times.ready ? end - *times.ready : Clock::duration::zero();
    times.writingToPlay = times.writing ? end - *times.writing : Clock::duration::zero();
    times.playInterval = previousPlay_ ? end - *previousPlay_ : Clock::duration::zero();
    // A later hand-over of the buffer without a fresh start must not reuse these.
    times.writing.reset();
    times.ready.reset();
    times.released = end;
    previousPlay_ = end;
    position_ = (position_ + 1) % xdma::kCardBufferCount;
    ++counts_.framesPlayed;
    return true;
}

void SimInjectChannel::RecordHostWriting(unsigned buffer, TimePoint now) {
    BufferTimes& times = buffers_[buffer];
    times.writing = now;
    if (times.released) {
        longestRefill_ = std::max(longestRefill_, now - *times.released);
        ++refillsTimed_;
        times.released.reset();
    }
}

void SimInjectChannel::RecordReady(unsigned buffer, TimePoint now) {
    BufferTimes& times = buffers_[buffer];
    times.ready = now;
    times.hostWriting = times.writing ? now - *times.writing : Clock::duration::zero();
}

std::uint32_t SimInjectChannel::DelayTicks(unsigned buffer, unsigned selector) const {
    const BufferTimes& times = buffers_[buffer];
    Clock::duration span{};
    switch (selector) {
        case 0:
            span = times.hostWriting;
            break;
        case 1:
            span = times.readyToPlay;
            break;
        case 2:
            span = times.playInterval;
            break;
        case 3:
            span = times.writingToPlay;
            break;
        default:
            return 0;
    }
    return SaturatedDelayTicks(span);
}

bool SimInjectChannel::CommandBusy(TimePoint now) const {
    return commandBusyUntil_ && now < *commandBusyUntil_;
}

void SimInjectChannel::TakeCommand(TimePoint busyUntil) {
    commandBusyUntil_ = busyUntil;
    untakenStart_ = false;
    ++counts_.commandsTaken;
}

void SimInjectChannel::ResetCommand() {
    commandBusyUntil_.reset();
    untakenStart_ = false;
}

}  // namespace kvpcie::sim
