// The inject engine's control side: channel start and stop, the parameter line, the timing
// read-back and the display hook.
#include "DataInject4XdmaMM.h"

#include "InjectFormat.h"
#include "XdmaCardRegisters.h"
#include "XdmaDevice.h"

#include <KvPCIeInjectSdk/GLWidget.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <thread>

namespace kvpcie::xdma {
namespace {

constexpr int kInjectQueueSlots = 16;  // holds 15 frames
constexpr int kInjectQueueLimit = kInjectQueueSlots - 1;
// The card settles a newly programmed channel, and then the worker, before frames flow.
constexpr std::chrono::milliseconds kChannelSettleTime{50};
// What the start writes to the sync mode word for syncSubMode 0, 1 and 2 of mode 2.
constexpr std::uint32_t kExternalSyncWords[] = {0x002, 0x102, 0x202};
// The order in which each buffer's four timing values are read back, and where each goes.
constexpr std::uint32_t kDelaySelectorOrder[] = {3, 1, 2, 0};
constexpr std::size_t kDelayFieldOffsets[] = {
    offsetof(tagInjectDelayStatusInfo, delaySel3), offsetof(tagInjectDelayStatusInfo, delaySel1),
    offsetof(tagInjectDelayStatusInfo, delaySel2), offsetof(tagInjectDelayStatusInfo, delaySel0)};

std::uint32_t InjectSyncModeWord(const KvFrameFormat& format) {
    switch (format.injectSyncMode) {
        case 1:
            return 1;
        case 2:
            if (format.syncSubMode >= 0 && format.syncSubMode <= 2) {
                return kExternalSyncWords[format.syncSubMode];
            }
            return 0;
        default:
            return 0;
    }
}

}  // namespace

DataInject4XdmaMM::DataInject4XdmaMM(CpuCoreSource* cores) : QObject(nullptr), cores_(cores) {
    for (std::atomic<bool>& sent : cmdSent_) {
        sent.store(true, std::memory_order_relaxed);
    }
    logAllChannel_ = std::make_unique<LogFile>("Inject_AllChannel");
    logAllChannel_->StartLog();
    logReadFile_ = std::make_unique<LogFile>("InjectReadFile");
    logReadFile_->StartLog();
    clockFreq_ = XdmaReadReg(kRegDelayClockHz);
}

DataInject4XdmaMM::~DataInject4XdmaMM() {
    StopThread_InjectData();
    StopCommandWorker();
    logAllChannel_->StopLog();
    logReadFile_->StopLog();
}

bool DataInject4XdmaMM::StartInject(const KvFrameFormat& format, const char* frameData,
                                    eErrorCode& error) {
    if (!ValidChannel(static_cast<int>(format.channel)) || frameData == nullptr) {
        return false;
    }
    const unsigned c = format.channel;
    Channel& state = channels_[c];
    if (!state.injecting.load(std::memory_order_acquire)) {
        if (!IsInjectFormatAcceptable(format, state.paramSimulate) || !InitInjectChannel(format)) {
            return false;
        }
        std::this_thread::sleep_for(kChannelSettleTime);
        {
            std::lock_guard<std::mutex> turn(state.turnLock);
            state.counters.ResetFrames();
            state.expectedRelease.reset();
            state.sawBusy = false;
            state.quietUntil = {};
            state.lastBufferIndex = -1;
            state.injecting.store(true, std::memory_order_release);
        }
        if (!injectThreadStarted_) {
            std::this_thread::sleep_for(kChannelSettleTime);
            StartThread_InjectData();
            injectThreadStarted_ = true;
        }
        injectChannelMask_ |= 1u << c;
        XdmaWriteRegValue(kRegInjectEnableMask, injectChannelMask_);
    }
    // Only this thread creates or drops the queue, so it stays put while we use it.
    KvCycleQueue& queue = *state.queue;
    if (queue.Size() >= kInjectQueueLimit) {
        state.counters.refused.Add();
        error = ERR_QUEUE_FULL;
        return false;
    }
    int full = 0;
    if (!queue.Push(frameData, state.frameSize, full)) {
        return false;
    }
    state.counters.queued.Add();
    return true;
}

bool DataInject4XdmaMM::InitInjectChannel(const KvFrameFormat& format) {
    const unsigned c = format.channel;
    Channel& state = channels_[c];
    const int bytesPerPixel = InjectBytesPerPixel(format.pixelType);
    const int imageSize = bytesPerPixel * format.width * (format.height + format.paramLines);
    const int frameSize = imageSize + (state.paramSimulate ? bytesPerPixel * format.width : 0);
    // A queue that cannot be had refuses the start before the card is touched, rather than
    // leaving a channel that can take no frame.
    auto queue = std::make_unique<KvCycleQueue>();
    if (!queue->Init(frameSize, kInjectQueueSlots)) {
        return false;
    }
    const int transferSize = (frameSize + static_cast<int>(kInjTransferGranule) - 1) &
                             ~(static_cast<int>(kInjTransferGranule) - 1);
    const int lines = format.height + format.paramLines + (state.paramSimulate ? 1 : 0);
    {
        std::lock_guard<std::mutex> turn(state.turnLock);
        state.hasFormat = true;
        state.format = format;
        state.imageSize = imageSize;
        state.frameSize = frameSize;
        state.queue = std::move(queue);
        state.newestFrame = nullptr;
        state.transferSize = transferSize;
    }

    const std::uint32_t block = InjectBlock(c);
    XdmaWriteRegValue(block + kInjPixelCode, InjectPixelCode(format.pixelType));
    XdmaWriteRegValue(block + kInjGeometry, static_cast<std::uint32_t>(format.width) << 16 |
                                                static_cast<std::uint32_t>(lines));
    XdmaWriteRegValue(block + kInjBufferCount, kCardBufferCount);
    XdmaWriteRegValue(block + kInjTransferBytes, static_cast<std::uint32_t>(transferSize));
    for (unsigned b = 0; b < kCardBufferCount; ++b) {
        XdmaWriteRegValue(block + InjBufferAddress(b), InjectBufferAddress(c, b));
        XdmaWriteRegValue(block + InjBufferStatus(b), 0);
    }
    XdmaWriteRegValue(block + kInjSyncMode, InjectSyncModeWord(format));
    const std::uint32_t framePeriod =
        XdmaReadReg(kRegTimingClockHz) / static_cast<std::uint32_t>(format.frameRate);
    XdmaWriteRegValue(block + kInjLinePeriod, static_cast<std::uint32_t>(format.linePeriod));
    XdmaWriteRegValue(block + kInjFramePeriod, framePeriod);
    return true;
}

void DataInject4XdmaMM::StopInject(int channel) {
    if (!ValidChannel(channel)) {
        return;
    }
    Channel& state = channels_[channel];
    if (!state.injecting.load(std::memory_order_acquire)) {
        return;
    }
    injectChannelMask_ &= ~(1u << state.format.channel);
    XdmaWriteRegValue(kRegInjectEnableMask, injectChannelMask_);
    state.injecting.store(false, std::memory_order_release);
    {
        std::lock_guard<std::mutex> turn(state.turnLock);
        state.paramSimulate = false;
        state.lastBufferIndex = -1;
        state.imageSize = 0;
        state.frameSize = 0;
        state.transferSize = 0;
        state.frameCounter = 0;
        if (state.queue != nullptr) {
            state.counters.droppedAtStop.Add(static_cast<std::uint64_t>(state.queue->Size()));
        }
        state.queue.reset();
        state.newestFrame = nullptr;
    }
    std::this_thread::sleep_for(kChannelSettleTime);
    for (const Channel& other : channels_) {
        if (other.injecting.load(std::memory_order_acquire)) {
            return;
        }
    }
    StopThread_InjectData();
    injectThreadStarted_ = false;
}

bool DataInject4XdmaMM::IsStartInject(int channel) const {
    return ValidChannel(channel) && channels_[channel].injecting.load(std::memory_order_acquire);
}

void DataInject4XdmaMM::UpdateParamSimulate(int channel, bool enable, tagThermalImgParams params) {
    if (!ValidChannel(channel)) {
        return;
    }
    Channel& state = channels_[channel];
    std::lock_guard<std::mutex> turn(state.turnLock);
    state.paramSimulate = enable;
    state.hasThermalParams = true;
    state.thermalParams = params;
}

tagInjectDelayStatusInfo* DataInject4XdmaMM::GetInjectDelayStatus(int channel) {
    if (!ValidChannel(channel)) {
        return nullptr;
    }
    const Channel& state = channels_[channel];
    // A channel never started reads channel 0's registers.
    const unsigned c = state.hasFormat ? state.format.channel : 0;
    const std::uint32_t block = InjectBlock(c);
    for (unsigned b = 0; b < kCardBufferCount; ++b) {
        auto* record = reinterpret_cast<unsigned char*>(&delayStatus_[b]);
        for (std::size_t i = 0; i < std::size(kDelaySelectorOrder); ++i) {
            const std::uint32_t address = block + InjBufferDelay(b);
            XdmaWriteRegValue(address, kDelaySelectorOrder[i] << kDelaySelectorShift);
            const std::uint32_t count = XdmaReadReg(address) & kDelayCountMask;
            // No clock (no card) divides by zero on purpose: the values read as infinite or
            // not a number rather than as a plausible time.
            const double seconds = static_cast<double>(count) / static_cast<double>(clockFreq_);
            std::memcpy(record + kDelayFieldOffsets[i], &seconds, sizeof seconds);
        }
    }
    return delayStatus_.data();
}

bool DataInject4XdmaMM::GetInjectStatistics(int channel, KvInjectStatistics& out) {
    if (!ValidChannel(channel)) {
        return false;
    }
    Channel& state = channels_[channel];
    const InjectCounters& counts = state.counters;
    out = KvInjectStatistics{};
    out.framesQueued = counts.queued.Get();
    out.framesRefused = counts.refused.Get();
    out.framesToCard = counts.toCard.Get();
    out.transfersFailed = counts.transfersFailed.Get();
    out.framesDroppedAtStop = counts.droppedAtStop.Get();
    out.periodsWithoutFrame = counts.periodsWithoutFrame.Get();
    {
        // The queue is replaced only under the turn lock.
        std::lock_guard<std::mutex> turn(state.turnLock);
        out.framesWaiting =
            state.queue != nullptr ? static_cast<std::uint32_t>(state.queue->Size()) : 0;
    }
    const CommandCounters& commands = cmdCounters_[static_cast<std::size_t>(channel)];
    out.commandsSent = commands.sent.Get();
    out.commandsNotSentInTime = commands.notSentInTime.Get();
    out.commandsReplaced = commands.replaced.Get();
    return true;
}

void DataInject4XdmaMM::SetInjectFullScreenWgt(int channel, void* widget) {
    if (!ValidChannel(channel) || widget == nullptr) {
        return;
    }
    const Channel& state = channels_[channel];
    const KvFrameFormat format = state.hasFormat ? state.format : KvFrameFormat();
    static_cast<GLWidget*>(widget)->SetImageSize(format.width, format.height);
}

void DataInject4XdmaMM::StartThread_InjectData() {
    injectThread_.Start(cores_, [this] { ThreadFun_InjectData(); }, "kvpcie-inject");
}

void DataInject4XdmaMM::StopThread_InjectData() {
    injectThread_.Stop();
}

}  // namespace kvpcie::xdma
