// The RIFFA device library over the OS layer's device-control requests.
#include "RiffaDevice.h"

#include "Common/ConsoleMessages.h"
#include "drivers/RiffaDriverInterface.h"

#include "platform/DeviceInterfaces.h"
#include "platform/SystemError.h"

#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <vector>

namespace kvpcie::riffa {
namespace {

constexpr int kRequestBytes = kRegisterRequestWords * 4;

void StoreWord(std::uint8_t* out, std::uint32_t value) {
    for (int byte = 0; byte < 4; ++byte) {
        out[byte] = static_cast<std::uint8_t>(value >> (8 * byte));
    }
}

std::uint32_t LoadWord(const std::uint8_t* in) {
    return std::uint32_t{in[0]} | std::uint32_t{in[1]} << 8 | std::uint32_t{in[2]} << 16 |
           std::uint32_t{in[3]} << 24;
}

void FillRegisterRequest(std::uint8_t* request, std::uint32_t data, std::uint32_t address,
                         std::uint8_t fill) {
    StoreWord(request, data);
    StoreWord(request + 4, address);
    std::memset(request + 8, fill, kRequestBytes - 8);
}

// Prints what stopped a listing on one interface and returns its code (0 for none).
int PrintListingStop(const platform::ListingStop& stop) {
    switch (stop.reason) {
        case platform::ListingStop::Reason::None:
            return 0;
        case platform::ListingStop::Reason::InterfaceDetail:
            PrintConsoleMessage("SetupDiGetDeviceInterfaceDetail failed, Error: %d\n", stop.error);
            return stop.error;
        case platform::ListingStop::Reason::OutOfMemory:
            PrintConsoleMessage("Insufficient memory.\n");
            return platform::SystemCode(platform::Error::NotEnoughMemory);
    }
    return 0;
}

}  // namespace

RiffaDevice::RiffaDevice() = default;

RiffaDevice::~RiffaDevice() {
    Close();
}

platform::ControlDevicePtr RiffaDevice::OpenDeviceHandle(int index, bool overlapped) {
    std::vector<std::string> paths;
    platform::ListingStop stop;
    if (!platform::ListDeviceInterfaces(platform::kRiffaInterfaceClass, paths, &stop)) {
        PrintConsoleMessage("SetupDiGetClassDevs failed, Error: %d\n", platform::LastError());
        return nullptr;
    }
    // The OS layer walks the interfaces in order, so an interface at or before `index` that
    // failed is reported as the failure of this lookup.
    if (index >= 0 && static_cast<std::size_t>(index) >= paths.size() &&
        stop.reason != platform::ListingStop::Reason::None) {
        PrintListingStop(stop);
        return nullptr;
    }
    if (index < 0 || static_cast<std::size_t>(index) >= paths.size()) {
        platform::SetLastError(platform::Error::NoMoreItems);
        PrintConsoleMessage("SetupDiEnumDeviceInterfaces failed, Error: %d\n",
                            platform::LastError());
        return nullptr;
    }
    platform::ControlDevicePtr handle =
        platform::OpenControlDevice(paths[static_cast<std::size_t>(index)], overlapped);
    if (!handle) {
        PrintConsoleMessage("CreateFile failed.  Error:%d\n", platform::LastError());
    }
    return handle;
}

int RiffaDevice::List(fpga_info_list* list) {
    if (list == nullptr) {
        return platform::SystemCode(platform::Error::InvalidParameter);
    }
    list->fpgaCount = 0;
    std::vector<std::string> paths;
    platform::ListingStop stop;
    if (!platform::ListDeviceInterfaces(platform::kRiffaInterfaceClass, paths, &stop)) {
        PrintConsoleMessage("SetupDiGetClassDevs failed, Error: %d\n", platform::LastError());
        return platform::LastError();
    }
    for (std::size_t index = 0; index < paths.size(); ++index) {
        // The driver fills slot `index`: a sixth device has nowhere to go.
        if (index >= static_cast<std::size_t>(kListSlots)) {
            return platform::SystemCode(platform::Error::MoreData);
        }
        const platform::ControlDevicePtr device = platform::OpenControlDevice(paths[index], false);
        if (!device) {
            PrintConsoleMessage("CreateFile failed.  Error:%d\n", platform::LastError());
            return platform::LastError();
        }
        const std::int32_t slot = static_cast<std::int32_t>(index);
        const platform::ControlResult result =
            device->Control(kListCode, &slot, sizeof slot, list, sizeof *list);
        using Outcome = platform::ControlResult::Outcome;
        if (result.outcome != Outcome::Completed && result.outcome != Outcome::CompletedLater) {
            const int error = result.outcome == Outcome::AbortedLater
                                  ? platform::SystemCode(platform::Error::OperationAborted)
                                  : result.error;
            PrintConsoleMessage("Error in DeviceIoControl: %d\n", error);
            return error;
        }
        ++list->fpgaCount;
    }
    // The devices before an interface that failed are listed; the failure ends the listing.
    return PrintListingStop(stop);
}

fpga_t* RiffaDevice::Open(int index) {
    Close();
    auto fpga = std::unique_ptr<fpga_t>(new (std::nothrow) fpga_t);
    if (!fpga) {
        return nullptr;
    }
    fpga->deviceIndex = index;
    fpga->deviceHandle = OpenDeviceHandle(index, true);
    if (!fpga->deviceHandle) {
        return nullptr;
    }
    if (!writeRequest_) {
        writeRequest_ = std::make_unique<std::uint8_t[]>(kRequestBytes);
    }
    if (!readRequest_) {
        readRequest_ = std::make_unique<std::uint8_t[]>(kRequestBytes);
    }
    fpga_ = std::move(fpga);
    isOpen_.store(true, std::memory_order_release);
    return fpga_.get();
}

void RiffaDevice::Close() {
    if (!isOpen_.load(std::memory_order_acquire)) {
        return;
    }
    isOpen_.store(false, std::memory_order_release);
    fpga_.reset();
}

platform::ControlDevice* RiffaDevice::UsableHandle() {
    if (!fpga_ || !fpga_->deviceHandle) {
        PrintConsoleMessage("Invalid fpga_t device handle\n");
        return nullptr;
    }
    return fpga_->deviceHandle.get();
}

std::int32_t RiffaDevice::Transfer(std::uint32_t code, int channel, void* data, int lengthWords,
                                   int offset, int last, std::int64_t timeout) {
    if (!IsOpen()) {
        return 0;
    }
    platform::ControlDevice* handle = UsableHandle();
    if (handle == nullptr) {
        return 0;
    }
    // A block the driver could not describe in 32-bit bytes, or one that is not there, is
    // refused here rather than handed over.
    if (lengthWords < 0 || lengthWords > std::numeric_limits<std::int32_t>::max() / 4 ||
        (data == nullptr && lengthWords > 0)) {
        return 0;
    }
    RiffaIoArgs args{};
    args.deviceIndex = fpga_->deviceIndex;
    args.channel = channel;
    args.lengthWords = lengthWords;
    if (code == kSendCode) {
        args.offset = offset;
        args.last = last;
    }
    args.timeout = timeout;
    const platform::ControlResult result = handle->Control(
        code, &args, sizeof args, data, static_cast<std::uint32_t>(lengthWords) * 4);
    switch (result.outcome) {
        case platform::ControlResult::Outcome::Completed:
        case platform::ControlResult::Outcome::CompletedLater:
            break;
        case platform::ControlResult::Outcome::Failed:
            PrintConsoleMessage("Error in DeviceIoControl: %d\n", result.error);
            return 0;
        case platform::ControlResult::Outcome::AbortedLater:
            PrintConsoleMessage("Operation timed out or was aborted\n");
            break;
        case platform::ControlResult::Outcome::FailedLater:
            PrintConsoleMessage("Error in GetOverlappedResult: %d\n", result.error);
            break;
    }
    return static_cast<std::int32_t>(result.count);
}

std::int32_t RiffaDevice::Send(int channel, void* data, int lengthWords, int offset, int last,
                               std::int64_t timeout) {
    return Transfer(kSendCode, channel, data, lengthWords, offset, last, timeout);
}

std::int32_t RiffaDevice::Receive(int channel, void* data, int lengthWords, std::int64_t timeout) {
    return Transfer(kReceiveCode, channel, data, lengthWords, 0, 0, timeout);
}

void RiffaDevice::Reset() {
    if (!IsOpen()) {
        return;
    }
    platform::ControlDevice* handle = UsableHandle();
    if (handle == nullptr) {
        return;
    }
    const platform::ControlResult result = handle->Control(kResetCode, nullptr, 0, nullptr, 0);
    switch (result.outcome) {
        case platform::ControlResult::Outcome::Failed:
            PrintConsoleMessage("Error in DeviceIoControl: %d\n", result.error);
            break;
        case platform::ControlResult::Outcome::AbortedLater:
            PrintConsoleMessage("Error in GetOverlappedResult: %d\n",
                                platform::SystemCode(platform::Error::OperationAborted));
            break;
        case platform::ControlResult::Outcome::FailedLater:
            PrintConsoleMessage("Error in GetOverlappedResult: %d\n", result.error);
            break;
        default:
            break;
    }
}

std::uint32_t RiffaDevice::ReadReg(std::uint32_t address) {
    if (!IsOpen()) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(readLock_);
    std::uint8_t* request = readRequest_.get();
    FillRegisterRequest(request, 0, address, kReadFill);
    Send(0, request, kRegisterRequestWords, kReadRequestOffset, 1, kRegisterTimeoutMs);
    const std::int32_t received = Receive(0, request, kRegisterRequestWords, kRegisterTimeoutMs);
    // A reply cut short is not trusted for a value.
    if (received < kRegisterRequestWords) {
        return 0;
    }
    return LoadWord(request);
}

std::int32_t RiffaDevice::WriteReg(std::uint32_t data, std::uint32_t address) {
    if (!IsOpen()) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(writeLock_);
    std::uint8_t* request = writeRequest_.get();
    FillRegisterRequest(request, data, address, kWriteFill);
    return Send(0, request, kRegisterRequestWords, kWriteRequestOffset, 1, kRegisterTimeoutMs);
}

}  // namespace kvpcie::riffa
