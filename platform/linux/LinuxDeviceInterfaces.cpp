// Listing the XDMA and RIFFA driver nodes under /dev, and restarting Xilinx cards through
// sysfs's PCI remove and rescan.
#include "platform/linux/LinuxDeviceInterfaces.h"

#include "platform/Backend.h"
#include "platform/SystemError.h"
#include "platform/linux/LinuxControlDevice.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <utility>

namespace kvpcie::platform {
namespace linux_backend {
namespace {

using DirPtr = std::unique_ptr<DIR, int (*)(DIR*)>;

constexpr char kXdmaPrefix[] = "xdma";
constexpr char kXdmaUserSuffix[] = "_user";
// Long enough for the removed card to go and the rescanned one to settle.
constexpr std::chrono::milliseconds kRestartSettle{20};

DirPtr OpenDir(const std::string& path) {
    return DirPtr(::opendir(path.c_str()), ::closedir);
}

// The names in a directory but "." and ".."; false with errno when reading it fails.
bool EntryNames(DIR* dir, std::vector<std::string>& names) {
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(dir);
        if (entry == nullptr) {
            return errno == 0;
        }
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
}

bool IsXilinxDevice(const std::string& vendorPath) {
    const int fd = ::open(vendorPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char text[16] = {};
    const ssize_t length = ::read(fd, text, sizeof text - 1);
    ::close(fd);
    std::string vendor(text, length > 0 ? static_cast<std::size_t>(length) : 0);
    while (!vendor.empty() && std::isspace(static_cast<unsigned char>(vendor.back()))) {
        vendor.pop_back();
    }
    std::transform(vendor.begin(), vendor.end(), vendor.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return vendor == "0x10ee";
}

// 0 when "1" went into the attribute, else the errno of the refusal.
int WriteOne(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    const ssize_t written = ::write(fd, "1", 1);
    const int error = written == 1 ? 0 : (written < 0 ? errno : EIO);
    ::close(fd);
    return error;
}

}  // namespace

std::optional<unsigned> XdmaUserNodeNumber(const std::string& entryName) {
    const std::size_t prefixLength = sizeof kXdmaPrefix - 1;
    const std::size_t suffixLength = sizeof kXdmaUserSuffix - 1;
    if (entryName.size() <= prefixLength + suffixLength ||
        entryName.compare(0, prefixLength, kXdmaPrefix) != 0 ||
        entryName.compare(entryName.size() - suffixLength, suffixLength, kXdmaUserSuffix) != 0) {
        return std::nullopt;
    }
    const std::string digits =
        entryName.substr(prefixLength, entryName.size() - prefixLength - suffixLength);
    if (digits.size() > 9 || (digits.size() > 1 && digits[0] == '0')) {
        return std::nullopt;
    }
    unsigned number = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        number = number * 10 + static_cast<unsigned>(c - '0');
    }
    return number;
}

std::vector<std::string> XdmaInterfacePaths(const std::vector<std::string>& entryNames,
                                            const std::string& devDir) {
    std::vector<unsigned> numbers;
    for (const std::string& name : entryNames) {
        if (const std::optional<unsigned> number = XdmaUserNodeNumber(name)) {
            numbers.push_back(*number);
        }
    }
    std::sort(numbers.begin(), numbers.end());
    std::vector<std::string> paths;
    for (unsigned number : numbers) {
        paths.push_back(devDir + "/xdma" + std::to_string(number));
    }
    return paths;
}

std::string LinuxRoot() {
    const char* value = std::getenv("KVPCIE_LINUX_ROOT");
    std::string root = value != nullptr ? value : "";
    while (!root.empty() && root.back() == '/') {
        root.pop_back();
    }
    return root;
}

std::string PciDeviceOfCard(const std::string& root, const std::string& cardPath) {
    const std::size_t slash = cardPath.rfind('/');
    const std::string card = cardPath.substr(slash == std::string::npos ? 0 : slash + 1);
    if (card.empty()) {
        return std::string();
    }
    const std::string link = root + "/sys/class/xdma/" + card + "_user/device";
    char target[PATH_MAX] = {};
    const ssize_t length = ::readlink(link.c_str(), target, sizeof target - 1);
    if (length <= 0) {
        return std::string();
    }
    const std::string device(target, static_cast<std::size_t>(length));
    const std::size_t last = device.rfind('/');
    return device.substr(last == std::string::npos ? 0 : last + 1);
}

void RestartXilinxDevicesUnder(const std::string& pciBusDir, const std::string& onlyDevice) {
    const std::string devicesDir = pciBusDir + "/devices";
    std::vector<std::string> devices;
    if (const DirPtr dir = OpenDir(devicesDir)) {
        EntryNames(dir.get(), devices);  // a partial listing still restarts what it names
    }
    devices.erase(std::remove_if(devices.begin(), devices.end(),
                                 [&](const std::string& device) {
                                     return (!onlyDevice.empty() && device != onlyDevice) ||
                                            !IsXilinxDevice(devicesDir + "/" + device + "/vendor");
                                 }),
                  devices.end());
    std::sort(devices.begin(), devices.end());
    bool told = false;
    for (const std::string& device : devices) {
        int error = WriteOne(devicesDir + "/" + device + "/remove");
        if (error == 0) {
            std::this_thread::sleep_for(kRestartSettle);
            error = WriteOne(pciBusDir + "/rescan");
            if (error == 0) {
                std::this_thread::sleep_for(kRestartSettle);
            }
        }
        // Without the rights, every device would say the same; once is enough.
        if (error != 0 && !told) {
            std::fprintf(stderr,
                         "kvpcie: cannot restart PCI device %s: %s; continuing without a "
                         "restart\n",
                         device.c_str(), ErrorText(error).c_str());
            told = true;
        }
    }
}

}  // namespace linux_backend

namespace native {

bool ListDeviceInterfaces(const Guid& interfaceClass, std::vector<std::string>& paths,
                          ListingStop& stop) {
    stop = ListingStop{};  // a directory listing has no per-interface step that can fail
    try {
        if (interfaceClass == kXdmaInterfaceClass) {
            std::vector<std::string> names;
            const std::string devDir = linux_backend::LinuxRoot() + "/dev";
            const linux_backend::DirPtr dir = linux_backend::OpenDir(devDir);
            if (!dir || !linux_backend::EntryNames(dir.get(), names)) {
                SetLastError(errno);
                return false;
            }
            for (std::string& path : linux_backend::XdmaInterfacePaths(names, devDir)) {
                paths.push_back(std::move(path));
            }
        } else if (interfaceClass == kRiffaInterfaceClass) {
            const std::string node = linux_backend::LinuxRoot() + "/dev/riffa";
            return linux_backend::RiffaDevicePaths(node.c_str(), paths);
        }
        return true;
    } catch (...) {
        SetLastError(ENOMEM);  // only the lists' allocations can throw
        return false;
    }
}

void RestartXilinxDevices(const std::string& cardPath) {
    try {
        const std::string root = linux_backend::LinuxRoot();
        const std::string device =
            cardPath.empty() ? std::string() : linux_backend::PciDeviceOfCard(root, cardPath);
        linux_backend::RestartXilinxDevicesUnder(root + "/sys/bus/pci", device);
    } catch (...) {
        // Out of memory: the cards keep running as they are, which is what a refusal does too.
    }
}

}  // namespace native
}  // namespace kvpcie::platform
