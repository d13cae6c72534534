// The simulated XDMA card's timing thread: the next frame or play of every channel, when due.
#include "SimXdmaCard.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <optional>

namespace kvpcie::sim {

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

}  // namespace kvpcie::sim
