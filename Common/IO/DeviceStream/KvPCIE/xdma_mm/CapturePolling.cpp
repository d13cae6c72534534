// The capture engine's polling thread: every millisecond, each started channel's ready
// buffers are read by DMA into the host's buffer, released and handed to the callbacks.
#include "DataCapture4XdmaMM.h"

#include "XdmaDevice.h"

#include <chrono>
#include <cstdio>
#include <thread>

namespace kvpcie::xdma {
namespace {

// The prefix of every buffer log line: the channel, counted from 0.
constexpr const char* kPortPrefix = "采集卡端口：  ";
constexpr const char* kCaptureFailed = "采集失败";

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

// Which engine's polling thread this is, and whose turn it holds: a frame callback that calls
// back in must not wait for its own turn lock or join its own thread.
thread_local const DataCapture4XdmaMM* pollingEngine = nullptr;
thread_local int channelInTurn = -1;

}  // namespace

bool DataCapture4XdmaMM::OnPollingThread() const {
    return pollingEngine == this;
}

std::unique_lock<std::mutex> DataCapture4XdmaMM::LockTurn(int c) {
    if (pollingEngine == this && channelInTurn == c) {
        return std::unique_lock<std::mutex>();
    }
    return std::unique_lock<std::mutex>(channels_[c].turnLock);
}

void DataCapture4XdmaMM::PollingLoop() {
    pollingEngine = this;
    while (pollingThread_.IsRunning()) {
        for (int c = 0; c < kChannelCount; ++c) {
            Channel& state = channels_[c];
            if (!state.started.load(std::memory_order_acquire)) {
                continue;
            }
            std::lock_guard<std::mutex> turn(state.turnLock);
            if (state.started.load(std::memory_order_acquire)) {
                channelInTurn = c;
                PollChannel(c);
                channelInTurn = -1;
                state.counters.UpdateRate(CaptureCounters::Clock::now());
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    pollingEngine = nullptr;
}

void DataCapture4XdmaMM::PollChannel(int c) {
    Channel& state = channels_[c];
    const std::uint32_t block = CaptureBlock(static_cast<unsigned>(c));
    const bool logging = saveLog_.load(std::memory_order_relaxed);
    const std::uint32_t latestRegister = XdmaReadReg(block + kCapLatestBuffer);
    const int last = state.lastHandledBuffer;
    char line[512];
    if (logging) {
        std::snprintf(line, sizeof line,
                      "%s%d  \n\n *********上位机已处理完的Buff No： %d  ************* "
                      "FPGA最新准备好的Buff No : %u",
                      kPortPrefix, c, last, latestRegister);
        log_->WriteLog(line);
    }
    // A card answers 0 to 7; anything else is taken modulo the ring so the scan stays short.
    int latest = static_cast<int>(latestRegister % kCardBufferCount);
    if (last >= latest) {
        latest += kCardBufferCount;  // the ring has wrapped, or nothing is new
    }
    for (int n = last + 1; n <= latest; ++n) {
        const unsigned buffer = static_cast<unsigned>(n % kCardBufferCount);
        const std::uint32_t status = XdmaReadReg(block + CapBufferStatus(buffer));
        if (logging) {
            char digits[33];
            FormatBinary(status, digits);
            std::snprintf(line, sizeof line,
                          "%s%d  >>>各个Buff状态 :  BuffNo: %u BuffStatus(2进制0x)： %s",
                          kPortPrefix, c, buffer, digits);
            log_->WriteLog(line);
        }
        if ((status & kStatusStateMask) != kStatusCaptureReady ||
            !HandleBuffer(c, state, buffer, status)) {
            break;
        }
    }
}

bool DataCapture4XdmaMM::HandleBuffer(int c, Channel& state, unsigned buffer,
                                      std::uint32_t status) {
    const std::uint32_t statusAddress =
        CaptureBlock(static_cast<unsigned>(c)) + CapBufferStatus(buffer);
    const bool logging = saveLog_.load(std::memory_order_relaxed);
    char line[256];
    if (logging) {
        std::snprintf(line, sizeof line, "%s%d  开始读取 Buff %u的数据", kPortPrefix, c, buffer);
        log_->WriteLog(line);
    }
    const bool ok = XdmaReadData(CaptureBufferAddress(static_cast<unsigned>(c), buffer),
                                 static_cast<unsigned>(state.frameSize), state.frameBuffer);
    if (logging) {
        std::snprintf(line, sizeof line, "%s%d  完成读取 Buff %u的数据", kPortPrefix, c, buffer);
        log_->WriteLog(line);
    }
    state.lastHandledBuffer = static_cast<int>(buffer);
    const unsigned released = 0;
    XdmaWriteReg(statusAddress, &released);
    if (logging) {
        std::snprintf(
            line, sizeof line,
            "%s%d  清除当前buff的状态(置0)： Buff%u  Addr(16进制 0x)： %x  Value(10进制): 0",
            kPortPrefix, c, buffer, statusAddress);
        log_->WriteLog(line);
    }
    CaptureCounters& counts = state.counters;
    if (!ok) {
        counts.failed.Add();
        log_->WriteLog(kCaptureFailed);
        return true;
    }
    const bool errorFrame = (status & kStatusErrorFrame) != 0;
    const std::uint32_t generation = state.generation;
    const auto callbackStart = CaptureCounters::Clock::now();
    if (state.frameCallback != nullptr) {
        state.frameCallback(c, state.frameBuffer, state.frameContext);
    } else if (state.frameCallbackEx != nullptr) {
        state.frameCallbackEx(c, state.frameBuffer, state.frameContext, errorFrame);
    }
    // A callback that stopped its own channel still had its frame, and the counts stay after a
    // stop; one that restarted the channel had a frame of a run whose counts start again.
    const bool sameRun = state.generation == generation;
    if (sameRun || (state.generation == generation + 1 &&
                    !state.started.load(std::memory_order_acquire))) {
        const auto callbackTime = CaptureCounters::Clock::now() - callbackStart;
        counts.callbackMicrosMax.Raise(static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(callbackTime).count()));
        counts.delivered.Add();
        counts.errorFrames.Add(errorFrame ? 1 : 0);
    }
    if (!sameRun) {
        return false;  // the callback stopped or restarted its own channel: this run is over
    }
    counts.lastCardBuffer.store(static_cast<std::int32_t>(buffer), std::memory_order_relaxed);
    if (state.recorder != nullptr && state.recorder->IsRecording()) {
        int full = 0;
        const bool queued = state.recordQueue->Push(state.frameBuffer, state.frameSize, full);
        if (!queued) {
            counts.notQueuedForRecording.Add();
        }
        LogLossBurst(*log_, state.queueLosses, !queued, c,
                     "the recording queue is full: frames are not recorded",
                     "frames were not recorded");
    }
    return true;
}

}  // namespace kvpcie::xdma
