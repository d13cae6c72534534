// The per-channel status accumulation buffer.
#include "StatusDataBuffer.h"

#include <cstring>

namespace kvpcie::xdma {

bool StatusDataBuffer::Append(const char* bytes, int count) {
    if (count < 0 || (bytes == nullptr && count > 0)) {
        return false;
    }
    if (count == 0) {
        return true;
    }
    std::lock_guard<std::mutex> locker(lock_);
    if (length_ + count >= kCapacity) {
        return false;
    }
    std::memcpy(data_ + length_, bytes, static_cast<std::size_t>(count));
    length_ += count;
    return true;
}

QByteArray StatusDataBuffer::Take() {
    std::lock_guard<std::mutex> locker(lock_);
    QByteArray taken(data_, length_);
    length_ = 0;
    return taken;
}

int StatusDataBuffer::Size() {
    std::lock_guard<std::mutex> locker(lock_);
    return length_;
}

}  // namespace kvpcie::xdma
