// The capture engine of an XDMA card: up to four channels of frames from the card's buffer
// rings into the host's buffers and callbacks, recording, the buffers' timing read-back and
// the card's status data channel.
#pragma once

#include "StatusDataBuffer.h"
#include "StreamCounters.h"
#include "XdmaChannelRegisters.h"

#include "Common/AutoResetEvent.h"
#include "Common/CpuCoreSource.h"
#include "Common/KvCycleQueue.h"
#include "Common/LogFile.h"
#include "Common/PinnedWorker.h"
#include "EventFile.h"
#include "LossBurst.h"
#include "record/RecordThread.h"

#include <KvPCIeInjectSdk/KvPCIeStatistics.h>
#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <QObject>
#include <QTimer>

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace kvpcie::xdma {

// Created and destroyed by the facade on the host's control thread, which calls every public
// operation; its status timer runs in that thread's event loop. Frame callbacks run on the
// polling thread, and may call StartCapture, StopCapture, StartRecord, StopRecord and
// ImgSnapShot for any channel: a channel that its own callback stops or restarts delivers
// nothing more of the frame in hand once the callback returns. Channel numbers outside 0 to 3
// are ignored (false or null results).
class DataCapture4XdmaMM : public QObject {
    Q_OBJECT

public:
    // `cores` gives the worker threads their cores; `devicePath` is the card's interface path,
    // the base of its event file names. Reads the delay clock; writes no register.
    DataCapture4XdmaMM(CpuCoreSource* cores, const std::string& devicePath);
    // Stops every thread and recorder; writes no register.
    ~DataCapture4XdmaMM() override;

    // Always true for a channel 0 to 3: the facade has refused bad input before.
    bool StartCapture(const KvFrameFormat& format, eErrorCode& error, CaptureFrameCallback callback,
                      void* userContext, char* frameBuffer);
    bool StartCapture(const KvFrameFormat& format, eErrorCode& error,
                      CaptureFrameCallbackEx callback, void* userContext, char* frameBuffer);
    // When it returns (from inside the channel's own callback: when that callback returns), the
    // channel's buffer and callbacks are no longer used. A stop from a callback leaves the
    // polling thread idle, rather than joining itself, until the next start or the engine's end.
    void StopCapture(int channel);
    bool IsStartCapture(int channel) const;

    bool StartRecord(int channel);
    void StopRecord(int channel);

    // Eight records, one per card buffer; the same area for every channel.
    tagCaptureDelayStatusInfo* GetCaptureDelayStatus(int channel);
    void SetImgDisplayDelayTest(int channel, bool on);
    void ImgSnapShot(int channel);
    void SetCaptureFullScreenWgt(int channel, void* widget);

    void SetSystemStatusCallback(int channel, SystemStatusCallback callback, void* userContext,
                                 bool enable);

    // The channel's counts since its last start; false for a channel outside 0 to 3.
    bool GetCaptureStatistics(int channel, KvCaptureStatistics& out);

    // True on this engine's polling thread (inside a frame callback), and on the control thread
    // while it hands status blocks to their callbacks: the engine must not be destroyed then.
    bool OnPollingThread() const;
    bool InStatusDelivery() const { return deliveringStatus_.load(std::memory_order_acquire); }

    void SetSaveLog(bool on) { saveLog_.store(on, std::memory_order_relaxed); }
    void SetOsdHidden(bool on) { osdHidden_ = on; }
    void SetShowErrorFrame(bool on) { showErrorFrame_ = on; }

public slots:
    void OnSlotCaptureCmdDataTimeOut();

private:
    struct Channel {
        // Held by the polling thread for the channel's whole turn, and by the host while it
        // fills or resets the channel, so a stop never races a frame in flight.
        std::mutex turnLock;
        // Held by the recording thread while it feeds the recorder, and by the host while it
        // replaces the recorder or its queue.
        std::mutex recordLock;
        std::atomic<bool> started{false};
        // Counts starts and stops (under the turn lock), so that the polling thread notices a
        // callback that stopped or restarted its own channel.
        std::uint32_t generation = 0;
        int lastHandledBuffer = -1;
        KvFrameFormat format;
        int frameSize = 0;
        char* frameBuffer = nullptr;
        CaptureFrameCallback frameCallback = nullptr;
        CaptureFrameCallbackEx frameCallbackEx = nullptr;
        void* frameContext = nullptr;
        std::unique_ptr<RecordThread> recorder;
        std::unique_ptr<KvCycleQueue> recordQueue;
        std::unique_ptr<EventFile> eventFile;
        PinnedWorker eventThread;
        AutoResetEvent eventObject;
        CaptureCounters counters;
        // Losses in a row, so that a burst of them is logged once when it begins and once when
        // it ends rather than per frame: frames the engine's recording queue refused (polling
        // thread), frames the recorder lost (recording thread), status bytes dropped (status
        // thread).
        LossBurst queueLosses;
        std::uint64_t recorderLossesSeen = 0;
        LossBurst recorderLosses;
        LossBurst statusLosses;
        bool snapshotRequest = false;
        bool delayTest = false;
        int delayTestCount = 0;

        // The status data channel; guarded by statusLock_.
        SystemStatusCallback statusCallback = nullptr;
        void* statusContext = nullptr;
        std::shared_ptr<StatusDataBuffer> statusBuffer;
    };

    // The channel's turn lock, or nothing when this thread holds it already: a frame callback
    // calling in about its own channel.
    std::unique_lock<std::mutex> LockTurn(int channel);
    void WriteEnableMask(int channel, bool on);
    bool StartChannel(const KvFrameFormat& format, CaptureFrameCallback callback,
                      CaptureFrameCallbackEx callbackEx, void* userContext, char* frameBuffer);
    void ProgramChannel(unsigned channel, const KvFrameFormat& format, int frameSize);
    void StartEventThread(int channel);
    void StopEventThread(int channel);
    void StopRecorder(Channel& channel);
    bool AnyRecorderRecording();

    void PollingLoop();
    void PollChannel(int channel);
    // False when the callback stopped or restarted the channel: its turn ends there.
    bool HandleBuffer(int channel, Channel& state, unsigned buffer, std::uint32_t status);
    void RecordingLoop();
    void FeedRecorder(Channel& state);
    void EventLoop(int channel);
    void StatusLoop();
    // True when a block was taken from the card's mailbox (kept or counted as dropped).
    bool ReadStatusBlock(int channel, StatusDataBuffer& buffer);
    // Counts what the channel's status buffer holds as dropped and empties it; statusLock_ held.
    void DropStatusBytesLocked(int channel);

    static bool ValidChannel(int channel) { return channel >= 0 && channel < kChannelCount; }

    CpuCoreSource* const cores_;
    const std::string devicePath_;
    std::unique_ptr<LogFile> log_;
    std::array<Channel, kChannelCount> channels_;
    PinnedWorker pollingThread_;
    PinnedWorker recordingThread_;
    PinnedWorker statusThread_;
    QTimer statusTimer_;
    std::mutex statusLock_;
    // The polling thread (a callback) and the control thread may both start and stop channels.
    std::mutex enableMaskLock_;
    std::uint32_t enableMask_ = 0;
    std::mutex recordingThreadLock_;
    std::atomic<bool> deliveringStatus_{false};
    std::uint32_t delayClockHz_ = 0;
    std::array<tagCaptureDelayStatusInfo, kCardBufferCount> delayStatus_{};
    std::atomic<bool> saveLog_{false};
    bool osdHidden_ = false;
    bool showErrorFrame_ = false;
};

}  // namespace kvpcie::xdma
