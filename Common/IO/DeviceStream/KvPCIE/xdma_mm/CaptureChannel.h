// One capture channel of an XDMA card: its format, buffer and callbacks, the scan of its card
// buffer ring, its event thread, and the recording and status channel that belong to it.
#pragma once

#include "CaptureRecording.h"
#include "CaptureStatusChannel.h"
#include "EventFile.h"
#include "StreamCounters.h"
#include "XdmaDevice.h"

#include "Common/AutoResetEvent.h"
#include "Common/CpuCoreSource.h"
#include "Common/LogFile.h"
#include "Common/PinnedWorker.h"

#include <KvPCIeInjectSdk/KvPCIeStatistics.h>
#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace kvpcie::xdma {

// The host (control thread, or a frame callback on the polling thread) fills, programs and
// stops the channel; the polling thread takes the channel's turn to scan its ring. The turn
// lock is held for the whole turn and while the host changes the channel, so a stop never
// races a frame in flight. A frame callback calling in about its own channel already holds
// the turn: LockTurn then takes nothing, and the generation count tells the turn that the
// callback stopped or restarted the channel.
class CaptureChannel {
public:
    // `pollerWake` is the engine's: each event of the card wakes the polling thread with it.
    CaptureChannel(XdmaCard& card, int channel, LogFile& log, const std::atomic<bool>& saveLog,
                   AutoResetEvent& pollerWake);
    // Ends the event thread; the recording finishes its take.
    ~CaptureChannel() { StopEventWatch(); }
    CaptureChannel(const CaptureChannel&) = delete;
    CaptureChannel& operator=(const CaptureChannel&) = delete;

    // Each form keeps the other form's callback: with both set, the plain one is called.
    void SetCallbacks(CaptureFrameCallback callback, CaptureFrameCallbackEx callbackEx);
    // Unpolled from here until Go: a restart finishes the recording's take, the counts start
    // again, and a null context or buffer keeps the previous one.
    void Prepare(const KvFrameFormat& format, void* userContext, char* frameBuffer);
    // Writes the channel's register block; statuses of an earlier run are cleared.
    void ProgramCard();
    void Go() { started_.store(true, std::memory_order_release); }
    // Polled no more once it returns (from the channel's own callback: once that returns).
    void MarkStopped();
    void ForgetCallbacks();
    bool IsStarted() const { return started_.load(std::memory_order_acquire); }

    // The event thread waits on the card's event file of the channel; `realTime`: at a
    // real-time priority, where the OS grants it.
    void StartEventWatch(CpuCoreSource* cores, const std::string& devicePath, bool realTime);
    void StopEventWatch();

    // Polling thread: one turn over the ready buffers, when the channel is started.
    void PollTurn();

    void AddTo(KvCaptureStatistics& out);
    void SetDelayTest(bool on) { delayTest_.store(on, std::memory_order_relaxed); }
    int DelayTestCount() const { return delayTestCount_; }
    void RequestSnapshot() { snapshotRequest_.store(true, std::memory_order_relaxed); }

    CaptureRecording& Recording() { return recording_; }
    CaptureStatusChannel& Status() { return status_; }

private:
    std::unique_lock<std::mutex> LockTurn();
    void ScanRing();
    // False when the callback stopped or restarted the channel: its turn ends there.
    bool HandleBuffer(unsigned buffer, std::uint32_t status);
    void StopEventWatchLocked();
    void EventLoop();

    XdmaCard& card_;
    const int channel_;
    LogFile& log_;
    const std::atomic<bool>& saveLog_;
    std::mutex turnLock_;
    std::atomic<bool> started_{false};
    // Counts starts and stops (under the turn lock).
    std::uint32_t generation_ = 0;
    int lastHandledBuffer_ = -1;
    KvFrameFormat format_;
    int frameSize_ = 0;
    char* frameBuffer_ = nullptr;
    CaptureFrameCallback frameCallback_ = nullptr;
    CaptureFrameCallbackEx frameCallbackEx_ = nullptr;
    void* frameContext_ = nullptr;
    CaptureCounters counters_;
    std::atomic<bool> snapshotRequest_{false};
    std::atomic<bool> delayTest_{false};
    int delayTestCount_ = 0;
    CaptureRecording recording_;
    CaptureStatusChannel status_;
    // The host and a frame callback may start and stop the watch at once; the event thread
    // itself never takes this lock, so it may be held while the thread is joined.
    std::mutex eventWatchLock_;
    std::unique_ptr<EventFile> eventFile_;
    PinnedWorker eventThread_;
    bool eventThreadRealTime_ = false;  // under eventWatchLock_; read by the thread it starts
    AutoResetEvent eventObject_;
    AutoResetEvent& pollerWake_;
};

}  // namespace kvpcie::xdma
