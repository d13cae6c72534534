// Status bytes of one capture channel, collected by the status thread and taken by the
// delivery timer.
#pragma once

#include <QByteArray>

#include <mutex>

namespace kvpcie::xdma {

class StatusDataBuffer {
public:
    static constexpr int kCapacity = 1536;

    // Appends the whole block while the buffer stays below its capacity (1,535 bytes at
    // most), or drops the whole block. False when dropped (or for a negative count or null
    // bytes with a count).
    bool Append(const char* bytes, int count);
    // Everything held, oldest first; the buffer is empty afterwards.
    QByteArray Take();
    int Size();

private:
    std::mutex lock_;
    char data_[kCapacity] = {};
    int length_ = 0;
};

}  // namespace kvpcie::xdma
