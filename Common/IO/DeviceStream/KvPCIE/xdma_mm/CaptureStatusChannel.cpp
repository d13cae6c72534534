// The capture engine's status data channel: a thread collects the blocks that the card posts
// in each channel's mailbox, and a 20 ms timer on the engine's thread hands them to the host.
#include "DataCapture4XdmaMM.h"

#include "XdmaDevice.h"

#include <chrono>
#include <thread>

namespace kvpcie::xdma {
namespace {
constexpr int kStatusTickMs = 20;
constexpr auto kStatusPollInterval = std::chrono::milliseconds(2);
}  // namespace

void DataCapture4XdmaMM::SetSystemStatusCallback(int c, SystemStatusCallback callback,
                                                 void* userContext, bool enable) {
    if (!ValidChannel(c)) {
        return;
    }
    Channel& state = channels_[c];
    {
        std::lock_guard<std::mutex> locker(statusLock_);
        if (!enable) {
            // Bytes taken from the card and not yet delivered are lost now: counted as dropped.
            // The status thread may hold the buffer for the block it is reading; it counts what
            // it appends after this as dropped too, and the buffer is freed then.
            DropStatusBytesLocked(c);
            state.statusCallback = nullptr;
            state.statusContext = nullptr;
            state.statusBuffer.reset();
            return;
        }
        state.statusCallback = callback;
        state.statusContext = userContext;
        if (state.statusBuffer == nullptr) {
            state.statusBuffer = std::make_shared<StatusDataBuffer>();
        }
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
        for (int c = 0; c < kChannelCount; ++c) {
            std::shared_ptr<StatusDataBuffer> buffer;
            {
                std::lock_guard<std::mutex> locker(statusLock_);
                if (channels_[c].statusCallback != nullptr) {
                    buffer = channels_[c].statusBuffer;
                }
            }
            if (buffer != nullptr && ReadStatusBlock(c, *buffer)) {
                std::lock_guard<std::mutex> locker(statusLock_);
                if (channels_[c].statusBuffer != buffer) {
                    // Switched off while the block was read: nobody will deliver it.
                    channels_[c].counters.statusBytesDropped.Add(
                        static_cast<std::uint64_t>(buffer->Take().size()));
                }
            }
        }
        std::this_thread::sleep_for(kStatusPollInterval);
    }
}

void DataCapture4XdmaMM::DropStatusBytesLocked(int c) {
    Channel& state = channels_[c];
    if (state.statusBuffer != nullptr) {
        state.counters.statusBytesDropped.Add(
            static_cast<std::uint64_t>(state.statusBuffer->Take().size()));
    }
}

bool DataCapture4XdmaMM::ReadStatusBlock(int c, StatusDataBuffer& buffer) {
    const std::uint32_t block = CaptureBlock(static_cast<unsigned>(c));
    const std::uint32_t control = XdmaReadReg(block + kCapStatusControl);
    if ((control & kMailboxFull) == 0) {
        return false;
    }
    const int length = static_cast<int>(control & kMailboxLengthMask) + 1;
    const int words = (length + 3) / 4;
    char bytes[kMailboxBytes];
    for (int k = 0; k < words; ++k) {
        XdmaReadUser(block + kCapStatusData + 4 * static_cast<std::uint32_t>(k), bytes + 4 * k, 4);
    }
    // A block that would overflow the buffer is dropped whole.
    const bool kept = buffer.Append(bytes, length);
    if (!kept) {
        channels_[c].counters.statusBytesDropped.Add(static_cast<std::uint64_t>(length));
    }
    LogLossBurst(*log_, channels_[c].statusLosses, kept ? 0 : static_cast<std::uint64_t>(length), c,
                 "status blocks are dropped: the host's status buffer is full",
                 "status bytes were dropped");
    const unsigned taken = 0;
    XdmaWriteReg(block + kCapStatusControl, &taken);
    return true;
}

void DataCapture4XdmaMM::OnSlotCaptureCmdDataTimeOut() {
    // The facade refuses to destroy the engine while this is set: a status callback that
    // closes the card would otherwise pull the engine from under this loop.
    deliveringStatus_.store(true, std::memory_order_release);
    for (int c = 0; c < kChannelCount; ++c) {
        SystemStatusCallback callback = nullptr;
        void* context = nullptr;
        std::shared_ptr<StatusDataBuffer> buffer;
        {
            std::lock_guard<std::mutex> locker(statusLock_);
            callback = channels_[c].statusCallback;
            context = channels_[c].statusContext;
            buffer = channels_[c].statusBuffer;
        }
        if (buffer == nullptr || buffer->Size() == 0) {
            continue;
        }
        const QByteArray data = buffer->Take();
        if (data.isEmpty()) {
            continue;  // switched off meanwhile: the switch counted the bytes as dropped
        }
        if (callback != nullptr) {
            channels_[c].counters.statusBytesDelivered.Add(static_cast<std::uint64_t>(data.size()));
            callback(c, data, context);
        } else {
            channels_[c].counters.statusBytesDropped.Add(static_cast<std::uint64_t>(data.size()));
        }
    }
    deliveringStatus_.store(false, std::memory_order_release);
}

}  // namespace kvpcie::xdma
