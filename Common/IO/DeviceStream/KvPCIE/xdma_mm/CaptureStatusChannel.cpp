// One capture channel's status data channel: mailbox reads, the buffer and its delivery.
#include "CaptureStatusChannel.h"

#include "XdmaChannelRegisters.h"
#include "XdmaDevice.h"

namespace kvpcie::xdma {

void CaptureStatusChannel::Switch(SystemStatusCallback callback, void* userContext, bool enable) {
    std::lock_guard<std::mutex> lock(lock_);
    if (!enable) {
        // The status thread may hold the buffer for the block it is reading; it counts what it
        // appends after this as dropped too, and the buffer is freed then.
        if (buffer_ != nullptr) {
            bytesDropped_.Add(static_cast<std::uint64_t>(buffer_->Take().size()));
        }
        callback_ = nullptr;
        context_ = nullptr;
        buffer_.reset();
        return;
    }
    callback_ = callback;
    context_ = userContext;
    if (buffer_ == nullptr) {
        buffer_ = std::make_shared<StatusDataBuffer>();
    }
}

void CaptureStatusChannel::Collect() {
    std::shared_ptr<StatusDataBuffer> buffer;
    {
        std::lock_guard<std::mutex> lock(lock_);
        if (callback_ != nullptr) {
            buffer = buffer_;
        }
    }
    if (buffer == nullptr || !ReadBlock(*buffer)) {
        return;
    }
    std::lock_guard<std::mutex> lock(lock_);
    if (buffer_ != buffer) {
        // Switched off while the block was read: nobody will deliver it.
        bytesDropped_.Add(static_cast<std::uint64_t>(buffer->Take().size()));
    }
}

bool CaptureStatusChannel::ReadBlock(StatusDataBuffer& buffer) {
    const std::uint32_t block = CaptureBlock(static_cast<unsigned>(channel_));
    const std::uint32_t control = card_.XdmaReadReg(block + kCapStatusControl);
    if ((control & kMailboxFull) == 0) {
        return false;
    }
    const int length = static_cast<int>(control & kMailboxLengthMask) + 1;
    const int words = (length + 3) / 4;
    char bytes[kMailboxBytes];
    for (int k = 0; k < words; ++k) {
        card_.XdmaReadUser(block + kCapStatusData + 4 * static_cast<std::uint32_t>(k), bytes + 4 * k, 4);
    }
    // A block that would overflow the buffer is dropped whole.
    const bool kept = buffer.Append(bytes, length);
    if (!kept) {
        bytesDropped_.Add(static_cast<std::uint64_t>(length));
    }
    LogLossBurst(log_, losses_, kept ? 0 : static_cast<std::uint64_t>(length), channel_,
                 "status blocks are dropped: the host's status buffer is full",
                 "status bytes were dropped");
    const unsigned taken = 0;
    card_.XdmaWriteReg(block + kCapStatusControl, &taken);
    return true;
}

void CaptureStatusChannel::Deliver() {
    SystemStatusCallback callback = nullptr;
    void* context = nullptr;
    std::shared_ptr<StatusDataBuffer> buffer;
    {
        std::lock_guard<std::mutex> lock(lock_);
        callback = callback_;
        context = context_;
        buffer = buffer_;
    }
    if (buffer == nullptr || buffer->Size() == 0) {
        return;
    }
    const QByteArray data = buffer->Take();
    if (data.isEmpty()) {
        return;  // switched off meanwhile: the switch counted the bytes as dropped
    }
    if (callback != nullptr) {
        bytesDelivered_.Add(static_cast<std::uint64_t>(data.size()));
        callback(channel_, data, context);
    } else {
        bytesDropped_.Add(static_cast<std::uint64_t>(data.size()));
    }
}

void CaptureStatusChannel::AddTo(KvCaptureStatistics& out) const {
    out.statusBytesDelivered = bytesDelivered_.Get();
    out.statusBytesDropped = bytesDropped_.Get();
}

}  // namespace kvpcie::xdma
