// The simulated RIFFA device: the driver's requests and the card's register logic on channel 0.
#include "SimRiffaDevice.h"

#include "LittleEndianWords.h"

#include "drivers/RiffaDriverInterface.h"

#include <algorithm>
#include <cstring>

namespace kvpcie::sim {
namespace {

using KvPCIeSim::RiffaRequest;

// fpga_info_list, by byte offset: the public record type needs Qt, the card does not.
constexpr std::uint32_t kListRecordBytes = 164;
constexpr std::uint32_t kListIdOffset = 4;
constexpr std::uint32_t kListChannelCountOffset = 24;
constexpr std::uint32_t kListNameOffset = 44;
constexpr std::uint32_t kListNameBytes = 16;
constexpr std::uint32_t kListVendorIdOffset = 124;
constexpr std::uint32_t kListDeviceIdOffset = 144;

// What the simulated device reports of itself in the list.
constexpr std::uint32_t kChannelCount = 12;
constexpr char kDeviceName[] = "KvSimRiffa";
constexpr std::uint32_t kVendorId = 0x10EE;
constexpr std::uint32_t kDeviceId = 0x7028;
static_assert(sizeof(kDeviceName) <= kListNameBytes, "the name and its terminator fit the slot");

bool AllBytesAre(const std::uint8_t* bytes, std::size_t size, std::uint8_t fill) {
    return std::all_of(bytes, bytes + size, [fill](std::uint8_t byte) { return byte == fill; });
}

// The part of a buffer that `lengthWords` words cover, without overflowing on large lengths.
std::uint32_t CoveredBytes(std::int32_t lengthWords, std::uint64_t available) {
    const std::uint64_t asked = std::uint64_t(std::max(lengthWords, 0)) * 4;
    return static_cast<std::uint32_t>(std::min(asked, available));
}

}  // namespace

RiffaAnswer SimRiffaDevice::Control(std::uint32_t code, const void* input, std::uint32_t inputBytes,
                                    void* output, std::uint32_t outputBytes) {
    const auto* in = static_cast<const std::uint8_t*>(input);
    auto* out = static_cast<std::uint8_t*>(output);
    const bool buffersValid =
        (in != nullptr || inputBytes == 0) && (out != nullptr || outputBytes == 0);

    std::lock_guard<std::mutex> lock(mutex_);
    if (removed_) {
        return {RiffaAnswer::Kind::Removed, 0};
    }
    RiffaRequest request{};
    request.controlCode = code;
    switch (code) {
        case riffa::kSendCode:
        case riffa::kReceiveCode: {
            const bool hasArgs = buffersValid && inputBytes >= sizeof(riffa::RiffaIoArgs);
            if (hasArgs) {
                riffa::RiffaIoArgs args{};
                std::memcpy(&args, in, sizeof(args));
                request.deviceIndex = args.deviceIndex;
                request.channel = args.channel;
                request.lengthWords = args.lengthWords;
                request.offset = args.offset;
                request.last = args.last;
                request.timeout = args.timeout;
            }
            if (!hasArgs || request.lengthWords < 0) {
                LogLocked(std::move(request));
                return {RiffaAnswer::Kind::Refused, 0};
            }
            return code == riffa::kSendCode ? SendLocked(request, out, outputBytes)
                                            : ReceiveLocked(request, out, outputBytes);
        }
        case riffa::kListCode: {
            const bool hasIndex = buffersValid && inputBytes >= 4;
            request.deviceIndex = hasIndex ? static_cast<std::int32_t>(LoadWord(in)) : 0;
            LogLocked(request);
            if (!hasIndex) {
                return {RiffaAnswer::Kind::Refused, 0};
            }
            return ListLocked(request.deviceIndex, out, outputBytes);
        }
        case riffa::kResetCode:
            LogLocked(std::move(request));
            replies_.clear();
            return {RiffaAnswer::Kind::Completed, 0};
        default:
            LogLocked(std::move(request));
            return {RiffaAnswer::Kind::Refused, 0};
    }
}

RiffaAnswer SimRiffaDevice::SendLocked(const RiffaRequest& request, const std::uint8_t* data,
                                       std::uint32_t dataBytes) {
    const std::uint32_t logged = CoveredBytes(request.lengthWords, dataBytes);
    RiffaRequest entry = request;
    entry.data.assign(data, data + logged);
    LogLocked(std::move(entry));
    if (!neverAnswers_ && request.channel == 0 &&
        request.lengthWords == riffa::kRegisterRequestWords && dataBytes >= kReplyBytes) {
        RegisterRequestLocked(data, request.offset);
    }
    return {RiffaAnswer::Kind::Completed, static_cast<std::uint32_t>(request.lengthWords)};
}

RiffaAnswer SimRiffaDevice::ReceiveLocked(const RiffaRequest& request, std::uint8_t* output,
                                          std::uint32_t outputBytes) {
    LogLocked(request);
    const auto queue = replies_.find(request.channel);
    // Answered at once rather than after the request's time-out, so nobody waits for it.
    if (neverAnswers_ || queue == replies_.end() || queue->second.empty()) {
        return {RiffaAnswer::Kind::TimedOut, 0};
    }
    const Reply reply = queue->second.front();
    queue->second.pop_front();
    const std::uint32_t copied =
        CoveredBytes(request.lengthWords, std::min<std::uint64_t>(kReplyBytes, outputBytes));
    std::copy_n(reply.begin(), copied, output);
    return {RiffaAnswer::Kind::Completed, copied / 4};
}

RiffaAnswer SimRiffaDevice::ListLocked(std::int32_t index, std::uint8_t* output,
                                       std::uint32_t outputBytes) {
    if (output == nullptr || outputBytes < kListRecordBytes || index < 0 ||
        index >= riffa::kListSlots) {
        return {RiffaAnswer::Kind::Refused, 0};
    }
    // The count stays the caller's: the library counts the slots it filled.
    const auto slot = static_cast<std::uint32_t>(index);
    StoreWord(output + kListIdOffset + 4 * slot, static_cast<std::uint32_t>(number_));
    StoreWord(output + kListChannelCountOffset + 4 * slot, kChannelCount);
    std::uint8_t* name = output + kListNameOffset + kListNameBytes * slot;
    std::fill_n(name, kListNameBytes, std::uint8_t{0});
    std::copy_n(kDeviceName, sizeof(kDeviceName) - 1, name);
    StoreWord(output + kListVendorIdOffset + 4 * slot, kVendorId);
    StoreWord(output + kListDeviceIdOffset + 4 * slot, kDeviceId);
    return {RiffaAnswer::Kind::Completed, kListRecordBytes};
}

void SimRiffaDevice::RegisterRequestLocked(const std::uint8_t* words, std::int32_t offset) {
    const std::uint32_t value = LoadWord(words);
    const std::uint32_t address = LoadWord(words + 4);
    const std::uint8_t* fill = words + 8;
    const std::size_t fillBytes = kReplyBytes - 8;
    if (offset == riffa::kReadRequestOffset && AllBytesAre(fill, fillBytes, riffa::kReadFill)) {
        Reply reply{};
        StoreWord(reply.data(), RegisterValueLocked(address));
        replies_[0].push_back(reply);
    } else if (offset == riffa::kWriteRequestOffset &&
               AllBytesAre(fill, fillBytes, riffa::kWriteFill)) {
        StoreRegisterLocked(address, value);
    }
}

std::uint32_t SimRiffaDevice::RegisterValueLocked(std::uint32_t address) const {
    if (address == KvPCIeSim::kRegIdentity) {
        return KvPCIeSim::kIdentityValue;
    }
    const auto found = registers_.find(address);
    return found == registers_.end() ? 0 : found->second;
}

void SimRiffaDevice::StoreRegisterLocked(std::uint32_t address, std::uint32_t value) {
    if (address != KvPCIeSim::kRegIdentity) {
        registers_[address] = value;
    }
}

void SimRiffaDevice::LogLocked(RiffaRequest request) {
    if (requestLog_.size() == kRequestLogCapacity) {
        requestLog_.pop_front();
    }
    requestLog_.push_back(std::move(request));
}

void SimRiffaDevice::SetRemoved() {
    std::lock_guard<std::mutex> lock(mutex_);
    removed_ = true;
}

void SimRiffaDevice::SetNeverAnswers(bool never) {
    std::lock_guard<std::mutex> lock(mutex_);
    neverAnswers_ = never;
}

std::vector<RiffaRequest> SimRiffaDevice::TakeRequestLog() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<RiffaRequest> taken(std::make_move_iterator(requestLog_.begin()),
                                    std::make_move_iterator(requestLog_.end()));
    requestLog_.clear();
    return taken;
}

std::uint32_t SimRiffaDevice::PeekRegister(std::uint32_t address) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return RegisterValueLocked(address);
}

void SimRiffaDevice::PokeRegister(std::uint32_t address, std::uint32_t value) {
    std::lock_guard<std::mutex> lock(mutex_);
    StoreRegisterLocked(address, value);
}

}  // namespace kvpcie::sim
