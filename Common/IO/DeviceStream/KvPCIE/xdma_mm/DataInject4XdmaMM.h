// The inject engine of an XDMA card: up to four channels of host frames queued and handed to
// the card's buffer rings for playout, the buffers' timing read-back, and the card's control
// command channel.
#pragma once

#include "ControlCommandChannel.h"
#include "InjectChannel.h"
#include "XdmaChannelRegisters.h"
#include "XdmaDevice.h"

#include "Common/CpuCoreSource.h"
#include "Common/LogFile.h"
#include "Common/PinnedWorker.h"

#include <KvPCIeInjectSdk/KvPCIeStatistics.h>
#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <QByteArray>
#include <QObject>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>

namespace kvpcie::xdma {

// Created and destroyed by the facade on the host's control thread, which calls StartInject,
// StopInject, UpdateParamSimulate, GetInjectDelayStatus and SetInjectFullScreenWgt;
// WriteControlCmd may be called from any thread. Channel numbers outside 0 to 3 are refused
// (false or null results, nothing done).
class DataInject4XdmaMM : public QObject {
    Q_OBJECT

public:
    // Drives `card` (held as long as the engine); `cores` gives the worker threads their cores.
    // Reads the delay clock; writes no register.
    DataInject4XdmaMM(std::shared_ptr<XdmaCard> card, CpuCoreSource* cores);
    // Stops both workers; writes no register, so channels keep playing on the card.
    ~DataInject4XdmaMM() override;

    // Queues one frame of the channel's frame size, copied from `frameData`. The first call on a
    // stopped channel programs the card from `format` (blocking 50 to 100 ms); later calls
    // ignore every field but the channel. False with `error` = ERR_QUEUE_FULL when 15 frames
    // wait; false with `error` untouched when the channel or frame is refused (see
    // IsInjectFormatAcceptable) or `frameData` is null.
    bool StartInject(const KvFrameFormat& format, const char* frameData, eErrorCode& error);
    // When it returns, the worker no longer touches the channel. Queued frames are dropped.
    void StopInject(int channel);
    bool IsStartInject(int channel) const;
    // The parameter line counts from the channel's next start; StopInject clears it.
    void UpdateParamSimulate(int channel, bool enable, tagThermalImgParams params);
    // Eight records, one per card buffer, overwritten by the next call; valid for the engine's
    // life.
    tagInjectDelayStatusInfo* GetInjectDelayStatus(int channel);
    // The channel's frame size, given to `setSize` (0 x 0 before its first start): the facade
    // sizes a display widget with it, so the engine knows nothing of widgets.
    void SetInjectFullScreenWgt(int channel,
                                const std::function<void(int width, int height)>& setSize);

    // True when the command reached the card's mailbox within 40 ms. A false result leaves the
    // command pending until it goes out or a newer one for the channel replaces it. Commands of
    // more than 1,024 bytes are refused at once; an empty one is never sent.
    bool WriteControlCmd(int channel, QByteArray command);

    // The channel's frame counts since its last start and command counts since the engine was
    // made; false for a channel outside 0 to 3. From any thread.
    bool GetInjectStatistics(int channel, KvInjectStatistics& out);

    void SetSaveLog(bool on) { saveLog_ = on; }
    void SetOsdHidden(bool on) { osdHidden_ = on; }

private:
    void WorkerLoop();

    static bool ValidChannel(int channel) { return channel >= 0 && channel < kChannelCount; }

    const std::shared_ptr<XdmaCard> card_;
    CpuCoreSource* const cores_;
    // KVPCIE_REALTIME_POLLING=1 at construction: the worker runs at a real-time priority, so
    // that a busy process on its core does not hold a refill back.
    const bool realTimeWorker_;
    std::uint32_t clockFreq_ = 0;
    std::uint32_t injectChannelMask_ = 0;
    bool injectThreadStarted_ = false;
    PinnedWorker injectThread_;
    LogFile logAllChannel_;
    LogFile logReadFile_;
    bool saveLog_ = false;
    bool osdHidden_ = false;
    // The records are packed; aligned here, a host can read their doubles in place.
    alignas(double) std::array<tagInjectDelayStatusInfo, kCardBufferCount> delayStatus_{};
    std::array<InjectChannel, kChannelCount> channels_{
        {InjectChannel{*card_, 0}, InjectChannel{*card_, 1}, InjectChannel{*card_, 2},
         InjectChannel{*card_, 3}}};
    ControlCommandChannel commands_;
};

}  // namespace kvpcie::xdma
