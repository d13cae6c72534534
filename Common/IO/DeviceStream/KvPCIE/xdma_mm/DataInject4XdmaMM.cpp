// The inject engine: its worker, the enable mask, and the operations that start, feed, stop
// and read back its four channels and hand commands to the command channel.
#include "DataInject4XdmaMM.h"

#include "InjectFormat.h"
#include "LowLatencySetting.h"
#include "XdmaDevice.h"
#include "drivers/XdmaCardRegisters.h"

#include <chrono>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <thread>

namespace kvpcie::xdma {
namespace {

// The card settles a newly programmed channel, and then the worker, before frames flow.
constexpr std::chrono::milliseconds kChannelSettleTime{50};
constexpr std::chrono::microseconds kIdlePause{250};
// The order in which each buffer's four timing values are read back, and where each goes.
constexpr std::uint32_t kDelaySelectorOrder[] = {3, 1, 2, 0};
constexpr std::size_t kDelayFieldOffsets[] = {
    offsetof(tagInjectDelayStatusInfo, delaySel3), offsetof(tagInjectDelayStatusInfo, delaySel1),
    offsetof(tagInjectDelayStatusInfo, delaySel2), offsetof(tagInjectDelayStatusInfo, delaySel0)};

}  // namespace

DataInject4XdmaMM::DataInject4XdmaMM(std::shared_ptr<XdmaCard> card, CpuCoreSource* cores)
    : QObject(nullptr),
      card_(std::move(card)),
      cores_(cores),
      realTimeWorker_(LowLatencyRequested()),
      logAllChannel_("Inject_AllChannel"),
      logReadFile_("InjectReadFile"),
      commands_(*card_, cores) {
    logAllChannel_.StartLog();
    logReadFile_.StartLog();
    clockFreq_ = card_->XdmaReadReg(kRegDelayClockHz);
}

DataInject4XdmaMM::~DataInject4XdmaMM() {
    injectThread_.Stop();
    commands_.StopWorker();
    logAllChannel_.StopLog();
    logReadFile_.StopLog();
}

bool DataInject4XdmaMM::StartInject(const KvFrameFormat& format, const char* frameData,
                                    eErrorCode& error) {
    if (!ValidChannel(static_cast<int>(format.channel)) || frameData == nullptr) {
        return false;
    }
    const unsigned c = format.channel;
    InjectChannel& channel = channels_[c];
    if (!channel.IsInjecting()) {
        if (!IsInjectFormatAcceptable(format, channel.ParamSimulate()) ||
            !channel.Program(format)) {
            return false;
        }
        std::this_thread::sleep_for(kChannelSettleTime);
        channel.BeginRun();
        if (!injectThreadStarted_) {
            std::this_thread::sleep_for(kChannelSettleTime);
            injectThread_.Start(cores_, [this] { WorkerLoop(); }, "kvpcie-inject");
            injectThreadStarted_ = true;
        }
        injectChannelMask_ |= 1u << c;
        card_->XdmaWriteRegValue(kRegInjectEnableMask, injectChannelMask_);
    }
    return channel.Queue(frameData, error);
}

void DataInject4XdmaMM::StopInject(int c) {
    if (!ValidChannel(c) || !channels_[c].IsInjecting()) {
        return;
    }
    injectChannelMask_ &= ~(1u << c);
    card_->XdmaWriteRegValue(kRegInjectEnableMask, injectChannelMask_);
    channels_[c].Stop();
    std::this_thread::sleep_for(kChannelSettleTime);
    for (const InjectChannel& other : channels_) {
        if (other.IsInjecting()) {
            return;
        }
    }
    injectThread_.Stop();
    injectThreadStarted_ = false;
}

bool DataInject4XdmaMM::IsStartInject(int c) const {
    return ValidChannel(c) && channels_[c].IsInjecting();
}

void DataInject4XdmaMM::WorkerLoop() {
    // The card paces the frames; the worker refills a buffer as soon as it comes free. It does
    // not spin while it waits (a yielding loop kept a core busy for one channel at 25 frames
    // per second): the card releases one buffer per frame period, so after a release the
    // worker sleeps until shortly before the next one is due, then looks every quarter of a
    // millisecond. A buffer is still refilled well within a millisecond of its release.
    using Clock = InjectChannel::Clock;
    if (realTimeWorker_) {
        RaiseForLowLatency(logAllChannel_, "the inject worker");
    }
    while (injectThread_.IsRunning()) {
        const Clock::time_point now = Clock::now();
        Clock::time_point wake = Clock::time_point::max();
        bool handedOver = false;
        for (InjectChannel& channel : channels_) {
            handedOver = channel.Serve(now, wake) || handedOver;
        }
        if (!handedOver) {
            // No channel to wait for (they are being stopped): look again after a pause.
            std::this_thread::sleep_until(wake == Clock::time_point::max() ? now + kIdlePause
                                                                           : wake);
        }
    }
}

void DataInject4XdmaMM::UpdateParamSimulate(int c, bool enable, tagThermalImgParams params) {
    if (ValidChannel(c)) {
        channels_[c].SetParamSimulate(enable, params);
    }
}

tagInjectDelayStatusInfo* DataInject4XdmaMM::GetInjectDelayStatus(int channel) {
    if (!ValidChannel(channel)) {
        return nullptr;
    }
    const InjectChannel& state = channels_[channel];
    // A channel never started reads channel 0's registers.
    const unsigned c = state.HasFormat() ? state.Format().channel : 0;
    const std::uint32_t block = InjectBlock(c);
    for (unsigned b = 0; b < kCardBufferCount; ++b) {
        auto* record = reinterpret_cast<unsigned char*>(&delayStatus_[b]);
        for (std::size_t i = 0; i < std::size(kDelaySelectorOrder); ++i) {
            const std::uint32_t address = block + InjBufferDelay(b);
            card_->XdmaWriteRegValue(address, kDelaySelectorOrder[i] << kDelaySelectorShift);
            const std::uint32_t count = card_->XdmaReadReg(address) & kDelayCountMask;
            // No clock (no card) divides by zero on purpose: the values read as infinite or
            // not a number rather than as a plausible time.
            const double seconds = static_cast<double>(count) / static_cast<double>(clockFreq_);
            std::memcpy(record + kDelayFieldOffsets[i], &seconds, sizeof seconds);
        }
    }
    return delayStatus_.data();
}

bool DataInject4XdmaMM::WriteControlCmd(int channel, QByteArray command) {
    // Longer commands would spill into the control word's start bit.
    if (!ValidChannel(channel) || command.size() > kCommandMaxBytes) {
        return false;
    }
    return commands_.Write(static_cast<unsigned>(channel), std::move(command));
}

bool DataInject4XdmaMM::GetInjectStatistics(int c, KvInjectStatistics& out) {
    if (!ValidChannel(c)) {
        return false;
    }
    out = KvInjectStatistics{};
    channels_[c].AddTo(out);
    commands_.AddTo(static_cast<unsigned>(c), out);
    return true;
}

void DataInject4XdmaMM::SetInjectFullScreenWgt(
    int c, const std::function<void(int width, int height)>& setSize) {
    if (!ValidChannel(c) || !setSize) {
        return;
    }
    const InjectChannel& state = channels_[c];
    const KvFrameFormat format = state.HasFormat() ? state.Format() : KvFrameFormat();
    setSize(format.width, format.height);
}

}  // namespace kvpcie::xdma
