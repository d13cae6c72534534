// RIFFA requests of the Windows driver model, answered by the simulated device.
#include "RiffaExchange.h"

#include "sim/LittleEndianWords.h"
#include "sim/SimRiffaDevice.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kvpcie::simd {

using sim::LoadWord;
using sim::StoreWord;

int RiffaExchange::Write(sim::SimRiffaDevice& device, const char* data, std::size_t size,
                         std::int64_t offset) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (offset == 0) {
        request_.clear();
        answer_.clear();
    }
    if (offset < 0 || static_cast<std::uint64_t>(offset) != request_.size()) {
        return -EINVAL;  // pieces come in order, as the kernel splits one write
    }
    request_.insert(request_.end(), data, data + size);
    if (request_.size() < kRiffaHeaderBytes) {
        return static_cast<int>(size);
    }
    const std::uint32_t inputBytes = LoadWord(request_.data() + 4);
    const std::uint32_t blockBytes = LoadWord(request_.data() + 8);
    if (inputBytes > kRiffaLargestInput || blockBytes > kRiffaLargestBlock) {
        request_.clear();
        return -EINVAL;
    }
    const std::size_t whole = kRiffaHeaderBytes + inputBytes + blockBytes;
    if (request_.size() > whole) {
        request_.clear();
        return -EINVAL;
    }
    if (request_.size() == whole) {
        Answer(device, inputBytes, blockBytes);
    }
    return static_cast<int>(size);
}

void RiffaExchange::Answer(sim::SimRiffaDevice& device, std::uint32_t inputBytes,
                           std::uint32_t blockBytes) {
    const std::uint32_t code = LoadWord(request_.data());
    answer_.assign(kRiffaHeaderBytes + blockBytes, 0);
    std::uint8_t* block = answer_.data() + kRiffaHeaderBytes;
    std::copy_n(request_.data() + kRiffaHeaderBytes + inputBytes, blockBytes, block);
    const sim::RiffaAnswer answer =
        device.Control(code, inputBytes == 0 ? nullptr : request_.data() + kRiffaHeaderBytes,
                       inputBytes, blockBytes == 0 ? nullptr : block, blockBytes);
    StoreWord(answer_.data(), static_cast<std::uint32_t>(answer.kind));
    StoreWord(answer_.data() + 4, answer.count);
    StoreWord(answer_.data() + 8, blockBytes);
    request_.clear();
}

int RiffaExchange::Read(char* buffer, std::size_t size, std::int64_t offset) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (offset < 0 || static_cast<std::uint64_t>(offset) >= answer_.size()) {
        return 0;
    }
    const std::size_t length = std::min(size, answer_.size() - static_cast<std::size_t>(offset));
    std::memcpy(buffer, answer_.data() + offset, length);
    return static_cast<int>(length);
}

}  // namespace kvpcie::simd
