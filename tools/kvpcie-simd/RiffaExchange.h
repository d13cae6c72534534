// The Windows driver model's RIFFA requests: each is written whole to a /wine/riffaN file
// (a header, the request's input, its data block) and its answer is read back from the same
// open file, so that the driver's four device-control requests reach the simulated device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace kvpcie::sim {
class SimRiffaDevice;
}

namespace kvpcie::simd {

// Little-endian 32-bit words. Request: control code, input bytes, data block bytes, 0; then
// the input, then the data block (what a send carries; a receive's current contents). Answer:
// how the device ended the request (RiffaAnswer::Kind: 0 completed, 1 refused, 2 removed,
// 3 timed out), its count, data block bytes, 0; then the data block as the device left it.
constexpr std::size_t kRiffaHeaderBytes = 16;
constexpr std::uint32_t kRiffaLargestInput = 4096;
constexpr std::uint32_t kRiffaLargestBlock = 64u << 20;

class RiffaExchange {
public:
    // Takes a piece of a request, in order from offset 0 (a write at 0 begins a new one); once
    // the request is whole, the device answers it. Bytes taken, or -errno.
    int Write(sim::SimRiffaDevice& device, const char* data, std::size_t size,
              std::int64_t offset);
    // The last answer from `offset` on; nothing once it has all been read or before any.
    int Read(char* buffer, std::size_t size, std::int64_t offset);

private:
    void Answer(sim::SimRiffaDevice& device, std::uint32_t inputBytes, std::uint32_t blockBytes);

    std::mutex mutex_;
    std::vector<std::uint8_t> request_;
    std::vector<std::uint8_t> answer_;
};

}  // namespace kvpcie::simd
