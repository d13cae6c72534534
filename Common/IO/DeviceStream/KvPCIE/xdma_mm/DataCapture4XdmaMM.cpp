// The capture engine's control side: channel start and stop, recording, timing read-back.
#include "DataCapture4XdmaMM.h"

#include "XdmaCardRegisters.h"
#include "XdmaDevice.h"

#include "Common/ApplicationDir.h"

#include <chrono>
#include <cstddef>
#include <cstring>
#include <thread>

namespace kvpcie::xdma {
namespace {

// What tools such as top -H show for the event thread of each channel.
constexpr const char* kEventThreadNames[] = {"kvpcie-event0", "kvpcie-event1", "kvpcie-event2",
                                             "kvpcie-event3"};
constexpr int kRecordQueueSlots = 16;
constexpr std::uint32_t kDelayTestOn = 0x10;
// What the start writes to the sync mode word for syncSubMode 0, 1 and 2 of card timing.
constexpr std::uint32_t kSyncModeWords[] = {0x1, 0x101, 0x201};
// The order in which each buffer's four timing values are read back, and where each goes.
constexpr std::uint32_t kDelaySelectorOrder[] = {3, 1, 0, 2};
constexpr std::size_t kDelayFieldOffsets[] = {
    offsetof(tagCaptureDelayStatusInfo, delaySel3), offsetof(tagCaptureDelayStatusInfo, delaySel1),
    offsetof(tagCaptureDelayStatusInfo, delaySel0), offsetof(tagCaptureDelayStatusInfo, delaySel2)};

bool IsKnownPixelType(ePixelType pixelType) {
    return pixelType >= UYVY422 && pixelType <= PIXEL32;
}

std::uint32_t SyncModeWord(const KvFrameFormat& format) {
    if (format.captureSyncMode != 1) {
        return 0;
    }
    if (format.syncSubMode >= 0 && format.syncSubMode <= 2) {
        return kSyncModeWords[format.syncSubMode];
    }
    return 0;
}

}  // namespace

DataCapture4XdmaMM::DataCapture4XdmaMM(CpuCoreSource* cores, const std::string& devicePath)
    : QObject(nullptr), cores_(cores), devicePath_(devicePath) {
    log_ = std::make_unique<LogFile>("Capture_AllChannel");
    log_->StartLog();
    connect(&statusTimer_, &QTimer::timeout, this,
            &DataCapture4XdmaMM::OnSlotCaptureCmdDataTimeOut);
    delayClockHz_ = XdmaReadReg(kRegDelayClockHz);
}

DataCapture4XdmaMM::~DataCapture4XdmaMM() {
    statusTimer_.stop();
    pollingThread_.Stop();
    recordingThread_.Stop();
    statusThread_.Stop();
    for (int c = 0; c < kChannelCount; ++c) {
        StopEventThread(c);
        // A recorder is stopped before it goes, so its thread never outlives its file.
        StopRecorder(channels_[c]);
    }
    log_->StopLog();
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
    const unsigned c = format.channel;
    Channel& state = channels_[c];
    {
        // Each form keeps the other form's callback: with both set, the plain one is called.
        const auto turn = LockTurn(static_cast<int>(c));
        if (callback != nullptr) {
            state.frameCallback = callback;
        }
        if (callbackEx != nullptr) {
            state.frameCallbackEx = callbackEx;
        }
    }
    if (!pollingThread_.IsRunning()) {
        pollingThread_.Start(cores_, [this] { PollingLoop(); }, "kvpcie-capture");
    }
    const int frameSize = static_cast<int>(
        KvFrameSizeBytes(format.pixelType, format.width, format.height, format.paramLines));
    // A restart of a recording channel stops its recorder before the recorder is replaced.
    {
        std::lock_guard<std::mutex> record(state.recordLock);
        StopRecorder(state);
    }
    {
        const auto turn = LockTurn(static_cast<int>(c));
        std::lock_guard<std::mutex> record(state.recordLock);
        // Unpolled until the card has been programmed (below): statuses from an earlier run are
        // cleared by then and never delivered as new frames.
        state.started.store(false, std::memory_order_release);
        ++state.generation;
        if (userContext != nullptr) {
            state.frameContext = userContext;
        }
        if (frameBuffer != nullptr) {
            state.frameBuffer = frameBuffer;
        }
        state.lastHandledBuffer = -1;
        state.counters.ResetFrames(CaptureCounters::Clock::now());
        state.queueLosses = LossBurst{};
        state.recorderLossesSeen = 0;  // the recorder is new
        state.recorderLosses = LossBurst{};
        state.format = format;
        state.frameSize = frameSize;
        state.recorder = std::make_unique<RecordThread>(format);
        state.recorder->SetFrameSize(frameSize);
        state.recordQueue = std::make_unique<KvCycleQueue>();
        state.recordQueue->Init(frameSize, kRecordQueueSlots);
    }
    StartEventThread(static_cast<int>(c));
    ProgramChannel(c, format, frameSize);
    state.started.store(true, std::memory_order_release);
    WriteEnableMask(static_cast<int>(c), true);
    return true;
}

void DataCapture4XdmaMM::WriteEnableMask(int c, bool on) {
    std::lock_guard<std::mutex> lock(enableMaskLock_);
    if (on) {
        enableMask_ |= 1u << c;
    } else {
        enableMask_ &= ~(1u << c);
    }
    XdmaWriteRegValue(kRegCaptureEnableMask, enableMask_);
}

void DataCapture4XdmaMM::ProgramChannel(unsigned c, const KvFrameFormat& format, int frameSize) {
    const std::uint32_t block = CaptureBlock(c);
    const bool known = IsKnownPixelType(format.pixelType);
    XdmaWriteRegValue(block + kCapPixelCode,
                      known ? static_cast<std::uint32_t>(format.pixelType) : 0);
    XdmaWriteRegValue(block + kCapGeometry,
                      (static_cast<std::uint32_t>(format.width) << 16) |
                          static_cast<std::uint32_t>(format.height + format.paramLines));
    XdmaWriteRegValue(block + kCapBufferCount, kCardBufferCount);
    XdmaWriteRegValue(block + kCapBufferSpacing, kCardBufferBytes);
    XdmaWriteRegValue(block + kCapFrameBytes, known ? static_cast<std::uint32_t>(frameSize) : 0);
    for (unsigned i = 0; i < kCardBufferCount; ++i) {
        XdmaWriteRegValue(block + CapBufferAddress(i), CaptureBufferAddress(c, i));
        XdmaWriteRegValue(block + CapBufferStatus(i), 0);
    }
    XdmaWriteRegValue(block + kCapLinePeriod, static_cast<std::uint32_t>(format.linePeriod));
    if (format.captureSyncMode == 1) {
        // A frame rate of 0 would divide by zero; the card then gets no period.
        const auto rate = static_cast<std::uint32_t>(format.frameRate);
        XdmaWriteRegValue(block + kCapFramePeriod,
                          rate == 0 ? 0 : XdmaReadReg(kRegTimingClockHz) / rate);
    }
    XdmaWriteRegValue(block + kCapSyncMode, SyncModeWord(format));
}

void DataCapture4XdmaMM::StopCapture(int c) {
    if (!ValidChannel(c) || !channels_[c].started.load(std::memory_order_acquire)) {
        return;
    }
    Channel& state = channels_[c];
    StopEventThread(c);
    if (state.recorder != nullptr && state.recorder->IsRecording()) {
        StopRecord(c);
    }
    {
        const auto turn = LockTurn(c);
        state.started.store(false, std::memory_order_release);
        ++state.generation;
        state.counters.framesPerSecond.store(0.0, std::memory_order_relaxed);
        state.frameSize = 0;
        state.delayTest = false;
        state.delayTestCount = 0;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    bool anyStarted = false;
    for (const Channel& other : channels_) {
        anyStarted = anyStarted || other.started.load(std::memory_order_acquire);
    }
    // From the channel's own callback the polling thread cannot wait for itself: it ends, and
    // gives its core back, once the callback has returned.
    if (!anyStarted) {
        pollingThread_.Stop();
    }
    WriteEnableMask(c, false);
    const auto turn = LockTurn(c);
    state.frameCallback = nullptr;
    state.frameCallbackEx = nullptr;
}

bool DataCapture4XdmaMM::IsStartCapture(int c) const {
    return ValidChannel(c) && channels_[c].started.load(std::memory_order_acquire);
}

void DataCapture4XdmaMM::StartEventThread(int c) {
    StopEventThread(c);
    Channel& state = channels_[c];
    const std::string path = devicePath_ + "\\event_" + std::to_string(c);
    state.eventFile = std::make_unique<EventFile>(path.c_str(), platform::kAccessRead);
    state.eventThread.Start(cores_, [this, c] { EventLoop(c); }, kEventThreadNames[c]);
}

void DataCapture4XdmaMM::StopEventThread(int c) {
    Channel& state = channels_[c];
    // The pending read would wait for an event the card may never raise: end it first.
    if (state.eventFile != nullptr) {
        state.eventFile->Cancel();
    }
    state.eventThread.Stop();
}

void DataCapture4XdmaMM::EventLoop(int c) {
    Channel& state = channels_[c];
    while (state.eventThread.IsRunning()) {
        if (state.eventFile->Read(0) == 1) {
            state.eventObject.Signal();
        } else {
            // A file that fails at once (absent, removed card) must not spin a core.
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}

// ---------------------------------------------------------------- recording

bool DataCapture4XdmaMM::StartRecord(int c) {
    if (!ValidChannel(c)) {
        return false;
    }
    Channel& state = channels_[c];
    // Refused before anything starts: no recording thread for a channel that is not capturing.
    if (!state.started.load(std::memory_order_acquire) || state.recorder == nullptr) {
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(recordingThreadLock_);
        if (!recordingThread_.IsRunning()) {
            recordingThread_.Start(cores_, [this] { RecordingLoop(); }, "kvpcie-record");
        }
    }
    {
        // Frames that came after an earlier take ended belong to no take.
        std::lock_guard<std::mutex> record(state.recordLock);
        StopRecorder(state);
        state.counters.notQueuedForRecording.Add(
            static_cast<std::uint64_t>(state.recordQueue->Size()));
        state.recordQueue->Reset();
    }
    state.recorder->SetRecordDir(ApplicationDir() + "/VideoRecord/Capture" +
                                 QString::number(c + 1));
    state.recorder->StartRecord();
    if (state.recorder->TakeFailed()) {
        StopRecord(c);
        return false;
    }
    return true;
}

void DataCapture4XdmaMM::StopRecord(int c) {
    if (!ValidChannel(c)) {
        return;
    }
    {
        std::lock_guard<std::mutex> record(channels_[c].recordLock);
        StopRecorder(channels_[c]);
    }
    std::lock_guard<std::mutex> lock(recordingThreadLock_);
    if (!AnyRecorderRecording()) {
        recordingThread_.Stop();
    }
}

void DataCapture4XdmaMM::StopRecorder(Channel& state) {
    // The frames still on their way (in the engine's queue and the recorder's) are written
    // before it returns.
    if (state.recorder != nullptr &&
        (state.recorder->IsRecording() || state.recorder->isRunning())) {
        state.recorder->StopRecord(state.recordQueue.get());
    }
}

bool DataCapture4XdmaMM::AnyRecorderRecording() {
    for (const Channel& state : channels_) {
        if (state.recorder != nullptr && state.recorder->IsRecording()) {
            return true;
        }
    }
    return false;
}

void DataCapture4XdmaMM::RecordingLoop() {
    while (recordingThread_.IsRunning()) {
        for (Channel& state : channels_) {
            FeedRecorder(state);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void DataCapture4XdmaMM::FeedRecorder(Channel& state) {
    bool fed = false;
    {
        std::lock_guard<std::mutex> record(state.recordLock);
        if (state.recorder == nullptr || !state.recorder->IsRecording() ||
            state.recordQueue == nullptr || state.recordQueue->Size() == 0) {
            return;
        }
        // A slot handed out by PopPtr stays intact until the next PopPtr, and PushFrame copies
        // it at once.
        while (const char* frame = state.recordQueue->PopPtr()) {
            state.recorder->PushFrame(frame);
        }
        // Frames the recorder had no room for, or could not write.
        const std::uint64_t losses = state.recorder->FramesLost();
        const int c = static_cast<int>(&state - channels_.data());
        LogLossBurst(*log_, state.recorderLosses, losses - state.recorderLossesSeen, c,
                     "the recorder cannot keep up (a full or slow disk): frames are lost",
                     "frames were lost by the recorder");
        state.recorderLossesSeen = losses;
        fed = true;
    }
    if (fed) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// ---------------------------------------------------------------- settings and read-back

bool DataCapture4XdmaMM::GetCaptureStatistics(int c, KvCaptureStatistics& out) {
    if (!ValidChannel(c)) {
        return false;
    }
    Channel& state = channels_[c];
    const CaptureCounters& counts = state.counters;
    out = KvCaptureStatistics{};
    out.framesDelivered = counts.delivered.Get();
    out.framesFailed = counts.failed.Get();
    out.errorFrames = counts.errorFrames.Get();
    out.framesNotRecorded = counts.notQueuedForRecording.Get();
    // The recorder is replaced under this lock (a restart), and this may be any thread.
    std::lock_guard<std::mutex> record(state.recordLock);
    if (state.recorder != nullptr) {
        out.framesRecorded = state.recorder->FramesWritten();
        out.bytesRecorded = state.recorder->BytesWritten();
        out.framesNotRecorded += state.recorder->FramesLost();
    }
    out.framesPerSecond = counts.framesPerSecond.load(std::memory_order_relaxed);
    out.callbackMicrosMax = counts.callbackMicrosMax.Get();
    out.lastCardBuffer = counts.lastCardBuffer.load(std::memory_order_relaxed);
    out.statusBytesDelivered = counts.statusBytesDelivered.Get();
    out.statusBytesDropped = counts.statusBytesDropped.Get();
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
            XdmaWriteRegValue(address, kDelaySelectorOrder[k] << kDelaySelectorShift);
            const std::uint32_t ticks = XdmaReadReg(address) & kDelayCountMask;
            const double seconds = delayClockHz_ == 0 ? 0.0 : double(ticks) / delayClockHz_;
            // The record is packed: its doubles are not aligned, so they are stored bytewise.
            std::memcpy(record + kDelayFieldOffsets[k], &seconds, sizeof seconds);
        }
        delayStatus_[i].delayTestCount = channels_[c].delayTestCount;
    }
    return delayStatus_.data();
}

void DataCapture4XdmaMM::SetImgDisplayDelayTest(int c, bool on) {
    if (!ValidChannel(c)) {
        return;
    }
    channels_[c].delayTest = on;
    XdmaWriteRegValue(kRegDelayTest, on ? kDelayTestOn : 0);
}

void DataCapture4XdmaMM::ImgSnapShot(int c) {
    if (ValidChannel(c)) {
        channels_[c].snapshotRequest = true;
    }
}

void DataCapture4XdmaMM::SetCaptureFullScreenWgt(int /*channel*/, void* /*widget*/) {}

}  // namespace kvpcie::xdma
