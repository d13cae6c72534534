// One capture channel of the simulated card.
#include "SimCaptureChannel.h"

#include <algorithm>

namespace kvpcie::sim {

SimCaptureChannel::SimCaptureChannel(unsigned channel) : channel_(channel) {}

void SimCaptureChannel::Start(TimePoint now, Clock::duration period) {
    clock_.Start(now, period);
    position_ = 0;
    number_ = 0;
    counts_ = Counts{};
    // Times of an earlier run would pass for this run's in the read-back.
    buffers_.fill(BufferTimes{});
    previousReady_.reset();
    readyTimes_.fill(ReadyRecord{});
}

void SimCaptureChannel::Plan(const CaptureSettings& settings, int count, TimePoint start) {
    claimed_ = true;
    batch_.count = 0;
    batchGeneration_ = clock_.Run();
    batchBytes_ = settings.frameBytes;
    batchLoopback_ = settings.loopback;
    batchScene_ = settings.scene;
    batchWidth_ = settings.width;
    batchLines_ = settings.lines;
    batchPixelCode_ = settings.pixelCode;
    batchLoopbackFrame_ = settings.loopback ? loopbackFrame_ : nullptr;
    if (settings.frameBytes == 0 || settings.frameBytes > xdma::kCardBufferBytes) {
        return;
    }
    count = std::min(count, xdma::kCardBufferCount);
    for (int i = 0; i < count; ++i) {
        const std::uint32_t number = number_++;
        if (settings.held[position_]) {
            ++counts_.framesDropped;
            continue;
        }
        const bool error = settings.errorEvery != 0 && (number + 1) % settings.errorEvery == 0;
        batch_.frames[batch_.count++] = Frame{number, position_, error, start, {}};
        position_ = (position_ + 1) % xdma::kCardBufferCount;
    }
}

void SimCaptureChannel::WriteFrames(CardMemory& memory) {
    // The frames are described, not written: the transfer that reads one makes its bytes.
    for (int i = 0; i < batch_.count; ++i) {
        Frame& frame = batch_.frames[i];
        const TimePoint begin = Clock::now();
        FrameDescription description;
        description.bytes = batchBytes_;
        if (batchLoopback_) {
            description.kind = FrameDescription::Kind::Loopback;
            description.loopback = batchLoopbackFrame_;
        } else if (batchScene_) {
            description.kind = FrameDescription::Kind::Scene;
            description.number = frame.number;
            description.width = batchWidth_;
            description.lines = batchLines_;
            description.pixelCode = batchPixelCode_;
        } else {
            description.kind = FrameDescription::Kind::Pattern;
            description.number = frame.number;
            description.channel = channel_;
        }
        memory.Describe(channel_, frame.buffer, std::move(description));
        frame.writeTime = Clock::now() - begin;
    }
}

bool SimCaptureChannel::Finish() {
    claimed_ = false;
    batchLoopbackFrame_.reset();
    return clock_.IsCurrent(batchGeneration_);
}

void SimCaptureChannel::RecordReady(const Frame& frame, TimePoint ready) {
    BufferTimes& times = buffers_[frame.buffer];
    times.filled = true;
    times.released = false;
    times.start = frame.start;
    times.ready = ready;
    times.writeTime = frame.writeTime;
    times.sincePreviousReady = previousReady_ ? ready - *previousReady_ : Clock::duration::zero();
    previousReady_ = ready;
    readyTimes_[frame.number % readyTimes_.size()] = ReadyRecord{true, frame.number, ready};
    ++counts_.framesProduced;
}

void SimCaptureChannel::RecordRelease(unsigned buffer, TimePoint now) {
    buffers_[buffer].released = true;
    buffers_[buffer].release = now;
}

void SimCaptureChannel::SetLoopbackFrame(std::shared_ptr<const std::vector<std::uint8_t>> frame) {
    loopbackFrame_ = std::move(frame);
}

std::uint32_t SimCaptureChannel::DelayTicks(unsigned buffer, unsigned selector,
                                            TimePoint now) const {
    const BufferTimes& times = buffers_[buffer];
    if (!times.filled) {
        return 0;
    }
    const TimePoint releaseOrNow = times.released ? times.release : now;
    Clock::duration span{};
    switch (selector) {
        case 0:
            span = times.writeTime;
            break;
        case 1:
            span = releaseOrNow - times.ready;
            break;
        case 2:
            span = times.sincePreviousReady;
            break;
        case 3:
            span = releaseOrNow - times.start;
            break;
        default:
            return 0;
    }
    return SaturatedDelayTicks(span);
}

bool SimCaptureChannel::ReadyTime(std::uint32_t number, TimePoint& ready) const {
    const ReadyRecord& record = readyTimes_[number % readyTimes_.size()];
    if (!record.kept || record.number != number) {
        return false;
    }
    ready = record.time;
    return true;
}

bool SimCaptureChannel::QueueStatusBlock(StatusBlock block) {
    if (statusQueue_.size() >= static_cast<std::size_t>(kMaxQueuedStatusBlocks)) {
        return false;
    }
    statusQueue_.push_back(std::move(block));
    return true;
}

std::optional<SimCaptureChannel::StatusBlock> SimCaptureChannel::TakeStatusBlock() {
    if (statusQueue_.empty()) {
        return std::nullopt;
    }
    StatusBlock block = std::move(statusQueue_.front());
    statusQueue_.pop_front();
    return block;
}

}  // namespace kvpcie::sim
