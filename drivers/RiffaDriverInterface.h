// What is fixed of the RIFFA driver: its control codes and the input record of its send and
// receive requests. Its device list record is fpga_info_list (KvPCIeTypes.h).
#pragma once

#include <cstdint>

namespace kvpcie::riffa {

// CTL_CODE(0x22, 0x900 + n, METHOD_OUT_DIRECT, FILE_ANY_ACCESS)
constexpr std::uint32_t kSendCode = 0x222402;
constexpr std::uint32_t kReceiveCode = 0x222406;
constexpr std::uint32_t kListCode = 0x22240A;
constexpr std::uint32_t kResetCode = 0x22240E;

#pragma pack(push, 1)
// Input of a send or receive request; the data block travels as the request's output buffer.
struct RiffaIoArgs {
    std::int32_t deviceIndex;
    std::int32_t channel;
    std::int32_t lengthWords;
    std::int32_t offset;  // send only: destination offset
    std::int32_t last;    // send only: 1 on the last transfer
    std::int32_t reserved;
    std::int64_t timeout;  // milliseconds, enforced by the driver
};
#pragma pack(pop)
static_assert(sizeof(RiffaIoArgs) == 32, "the driver's request record is 32 bytes");

// The device library's register requests on channel 0: four words, the data (or 0) and the
// address, then a fill that tells a read from a write.
constexpr int kRegisterRequestWords = 4;
constexpr std::uint8_t kReadFill = 0x55;
constexpr std::uint8_t kWriteFill = 0xAA;
constexpr std::int32_t kReadRequestOffset = 10;
constexpr std::int32_t kWriteRequestOffset = 0;
constexpr std::int64_t kRegisterTimeoutMs = 25000;

// Slots in fpga_info_list.
constexpr int kListSlots = 5;

}  // namespace kvpcie::riffa
