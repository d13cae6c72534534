// The card's control command channel: the latest command of each channel, handed to the
// channel's mailbox by one worker when the card is free.
#pragma once

#include "StreamCounters.h"
#include "XdmaDevice.h"
#include "XdmaChannelRegisters.h"

#include "Common/CpuCoreSource.h"
#include "Common/PinnedWorker.h"

#include <KvPCIeInjectSdk/KvPCIeStatistics.h>

#include <QByteArray>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace kvpcie::xdma {

// Write may be called from any thread; the worker starts with the first command.
class ControlCommandChannel {
public:
    ControlCommandChannel(XdmaCard& card, CpuCoreSource* cores);
    ~ControlCommandChannel() { StopWorker(); }
    ControlCommandChannel(const ControlCommandChannel&) = delete;
    ControlCommandChannel& operator=(const ControlCommandChannel&) = delete;

    // True when the command reached the card's mailbox within 40 ms. A false result leaves the
    // command pending until it goes out or a newer one for the channel replaces it. The
    // caller has checked the channel and the length.
    bool Write(unsigned channel, QByteArray command);
    void StopWorker();

    void AddTo(unsigned channel, KvInjectStatistics& out) const;

private:
    void WorkerLoop();
    // Writes the channel's pending command when the card is free; true when it went out.
    bool SendPending(unsigned channel);

    XdmaCard& card_;
    CpuCoreSource* const cores_;
    std::array<QByteArray, kChannelCount> pending_;
    std::array<std::atomic<bool>, kChannelCount> sent_{};
    // Counts the commands handed in per channel, so that a command replaced while the worker
    // sent it is not reported as sent.
    std::array<std::uint64_t, kChannelCount> generation_{};
    std::array<CommandCounters, kChannelCount> counters_;
    std::mutex lock_;
    std::condition_variable wakeUp_;
    std::mutex doneLock_;
    std::condition_variable done_;
    std::atomic<bool> run_{false};
    PinnedWorker worker_;
};

}  // namespace kvpcie::xdma
