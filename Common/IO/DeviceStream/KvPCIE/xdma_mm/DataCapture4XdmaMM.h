// The capture engine of an XDMA card: up to four channels of frames from the card's buffer
// rings into the host's buffers and callbacks, recording, the buffers' timing read-back and
// the card's status data channel.
#pragma once

#include "CaptureChannel.h"
#include "XdmaChannelRegisters.h"
#include "XdmaDevice.h"

#include "Common/AutoResetEvent.h"
#include "Common/CpuCoreSource.h"
#include "Common/LogFile.h"
#include "Common/PinnedWorker.h"

#include <KvPCIeInjectSdk/KvPCIeStatistics.h>
#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <QObject>
#include <QTimer>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
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
    // Drives `card` (held as long as the engine); `cores` gives the worker threads their cores;
    // `devicePath` is the card's interface path, the base of its event file names. Reads the
    // delay clock; writes no register.
    DataCapture4XdmaMM(std::shared_ptr<XdmaCard> card, CpuCoreSource* cores,
                       const std::string& devicePath);
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
    QString RecordTakeFolder(int channel);

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

    // Called once, on the control thread from its event loop, within 20 ms of the card being
    // found lost. The engine must not be destroyed from inside it (InStatusDelivery is true).
    void SetCardLostHandler(std::function<void()> handler) { lostHandler_ = std::move(handler); }

    void SetSaveLog(bool on) { saveLog_.store(on, std::memory_order_relaxed); }
    void SetOsdHidden(bool on) { osdHidden_ = on; }
    void SetShowErrorFrame(bool on) { showErrorFrame_ = on; }

public slots:
    void OnSlotCaptureCmdDataTimeOut();
    void OnLostWatchTick();

private:
    void WriteEnableMask(int channel, bool on);
    bool StartChannel(const KvFrameFormat& format, CaptureFrameCallback callback,
                      CaptureFrameCallbackEx callbackEx, void* userContext, char* frameBuffer);
    bool AnyRecorderRecording();
    bool AnyChannelStarted() const;

    void PollingLoop();
    void RecordingLoop();
    void StatusLoop();

    static bool ValidChannel(int channel) { return channel >= 0 && channel < kChannelCount; }

    // Hands out the polling thread's own core and takes nothing from the table: with
    // real-time polling the event threads run beside the thread they wake, so that a wake-up
    // needs no other core (one that sleeps, in a virtual machine above all, takes a tenth of a
    // millisecond to answer).
    class PollingThreadCore final : public CpuCoreSource {
    public:
        explicit PollingThreadCore(PinnedWorker& poller) : poller_(poller) {}
        unsigned TakeCore() override;
        void ReturnCore(unsigned) override {}

    private:
        PinnedWorker& poller_;
    };

    // Where a new event thread's core comes from.
    CpuCoreSource* EventThreadCores();

    const std::shared_ptr<XdmaCard> card_;
    CpuCoreSource* const cores_;
    // KVPCIE_REALTIME_POLLING=1 at construction: the polling thread and the event threads run
    // at a real-time priority, on the polling thread's core.
    const bool realTimePolling_;
    const std::string devicePath_;
    std::atomic<bool> saveLog_{false};
    LogFile log_;
    // Set by any channel's event thread when the card raises the channel's event.
    AutoResetEvent pollerWake_;
    std::array<CaptureChannel, kChannelCount> channels_;
    PinnedWorker pollingThread_;
    PollingThreadCore pollingThreadCore_{pollingThread_};
    PinnedWorker recordingThread_;
    PinnedWorker statusThread_;
    QTimer statusTimer_;
    // Looks at the card's lost flag from the control thread's event loop.
    QTimer lostWatch_;
    std::function<void()> lostHandler_;
    bool lostReported_ = false;
    // The polling thread (a callback) and the control thread may both start and stop channels.
    std::mutex enableMaskLock_;
    std::uint32_t enableMask_ = 0;
    std::mutex recordingThreadLock_;
    std::atomic<bool> deliveringStatus_{false};
    std::uint32_t delayClockHz_ = 0;
    std::array<tagCaptureDelayStatusInfo, kCardBufferCount> delayStatus_{};
    bool osdHidden_ = false;
    bool showErrorFrame_ = false;
};

}  // namespace kvpcie::xdma
