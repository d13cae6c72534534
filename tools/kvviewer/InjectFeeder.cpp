// Feeding an inject channel from the window's thread.
#include "InjectFeeder.h"

#include "RawRecordingName.h"
#include "TestFrames.h"

#include <algorithm>
#include <new>

namespace kvpcie::viewer {
namespace {
// The card holds eight buffers: a recording played once has been played when the queue is empty
// and that many periods have passed.
constexpr int kCardBuffers = 8;
}  // namespace

InjectFeeder::InjectFeeder(StudioContext& context, int channel, QObject* parent)
    : QObject(parent), context_(context), channel_(channel) {
    timer_.setTimerType(Qt::PreciseTimer);
    connect(&timer_, &QTimer::timeout, this, &InjectFeeder::Feed);
}

bool InjectFeeder::Start(const InjectSource& requested) {
    Stop();
    source_ = requested;
    if (!source_.rawFile.isEmpty()) {
        const auto info = tools::ParseRawRecordingName(source_.rawFile.toStdString());
        if (!info) {
            context_.Did(tr("inject channel %1: the name of %2 does not say its frames "
                            "(<n>_<W>x<H>_ParamLine<p>_Fps<r>_<TYPE>.raw)")
                             .arg(channel_)
                             .arg(source_.rawFile));
            return false;
        }
        // Parameter lines travel as further lines of the picture.
        source_.width = info->width;
        source_.height = info->height + info->paramLines;
        source_.pixelType = info->pixelType;
    }
    // Checked before the frame is sized: a format the card cannot take allocates nothing.
    if (!context_.manager.IsInjectFormatAcceptable(static_cast<unsigned>(channel_),
                                                   source_.frameRate, source_.width, source_.height,
                                                   source_.pixelType)) {
        problem_ = context_.Refused(tr("inject channel %1: %2 x %3 at %4 fps")
                                        .arg(channel_)
                                        .arg(source_.width)
                                        .arg(source_.height)
                                        .arg(source_.frameRate));
        return false;
    }
    const auto bytes = static_cast<std::size_t>(
        KvFrameSizeBytes(source_.pixelType, source_.width, source_.height));
    try {
        // A new vector, so that a smaller format gives back what a larger one held.
        std::vector<char>(bytes, 0).swap(frame_);
    } catch (const std::bad_alloc&) {
        context_.Did(tr("inject channel %1: no memory for the frames").arg(channel_));
        return false;
    }
    if (!source_.rawFile.isEmpty() &&
        raw_.Open(source_.rawFile.toStdString(), bytes) != tools::RawFrameFile::OpenResult::Opened) {
        context_.Did(tr("inject channel %1: %2 cannot be read as whole %3-byte frames")
                         .arg(channel_)
                         .arg(source_.rawFile)
                         .arg(bytes));
        return false;
    }
    problem_.clear();
    run_ = tools::NewTestRun();
    number_ = 0;
    offered_ = 0;
    lastQueued_ = false;
    periodsAfterLast_ = 0;
    if (!NextFrame()) {
        return false;
    }
    running_ = true;
    context_.Did(tr("inject channel %1: %2 at %3 fps%4")
                     .arg(channel_)
                     .arg(source_.rawFile.isEmpty() ? tr("moving pattern") : source_.rawFile)
                     .arg(source_.frameRate)
                     .arg(source_.loop ? tr(", looped") : tr(", once")));
    Feed();  // the first frame starts the channel at once
    if (running_) {
        // Twice per frame period: the queue of 15 frames never runs dry between two looks.
        timer_.start(std::max(1, 500 / std::max(1, source_.frameRate)));
    }
    return running_;
}

void InjectFeeder::Stop() {
    timer_.stop();
    if (!running_) {
        return;
    }
    running_ = false;
    context_.manager.StopInject(channel_);
    context_.Did(tr("inject channel %1: stopped after %2 frames").arg(channel_).arg(offered_));
    emit stopped(channel_);
}

bool InjectFeeder::NextFrame() {
    if (source_.rawFile.isEmpty()) {
        tools::FillTestFrame(frame_, channel_, run_, number_);
        return true;
    }
    bool wrapped = false;
    if (!raw_.Next(frame_.data(), wrapped)) {
        context_.Did(tr("inject channel %1: reading %2 failed").arg(channel_).arg(source_.rawFile));
        return false;
    }
    // Played once: the first frame again means every frame is queued.
    if (wrapped && !source_.loop) {
        lastQueued_ = true;
    }
    return true;
}

void InjectFeeder::Feed() {
    if (lastQueued_) {
        FinishWhenPlayed();
        return;
    }
    // As many frames as the queue has room for now: kept short of full, so that the refused
    // count says something about the card rather than about this loop.
    constexpr std::uint32_t kQueueRoom = 14;
    while (running_ && !lastQueued_) {
        KvInjectStatistics stats;
        if (offered_ > 0 && context_.manager.GetInjectStatistics(channel_, stats) &&
            stats.framesWaiting >= kQueueRoom) {
            return;
        }
        eErrorCode error = ERR_NONE;
        if (!context_.manager.StartInject(static_cast<unsigned>(channel_), source_.frameRate,
                                          source_.width, source_.height, source_.pixelType, 0,
                                          frame_.data(), error)) {
            if (error != ERR_QUEUE_FULL) {
                context_.Refused(tr("inject channel %1").arg(channel_));
                Stop();
            }
            return;
        }
        ++offered_;
        ++number_;
        if (!NextFrame()) {
            Stop();
        }
    }
}

void InjectFeeder::FinishWhenPlayed() {
    KvInjectStatistics stats;
    if (!context_.manager.GetInjectStatistics(channel_, stats) || stats.framesWaiting > 0) {
        return;
    }
    // The timer looks twice per period.
    if (++periodsAfterLast_ >= 2 * kCardBuffers) {
        context_.Did(tr("inject channel %1: the recording was played once").arg(channel_));
        Stop();
    }
}

}  // namespace kvpcie::viewer
