// One capture channel: programming its register block, the scan of its ring, its buffers
// read by DMA into the host's buffer and handed to the callbacks, and its event thread.
#include "CaptureChannel.h"

#include "drivers/XdmaCardRegisters.h"
#include "XdmaChannelRegisters.h"
#include "XdmaDevice.h"

#include "platform/SystemError.h"
#include "platform/ThreadAffinity.h"

#include <chrono>
#include <cstdio>
#include <thread>

namespace kvpcie::xdma {
namespace {

// What tools such as top -H show for the event thread of each channel.
constexpr const char* kEventThreadNames[] = {"kvpcie-event0", "kvpcie-event1", "kvpcie-event2",
                                             "kvpcie-event3"};
// What the start writes to the sync mode word for syncSubMode 0, 1 and 2 of card timing.
constexpr std::uint32_t kSyncModeWords[] = {0x1, 0x101, 0x201};
// The prefix of every buffer log line: the channel, counted from 0.
constexpr const char* kPortPrefix = "采集卡端口：  ";
constexpr const char* kCaptureFailed = "采集失败";

// The channel whose turn this thread holds: a frame callback that calls back in about it must
// not wait for its own turn lock.
thread_local const CaptureChannel* channelInTurn = nullptr;

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

// Binary digits of a status word, most significant first, without leading zeros.
void FormatBinary(std::uint32_t value, char* out) {
    int length = 0;
    char reversed[33];
    do {
        reversed[length++] = static_cast<char>('0' + (value & 1));
        value >>= 1;
    } while (value != 0);
    for (int k = 0; k < length; ++k) {
        out[k] = reversed[length - 1 - k];
    }
    out[length] = '\0';
}

}  // namespace

CaptureChannel::CaptureChannel(XdmaCard& card, int channel, LogFile& log,
                               const std::atomic<bool>& saveLog, AutoResetEvent& pollerWake)
    : card_(card), channel_(channel), log_(log), saveLog_(saveLog), recording_(channel, log),
      status_(card, channel, log), pollerWake_(pollerWake) {}

std::unique_lock<std::mutex> CaptureChannel::LockTurn() {
    if (channelInTurn == this) {
        return std::unique_lock<std::mutex>();
    }
    return std::unique_lock<std::mutex>(turnLock_);
}

void CaptureChannel::SetCallbacks(CaptureFrameCallback callback,
                                  CaptureFrameCallbackEx callbackEx) {
    const auto turn = LockTurn();
    if (callback != nullptr) {
        frameCallback_ = callback;
    }
    if (callbackEx != nullptr) {
        frameCallbackEx_ = callbackEx;
    }
}

void CaptureChannel::Prepare(const KvFrameFormat& format, void* userContext, char* frameBuffer) {
    const int frameSize = static_cast<int>(
        KvFrameSizeBytes(format.pixelType, format.width, format.height, format.paramLines));
    // A restart of a recording channel finishes its take before the recorder is replaced.
    recording_.FinishTake();
    const auto turn = LockTurn();
    // Statuses from an earlier run are cleared by the programming, never delivered as new
    // frames.
    started_.store(false, std::memory_order_release);
    ++generation_;
    if (userContext != nullptr) {
        frameContext_ = userContext;
    }
    if (frameBuffer != nullptr) {
        frameBuffer_ = frameBuffer;
    }
    lastHandledBuffer_ = -1;
    counters_.ResetFrames(CaptureCounters::Clock::now());
    format_ = format;
    frameSize_ = frameSize;
    recording_.Replace(format, frameSize);
}

void CaptureChannel::ProgramCard() {
    const auto c = static_cast<unsigned>(channel_);
    const std::uint32_t block = CaptureBlock(c);
    const bool known = IsKnownPixelType(format_.pixelType);
    card_.XdmaWriteRegValue(block + kCapPixelCode,
                      known ? static_cast<std::uint32_t>(format_.pixelType) : 0);
    card_.XdmaWriteRegValue(block + kCapGeometry,
                      (static_cast<std::uint32_t>(format_.width) << 16) |
                          static_cast<std::uint32_t>(format_.height + format_.paramLines));
    card_.XdmaWriteRegValue(block + kCapBufferCount, kCardBufferCount);
    card_.XdmaWriteRegValue(block + kCapBufferSpacing, kCardBufferBytes);
    card_.XdmaWriteRegValue(block + kCapFrameBytes, known ? static_cast<std::uint32_t>(frameSize_) : 0);
    for (unsigned i = 0; i < kCardBufferCount; ++i) {
        card_.XdmaWriteRegValue(block + CapBufferAddress(i), CaptureBufferAddress(c, i));
        card_.XdmaWriteRegValue(block + CapBufferStatus(i), 0);
    }
    card_.XdmaWriteRegValue(block + kCapLinePeriod, static_cast<std::uint32_t>(format_.linePeriod));
    if (format_.captureSyncMode == 1) {
        // A frame rate of 0 would divide by zero; the card then gets no period.
        const auto rate = static_cast<std::uint32_t>(format_.frameRate);
        card_.XdmaWriteRegValue(block + kCapFramePeriod,
                          rate == 0 ? 0 : card_.XdmaReadReg(kRegTimingClockHz) / rate);
    }
    card_.XdmaWriteRegValue(block + kCapSyncMode, SyncModeWord(format_));
}

void CaptureChannel::MarkStopped() {
    const auto turn = LockTurn();
    started_.store(false, std::memory_order_release);
    ++generation_;
    counters_.framesPerSecond.store(0.0, std::memory_order_relaxed);
    frameSize_ = 0;
    delayTest_.store(false, std::memory_order_relaxed);
    delayTestCount_ = 0;
}

void CaptureChannel::ForgetCallbacks() {
    const auto turn = LockTurn();
    frameCallback_ = nullptr;
    frameCallbackEx_ = nullptr;
}

void CaptureChannel::StartEventWatch(CpuCoreSource* cores, const std::string& devicePath,
                                     bool realTime) {
    std::lock_guard<std::mutex> watch(eventWatchLock_);
    StopEventWatchLocked();
    eventThreadRealTime_ = realTime;
    const std::string path = devicePath + "\\event_" + std::to_string(channel_);
    eventFile_ = std::make_unique<EventFile>(path.c_str(), platform::kAccessRead);
    eventThread_.Start(cores, [this] { EventLoop(); }, kEventThreadNames[channel_]);
}

void CaptureChannel::StopEventWatch() {
    std::lock_guard<std::mutex> watch(eventWatchLock_);
    StopEventWatchLocked();
}

void CaptureChannel::StopEventWatchLocked() {
    // The pending read would wait for an event the card may never raise: end it first.
    if (eventFile_ != nullptr) {
        eventFile_->Cancel();
    }
    eventThread_.Stop();
}

void CaptureChannel::EventLoop() {
    const std::uint64_t openCount = card_.OpenCount();
    if (eventThreadRealTime_) {
        // A refusal is the polling thread's too, and it writes it to the log.
        platform::RaiseThisThreadToRealTime();
    }
    while (eventThread_.IsRunning()) {
        platform::SetLastError(0);
        if (eventFile_->Read(0) == 1) {
            eventObject_.Signal();
            pollerWake_.Signal();
            continue;
        }
        // A read that gave up after its time sets no error; one that failed may say that the
        // card is gone, which an idle channel would otherwise not notice.
        if (const int code = platform::LastError(); code != 0 && eventThread_.IsRunning()) {
            card_.NoteFailure(code, openCount);
        }
        // A file that fails at once (absent, removed card) must not spin a core.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void CaptureChannel::PollTurn() {
    // A card that is gone has nothing to hand over, and a removed device is not hammered.
    if (!IsStarted() || card_.IsLost()) {
        return;
    }
    std::lock_guard<std::mutex> turn(turnLock_);
    if (!IsStarted()) {
        return;
    }
    channelInTurn = this;
    ScanRing();
    channelInTurn = nullptr;
    counters_.UpdateRate(CaptureCounters::Clock::now());
}

void CaptureChannel::ScanRing() {
    const std::uint32_t block = CaptureBlock(static_cast<unsigned>(channel_));
    const bool logging = saveLog_.load(std::memory_order_relaxed);
    const std::uint32_t latestRegister = card_.XdmaReadReg(block + kCapLatestBuffer);
    const int last = lastHandledBuffer_;
    char line[512];
    if (logging) {
        std::snprintf(line, sizeof line,
                      "%s%d  \n\n *********上位机已处理完的Buff No： %d  ************* "
                      "FPGA最新准备好的Buff No : %u",
                      kPortPrefix, channel_, last, latestRegister);
        log_.WriteLog(line);
    }
    // A card answers 0 to 7; anything else is taken modulo the ring so the scan stays short.
    int latest = static_cast<int>(latestRegister % kCardBufferCount);
    if (last >= latest) {
        latest += kCardBufferCount;  // the ring has wrapped, or nothing is new
    }
    for (int n = last + 1; n <= latest; ++n) {
        const unsigned buffer = static_cast<unsigned>(n % kCardBufferCount);
        const std::uint32_t status = card_.XdmaReadReg(block + CapBufferStatus(buffer));
        if (logging) {
            char digits[33];
            FormatBinary(status, digits);
            std::snprintf(line, sizeof line,
                          "%s%d  >>>各个Buff状态 :  BuffNo: %u BuffStatus(2进制0x)： %s",
                          kPortPrefix, channel_, buffer, digits);
            log_.WriteLog(line);
        }
        if ((status & kStatusStateMask) != kStatusCaptureReady || !HandleBuffer(buffer, status)) {
            break;
        }
    }
}

bool CaptureChannel::HandleBuffer(unsigned buffer, std::uint32_t status) {
    const auto c = static_cast<unsigned>(channel_);
    const std::uint32_t statusAddress = CaptureBlock(c) + CapBufferStatus(buffer);
    const bool logging = saveLog_.load(std::memory_order_relaxed);
    char line[256];
    if (logging) {
        std::snprintf(line, sizeof line, "%s%d  开始读取 Buff %u的数据", kPortPrefix, channel_,
                      buffer);
        log_.WriteLog(line);
    }
    const bool ok = card_.XdmaReadData(CaptureBufferAddress(c, buffer),
                                 static_cast<unsigned>(frameSize_), frameBuffer_);
    if (logging) {
        std::snprintf(line, sizeof line, "%s%d  完成读取 Buff %u的数据", kPortPrefix, channel_,
                      buffer);
        log_.WriteLog(line);
    }
    lastHandledBuffer_ = static_cast<int>(buffer);
    const unsigned released = 0;
    card_.XdmaWriteReg(statusAddress, &released);
    if (logging) {
        std::snprintf(
            line, sizeof line,
            "%s%d  清除当前buff的状态(置0)： Buff%u  Addr(16进制 0x)： %x  Value(10进制): 0",
            kPortPrefix, channel_, buffer, statusAddress);
        log_.WriteLog(line);
    }
    if (!ok) {
        counters_.failed.Add();
        log_.WriteLog(kCaptureFailed);
        return true;
    }
    const bool errorFrame = (status & kStatusErrorFrame) != 0;
    const std::uint32_t generation = generation_;
    // Counted before the hand-over: a host that has the frame (a queue filled in the callback
    // and read by another thread) finds it counted. A callback that restarts the channel
    // starts the counts again, this frame's with them.
    counters_.delivered.Add();
    counters_.errorFrames.Add(errorFrame ? 1 : 0);
    counters_.lastCardBuffer.store(static_cast<std::int32_t>(buffer), std::memory_order_relaxed);
    const auto callbackStart = CaptureCounters::Clock::now();
    if (frameCallback_ != nullptr) {
        frameCallback_(channel_, frameBuffer_, frameContext_);
    } else if (frameCallbackEx_ != nullptr) {
        frameCallbackEx_(channel_, frameBuffer_, frameContext_, errorFrame);
    }
    // A callback that stopped its own channel still had its frame, and the counts stay after a
    // stop; one that restarted the channel had a frame of a run whose counts start again.
    const bool sameRun = generation_ == generation;
    if (sameRun || (generation_ == generation + 1 && !IsStarted())) {
        const auto callbackTime = CaptureCounters::Clock::now() - callbackStart;
        counters_.callbackMicrosMax.Raise(static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(callbackTime).count()));
    }
    if (!sameRun) {
        return false;  // the callback stopped or restarted its own channel: this run is over
    }
    recording_.Offer(frameBuffer_, frameSize_);
    return true;
}

void CaptureChannel::AddTo(KvCaptureStatistics& out) {
    out.framesDelivered = counters_.delivered.Get();
    out.framesFailed = counters_.failed.Get();
    out.errorFrames = counters_.errorFrames.Get();
    out.framesPerSecond = counters_.framesPerSecond.load(std::memory_order_relaxed);
    out.callbackMicrosMax = counters_.callbackMicrosMax.Get();
    out.lastCardBuffer = counters_.lastCardBuffer.load(std::memory_order_relaxed);
    out.cardLost = card_.IsLost();
    out.cardLostAtMs = card_.LostAtMs();
    recording_.AddTo(out);
    status_.AddTo(out);
}

}  // namespace kvpcie::xdma
