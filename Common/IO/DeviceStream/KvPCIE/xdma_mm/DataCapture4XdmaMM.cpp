// The capture engine: its threads (polling, recording, status), the enable mask, and the
// operations that start, stop and read back its four channels.
#include "DataCapture4XdmaMM.h"

#include "LowLatencySetting.h"
#include "XdmaDevice.h"
#include "drivers/XdmaCardRegisters.h"

#include <KvPCIeInjectSdk/KvPCIeRecording.h>

#include <QThread>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <thread>

namespace kvpcie::xdma {
namespace {

constexpr std::uint32_t kDelayTestOn = 0x10;
// The order in which each buffer's four timing values are read back, and where each goes.
constexpr std::uint32_t kDelaySelectorOrder[] = {3, 1, 0, 2};
constexpr std::size_t kDelayFieldOffsets[] = {
    offsetof(tagCaptureDelayStatusInfo, delaySel3), offsetof(tagCaptureDelayStatusInfo, delaySel1),
    offsetof(tagCaptureDelayStatusInfo, delaySel0), offsetof(tagCaptureDelayStatusInfo, delaySel2)};
constexpr int kStatusTickMs = 20;
constexpr auto kStatusPollInterval = std::chrono::milliseconds(2);

// Which engine's polling thread this is: a frame callback must not destroy its engine.
thread_local const DataCapture4XdmaMM* pollingEngine = nullptr;

}  // namespace

DataCapture4XdmaMM::DataCapture4XdmaMM(std::shared_ptr<XdmaCard> card, CpuCoreSource* cores,
                                       const std::string& devicePath)
    : QObject(nullptr),
      card_(std::move(card)),
      cores_(cores),
      realTimePolling_(LowLatencyRequested()),
      devicePath_(devicePath),
      log_("Capture_AllChannel"),
      channels_{{{*card_, 0, log_, saveLog_, pollerWake_},
                 {*card_, 1, log_, saveLog_, pollerWake_},
                 {*card_, 2, log_, saveLog_, pollerWake_},
                 {*card_, 3, log_, saveLog_, pollerWake_}}} {
    log_.StartLog();
    connect(&statusTimer_, &QTimer::timeout, this,
            &DataCapture4XdmaMM::OnSlotCaptureCmdDataTimeOut);
    connect(&lostWatch_, &QTimer::timeout, this, &DataCapture4XdmaMM::OnLostWatchTick);
    // Without an event loop here (a host with no Qt application) nobody could be told anyway.
    if (QThread::currentThread()->eventDispatcher() != nullptr) {
        lostWatch_.start(kStatusTickMs);
    }
    delayClockHz_ = card_->XdmaReadReg(kRegDelayClockHz);
}

DataCapture4XdmaMM::~DataCapture4XdmaMM() {
    statusTimer_.stop();
    lostWatch_.stop();
    pollingThread_.Stop();
    recordingThread_.Stop();
    statusThread_.Stop();
    for (CaptureChannel& channel : channels_) {
        channel.StopEventWatch();
        channel.Recording().FinishTake();
    }
    log_.StopLog();
}

bool DataCapture4XdmaMM::OnPollingThread() const {
    return pollingEngine == this;
}

bool DataCapture4XdmaMM::StartCapture(const KvFrameFormat& format, eErrorCode& /*error*/,
                                      CaptureFrameCallback callback, void* userContext,
                                      char* frameBuffer) {
    return StartChannel(format, callback, nullptr, userContext, frameBuffer);
}

bool DataCapture4XdmaMM::StartCapture(const KvFrameFormat& format, eErrorCode& /*error*/,
                                      CaptureFrameCallbackEx callback, void* userContext,
                                      char* frameBuffer) {
    return StartChannel(format, nullptr, callback, userContext, frameBuffer);
}

bool DataCapture4XdmaMM::StartChannel(const KvFrameFormat& format, CaptureFrameCallback callback,
                                      CaptureFrameCallbackEx callbackEx, void* userContext,
                                      char* frameBuffer) {
    if (!ValidChannel(static_cast<int>(format.channel))) {
        return false;
    }
    const int c = static_cast<int>(format.channel);
    CaptureChannel& channel = channels_[c];
    channel.SetCallbacks(callback, callbackEx);
    if (!pollingThread_.IsRunning()) {
        pollingThread_.Start(cores_, [this] { PollingLoop(); }, "kvpcie-capture");
    }
    channel.Prepare(format, userContext, frameBuffer);
    channel.StartEventWatch(EventThreadCores(), devicePath_, realTimePolling_);
    channel.ProgramCard();
    channel.Go();
    WriteEnableMask(c, true);
    return true;
}

unsigned DataCapture4XdmaMM::PollingThreadCore::TakeCore() {
    unsigned core = 0;
    poller_.HeldCore(core);
    return core;
}

CpuCoreSource* DataCapture4XdmaMM::EventThreadCores() {
    unsigned core = 0;
    if (realTimePolling_ && pollingThread_.HeldCore(core)) {
        return &pollingThreadCore_;
    }
    return cores_;
}

void DataCapture4XdmaMM::WriteEnableMask(int c, bool on) {
    std::lock_guard<std::mutex> lock(enableMaskLock_);
    if (on) {
        enableMask_ |= 1u << c;
    } else {
        enableMask_ &= ~(1u << c);
    }
    card_->XdmaWriteRegValue(kRegCaptureEnableMask, enableMask_);
}

void DataCapture4XdmaMM::StopCapture(int c) {
    if (!ValidChannel(c) || !channels_[c].IsStarted()) {
        return;
    }
    CaptureChannel& channel = channels_[c];
    channel.StopEventWatch();
    if (channel.Recording().IsRecording()) {
        StopRecord(c);
    }
    channel.MarkStopped();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    // From the channel's own callback the polling thread cannot wait for itself: it ends, and
    // gives its core back, once the callback has returned.
    if (!AnyChannelStarted()) {
        pollingThread_.Stop();
        // A callback may have started a channel while the thread was being joined; once the
        // join has returned no callback runs, so this look is the last word.
        if (!OnPollingThread() && AnyChannelStarted()) {
            pollingThread_.Start(cores_, [this] { PollingLoop(); }, "kvpcie-capture");
        }
    }
    WriteEnableMask(c, false);
    channel.ForgetCallbacks();
}

bool DataCapture4XdmaMM::AnyChannelStarted() const {
    for (const CaptureChannel& channel : channels_) {
        if (channel.IsStarted()) {
            return true;
        }
    }
    return false;
}

bool DataCapture4XdmaMM::IsStartCapture(int c) const {
    return ValidChannel(c) && channels_[c].IsStarted();
}

void DataCapture4XdmaMM::PollingLoop() {
    pollingEngine = this;
    // Off unless asked for: a real-time thread that misbehaves can starve the whole core.
    if (realTimePolling_) {
        RaiseForLowLatency(log_, "the polling thread");
    }
    while (pollingThread_.IsRunning()) {
        for (CaptureChannel& channel : channels_) {
            channel.PollTurn();
        }
        // The card's event ends the wait at once; without one (lost, late, or a card that
        // raises none) the scan still comes every millisecond.
        pollerWake_.Wait(std::chrono::milliseconds(1));
    }
    pollingEngine = nullptr;
}

// ---------------------------------------------------------------- recording

bool DataCapture4XdmaMM::StartRecord(int c) {
    if (!ValidChannel(c)) {
        return false;
    }
    CaptureChannel& channel = channels_[c];
    // Refused before anything starts: no recording thread for a channel that is not capturing.
    if (!channel.IsStarted() || !channel.Recording().HasRecorder()) {
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(recordingThreadLock_);
        if (!recordingThread_.IsRunning()) {
            recordingThread_.Start(cores_, [this] { RecordingLoop(); }, "kvpcie-record");
        }
    }
    if (!channel.Recording().StartTake(KvPCIe::RecordRoot() + "/Capture" +
                                       QString::number(c + 1))) {
        StopRecord(c);
        return false;
    }
    return true;
}

QString DataCapture4XdmaMM::RecordTakeFolder(int c) {
    return ValidChannel(c) ? channels_[c].Recording().LastTakeFolder() : QString();
}

void DataCapture4XdmaMM::StopRecord(int c) {
    if (!ValidChannel(c)) {
        return;
    }
    channels_[c].Recording().FinishTake();
    std::lock_guard<std::mutex> lock(recordingThreadLock_);
    if (!AnyRecorderRecording()) {
        recordingThread_.Stop();
    }
}

bool DataCapture4XdmaMM::AnyRecorderRecording() {
    for (CaptureChannel& channel : channels_) {
        if (channel.Recording().IsRecording()) {
            return true;
        }
    }
    return false;
}

void DataCapture4XdmaMM::RecordingLoop() {
    while (recordingThread_.IsRunning()) {
        for (CaptureChannel& channel : channels_) {
            if (channel.Recording().Feed()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// ---------------------------------------------------------------- status data

void DataCapture4XdmaMM::SetSystemStatusCallback(int c, SystemStatusCallback callback,
                                                 void* userContext, bool enable) {
    if (!ValidChannel(c)) {
        return;
    }
    channels_[c].Status().Switch(callback, userContext, enable);
    if (!enable) {
        return;
    }
    if (!statusThread_.IsRunning()) {
        statusThread_.Start(nullptr, [this] { StatusLoop(); }, "kvpcie-status");  // not pinned
    }
    if (!statusTimer_.isActive()) {
        statusTimer_.setTimerType(Qt::PreciseTimer);
        statusTimer_.start(kStatusTickMs);
    }
}

void DataCapture4XdmaMM::StatusLoop() {
    while (statusThread_.IsRunning()) {
        for (CaptureChannel& channel : channels_) {
            channel.Status().Collect();
        }
        std::this_thread::sleep_for(kStatusPollInterval);
    }
}

void DataCapture4XdmaMM::OnSlotCaptureCmdDataTimeOut() {
    // The facade refuses to destroy the engine while this is set: a status callback that
    // closes the card would otherwise pull the engine from under this loop.
    deliveringStatus_.store(true, std::memory_order_release);
    for (CaptureChannel& channel : channels_) {
        channel.Status().Deliver();
    }
    deliveringStatus_.store(false, std::memory_order_release);
}

void DataCapture4XdmaMM::OnLostWatchTick() {
    if (lostReported_ || !card_->IsLost()) {
        return;
    }
    lostReported_ = true;
    lostWatch_.stop();
    if (lostHandler_) {
        // As in a status callback: the host may stop channels there, not destroy this engine.
        deliveringStatus_.store(true, std::memory_order_release);
        lostHandler_();
        deliveringStatus_.store(false, std::memory_order_release);
    }
}

// ---------------------------------------------------------------- settings and read-back

bool DataCapture4XdmaMM::GetCaptureStatistics(int c, KvCaptureStatistics& out) {
    if (!ValidChannel(c)) {
        return false;
    }
    out = KvCaptureStatistics{};
    channels_[c].AddTo(out);
    return true;
}

tagCaptureDelayStatusInfo* DataCapture4XdmaMM::GetCaptureDelayStatus(int c) {
    if (!ValidChannel(c)) {
        return nullptr;
    }
    const std::uint32_t block = CaptureBlock(static_cast<unsigned>(c));
    for (unsigned i = 0; i < kCardBufferCount; ++i) {
        const std::uint32_t address = block + CapBufferDelay(i);
        auto* record = reinterpret_cast<unsigned char*>(&delayStatus_[i]);
        for (int k = 0; k < 4; ++k) {
            card_->XdmaWriteRegValue(address, kDelaySelectorOrder[k] << kDelaySelectorShift);
            const std::uint32_t ticks = card_->XdmaReadReg(address) & kDelayCountMask;
            const double seconds = delayClockHz_ == 0 ? 0.0 : double(ticks) / delayClockHz_;
            // The record is packed: its doubles are not aligned, so they are stored bytewise.
            std::memcpy(record + kDelayFieldOffsets[k], &seconds, sizeof seconds);
        }
        delayStatus_[i].delayTestCount = channels_[c].DelayTestCount();
    }
    return delayStatus_.data();
}

void DataCapture4XdmaMM::SetImgDisplayDelayTest(int c, bool on) {
    if (!ValidChannel(c)) {
        return;
    }
    channels_[c].SetDelayTest(on);
    card_->XdmaWriteRegValue(kRegDelayTest, on ? kDelayTestOn : 0);
}

void DataCapture4XdmaMM::ImgSnapShot(int c) {
    if (ValidChannel(c)) {
        channels_[c].RequestSnapshot();
    }
}

void DataCapture4XdmaMM::SetCaptureFullScreenWgt(int /*channel*/, void* /*widget*/) {}

}  // namespace kvpcie::xdma
