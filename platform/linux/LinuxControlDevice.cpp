// The RIFFA Linux driver's one node, /dev/riffa: its send, receive, list and reset requests,
// reached through the device-control requests of the Windows driver that the library speaks.
#include "platform/linux/LinuxControlDevice.h"

#include "platform/Backend.h"
#include "platform/SystemError.h"

#include "drivers/RiffaDriverInterface.h"

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kvpcie::platform {
namespace linux_backend {
namespace {

using riffa::kListCode;
using riffa::kReceiveCode;
using riffa::kResetCode;
using riffa::kSendCode;
using WindowsIoArgs = riffa::RiffaIoArgs;

// The Linux driver's requests, on its major number 100.
constexpr unsigned kRiffaMajor = 100;

// Its channel record carries the data block's address, where the Windows driver's request
// carries the block as the request's output buffer.
struct RiffaLinuxIo {
    std::int32_t id;
    std::int32_t channel;
    std::uint32_t lengthWords;
    std::uint32_t offset;
    std::uint32_t last;
    std::uint64_t timeout;
    void* data;
};

const unsigned long kLinuxSend = _IOW(kRiffaMajor, 1, RiffaLinuxIo*);
const unsigned long kLinuxReceive = _IOR(kRiffaMajor, 2, RiffaLinuxIo*);
const unsigned long kLinuxList = _IOR(kRiffaMajor, 3, fpga_info_list*);
const unsigned long kLinuxReset = _IOW(kRiffaMajor, 4, int);

ControlResult Refused(int error) {
    ControlResult result;
    result.outcome = ControlResult::Outcome::Failed;
    result.error = error;
    return result;
}

ControlResult Done(std::uint32_t count) {
    ControlResult result;
    result.outcome = ControlResult::Outcome::Completed;
    result.count = count;
    return result;
}

class RiffaNode final : public ControlDevice {
public:
    RiffaNode(int fd, int slot) : fd_(fd), slot_(slot) {}
    ~RiffaNode() override { ::close(fd_); }

    ControlResult Control(std::uint32_t code, const void* input, std::uint32_t inputBytes,
                          void* output, std::uint32_t outputBytes) override {
        switch (code) {
            case kSendCode:
            case kReceiveCode:
                return Transfer(code == kSendCode, input, inputBytes, output, outputBytes);
            case kListCode:
                return List(input, inputBytes, output, outputBytes);
            case kResetCode: {
                // The driver resets the device named by the open node's slot.
                const int rc = ::ioctl(fd_, kLinuxReset, slot_);
                return rc < 0 ? Refused(errno) : Done(0);
            }
            default:
                return Refused(EINVAL);
        }
    }

private:
    ControlResult Transfer(bool send, const void* input, std::uint32_t inputBytes, void* output,
                           std::uint32_t outputBytes) {
        if (input == nullptr || inputBytes < sizeof(WindowsIoArgs)) {
            return Refused(EINVAL);
        }
        WindowsIoArgs args{};
        std::memcpy(&args, input, sizeof args);
        if (args.lengthWords < 0 || std::uint64_t(args.lengthWords) * 4 > outputBytes) {
            return Refused(EINVAL);  // the block would run past the caller's buffer
        }
        RiffaLinuxIo io{};
        io.id = args.deviceIndex;
        io.channel = args.channel;
        io.lengthWords = static_cast<std::uint32_t>(args.lengthWords);
        io.offset = static_cast<std::uint32_t>(args.offset);
        io.last = static_cast<std::uint32_t>(args.last);
        io.timeout = static_cast<std::uint64_t>(args.timeout);
        io.data = output;
        // The Linux driver answers in words moved; a request it gave up on moves fewer than
        // asked, which the Windows driver reports as the aborted status.
        const long words = ::ioctl(fd_, send ? kLinuxSend : kLinuxReceive, &io);
        if (words < 0) {
            return Refused(errno);
        }
        if (!send && words == 0 && args.lengthWords > 0) {
            ControlResult result;
            result.outcome = ControlResult::Outcome::AbortedLater;
            return result;
        }
        return Done(static_cast<std::uint32_t>(words));
    }

    // The Linux driver lists every device at once; the Windows request fills the slot named
    // by its input only.
    ControlResult List(const void* input, std::uint32_t inputBytes, void* output,
                       std::uint32_t outputBytes) {
        if (input == nullptr || inputBytes < sizeof(std::int32_t) || output == nullptr ||
            outputBytes < sizeof(fpga_info_list)) {
            return Refused(EINVAL);
        }
        std::int32_t slot = 0;
        std::memcpy(&slot, input, sizeof slot);
        if (slot < 0 || slot >= riffa::kListSlots) {
            return Refused(EINVAL);
        }
        fpga_info_list all{};
        if (::ioctl(fd_, kLinuxList, &all) < 0) {
            return Refused(errno);
        }
        auto* list = static_cast<fpga_info_list*>(output);
        list->id[slot] = all.id[slot];
        list->channelCount[slot] = all.channelCount[slot];
        std::memcpy(list->name[slot], all.name[slot], sizeof list->name[slot]);
        list->vendorId[slot] = all.vendorId[slot];
        list->deviceId[slot] = all.deviceId[slot];
        return Done(sizeof(fpga_info_list));
    }

    const int fd_;
    const int slot_;
};

}  // namespace

bool RiffaDevicePaths(const char* node, std::vector<std::string>& paths) {
    const int fd = ::open(node, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) {
            return true;  // no driver loaded: no device, not a failure
        }
        SetLastError(errno);
        return false;
    }
    fpga_info_list all{};
    const int rc = ::ioctl(fd, kLinuxList, &all);
    const int error = errno;
    ::close(fd);
    if (rc < 0) {
        SetLastError(error);
        return false;
    }
    // The driver's list has five slots; its count says how many devices it found.
    for (int slot = 0; slot < all.fpgaCount; ++slot) {
        paths.push_back(std::string(node) + "#" + std::to_string(slot));
    }
    return true;
}

ControlDevicePtr OpenRiffaNode(const std::string& path) {
    const std::size_t mark = path.rfind('#');
    if (mark == std::string::npos || mark + 1 == path.size()) {
        SetLastError(ENOENT);
        return nullptr;
    }
    int slot = 0;
    for (std::size_t i = mark + 1; i < path.size(); ++i) {
        if (path[i] < '0' || path[i] > '9' || slot > 1000) {
            SetLastError(ENOENT);
            return nullptr;
        }
        slot = slot * 10 + (path[i] - '0');
    }
    const int fd = ::open(path.substr(0, mark).c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        SetLastError(errno);
        return nullptr;
    }
    return std::make_unique<RiffaNode>(fd, slot);
}

}  // namespace linux_backend

namespace native {

ControlDevicePtr OpenControlDevice(const std::string& path, bool /*overlapped*/) {
    return linux_backend::OpenRiffaNode(path);
}

}  // namespace native
}  // namespace kvpcie::platform
