// Device files of the Linux XDMA driver's nodes and of plain files, with Windows-style
// positions kept here: the driver's DMA nodes never advance the offset they are given, and
// its register nodes cannot seek.
#include "platform/linux/LinuxDeviceFile.h"

#include "platform/Backend.h"
#include "platform/SystemError.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/types.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdint>

namespace kvpcie::platform {
namespace linux_backend {
namespace {

template <typename Call>
auto RetryOnInterrupt(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

bool IsNumbered(const std::string& node, const std::string& prefix) {
    if (node.size() <= prefix.size() || node.compare(0, prefix.size(), prefix) != 0) {
        return false;
    }
    for (std::size_t i = prefix.size(); i < node.size(); ++i) {
        if (node[i] < '0' || node[i] > '9') {
            return false;
        }
    }
    return true;
}

// What every kind shares: the descriptor, the access mask, the position and the cancel.
class LinuxFile : public DeviceFile {
public:
    LinuxFile(int fd, unsigned access) noexcept : fd_(fd), access_(access) {}
    ~LinuxFile() override { ::close(fd_); }

    bool Seek(std::int64_t position) override {
        if (position < 0) {
            SetLastError(EINVAL);
            return false;
        }
        position_ = position;
        return true;
    }

    void Cancel() override { cancelled_.store(true, std::memory_order_release); }

protected:
    bool MayTransfer(unsigned neededAccess, const void* buffer, std::uint32_t size) const {
        if (cancelled_.load(std::memory_order_acquire)) {
            SetLastError(ECANCELED);
            return false;
        }
        // EBADF is what the OS itself answers; checking first keeps event waits from hanging.
        if ((access_ & neededAccess) == 0) {
            SetLastError(EBADF);
            return false;
        }
        if (buffer == nullptr && size != 0) {
            SetLastError(EINVAL);
            return false;
        }
        return true;
    }

    // Takes the result of one system call into moved and the position.
    bool Moved(ssize_t result, std::uint32_t& moved) {
        if (result < 0) {
            SetLastError(errno);
            return false;
        }
        moved = static_cast<std::uint32_t>(result);
        position_ += result;
        return true;
    }

    const int fd_;
    const unsigned access_;
    std::int64_t position_ = 0;
    std::atomic<bool> cancelled_{false};
};

// The driver answers only 4-byte calls at word-aligned offsets on these nodes.
class RegisterFile final : public LinuxFile {
public:
    using LinuxFile::LinuxFile;

    bool Read(void* buffer, std::uint32_t size, std::uint32_t& moved) override {
        auto* out = static_cast<char*>(buffer);
        return MoveWords(kAccessRead, buffer, size, moved, [&](std::uint32_t done) {
            return ::pread(fd_, out + done, 4, position_);
        });
    }

    bool Write(const void* buffer, std::uint32_t size, std::uint32_t& moved) override {
        const auto* in = static_cast<const char*>(buffer);
        return MoveWords(kAccessWrite, buffer, size, moved, [&](std::uint32_t done) {
            return ::pwrite(fd_, in + done, 4, position_);
        });
    }

private:
    template <typename MoveWord>
    bool MoveWords(unsigned neededAccess, const void* buffer, std::uint32_t size,
                   std::uint32_t& moved, MoveWord moveWord) {
        moved = 0;
        if (!MayTransfer(neededAccess, buffer, size)) {
            return false;
        }
        if (position_ % 4 != 0 || size % 4 != 0) {
            SetLastError(EINVAL);
            return false;
        }
        while (moved < size) {
            std::uint32_t word = 0;
            if (!Moved(RetryOnInterrupt([&] { return moveWord(moved); }), word)) {
                return false;
            }
            moved += word;
            if (word < 4) {
                break;  // the end of the register space
            }
        }
        return true;
    }
};

// DMA nodes and plain files: the whole block in one call at the position.
class StreamFile final : public LinuxFile {
public:
    using LinuxFile::LinuxFile;

    bool Read(void* buffer, std::uint32_t size, std::uint32_t& moved) override {
        moved = 0;
        return MayTransfer(kAccessRead, buffer, size) &&
               Moved(RetryOnInterrupt([&] { return ::pread(fd_, buffer, size, position_); }),
                     moved);
    }

    bool Write(const void* buffer, std::uint32_t size, std::uint32_t& moved) override {
        moved = 0;
        return MayTransfer(kAccessWrite, buffer, size) &&
               Moved(RetryOnInterrupt([&] { return ::pwrite(fd_, buffer, size, position_); }),
                     moved);
    }
};

// The driver blocks a 4-byte read until the user interrupt fires; the wait polls an eventfd
// beside the node so that Cancel can end it.
class EventFile final : public LinuxFile {
public:
    EventFile(int fd, int cancelFd, unsigned access) noexcept
        : LinuxFile(fd, access), cancelFd_(cancelFd) {}
    ~EventFile() override { ::close(cancelFd_); }

    bool Read(void* buffer, std::uint32_t size, std::uint32_t& moved) override {
        moved = 0;
        if (!MayTransfer(kAccessRead, buffer, size)) {
            return false;
        }
        if (size == 0) {
            return true;
        }
        if (!WaitReadable()) {
            return false;
        }
        std::uint32_t value = 0;
        const ssize_t result = RetryOnInterrupt([&] { return ::read(fd_, &value, sizeof value); });
        if (result < 0) {
            SetLastError(errno);
            return false;
        }
        if (result > 0) {
            *static_cast<std::uint8_t*>(buffer) = value != 0 ? 1 : 0;
            moved = 1;
        }
        return true;
    }

    bool Write(const void*, std::uint32_t, std::uint32_t& moved) override {
        moved = 0;
        SetLastError(cancelled_.load(std::memory_order_acquire) ? ECANCELED : EINVAL);
        return false;
    }

    void Cancel() override {
        LinuxFile::Cancel();
        const std::uint64_t one = 1;
        // Fails only when the counter would overflow, long after the first wake-up.
        [[maybe_unused]] const ssize_t written = ::write(cancelFd_, &one, sizeof one);
    }

private:
    bool WaitReadable() {
        pollfd fds[2] = {{fd_, POLLIN, 0}, {cancelFd_, POLLIN, 0}};
        for (;;) {
            if (RetryOnInterrupt([&] { return ::poll(fds, 2, -1); }) < 0) {
                SetLastError(errno);
                return false;
            }
            // The counter is never drained, so every later wait ends here at once too.
            if (fds[1].revents != 0 || cancelled_.load(std::memory_order_acquire)) {
                SetLastError(ECANCELED);
                return false;
            }
            if ((fds[0].revents & POLLNVAL) != 0) {
                SetLastError(EBADF);
                return false;
            }
            if (fds[0].revents != 0) {
                return true;  // readable, hung up or failed: the read tells which
            }
        }
    }

    const int cancelFd_;
};

}  // namespace

NodeFile MapNodePath(const std::string& path) {
    const std::size_t separator = path.rfind('\\');
    if (separator == std::string::npos) {
        return {path, NodeKind::Plain};
    }
    const std::string base = path.substr(0, separator);
    const std::string node = path.substr(separator + 1);
    if (node == "user" || node == "control") {
        return {base + "_" + node, NodeKind::Register};
    }
    if (IsNumbered(node, "c2h_") || IsNumbered(node, "h2c_")) {
        return {base + "_" + node, NodeKind::Dma};
    }
    const std::string eventPrefix = "event_";
    if (IsNumbered(node, eventPrefix)) {
        return {base + "_events_" + node.substr(eventPrefix.size()), NodeKind::Event};
    }
    return {base + "_" + node, NodeKind::Plain};
}

DeviceFilePtr MakeDeviceFile(int fd, NodeKind kind, unsigned access) {
    int cancelFd = -1;
    if (kind == NodeKind::Event) {
        cancelFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (cancelFd < 0) {
            SetLastError(errno);
            ::close(fd);
            return nullptr;
        }
    }
    try {
        switch (kind) {
            case NodeKind::Register:
                return std::make_unique<RegisterFile>(fd, access);
            case NodeKind::Event:
                return std::make_unique<EventFile>(fd, cancelFd, access);
            case NodeKind::Dma:
            case NodeKind::Plain:
                break;
        }
        return std::make_unique<StreamFile>(fd, access);
    } catch (...) {
        // Only the allocation can throw, before any file took the descriptors.
        if (cancelFd >= 0) {
            ::close(cancelFd);
        }
        ::close(fd);
        SetLastError(ENOMEM);
        return nullptr;
    }
}

}  // namespace linux_backend

namespace native {

DeviceFilePtr OpenDeviceFile(const std::string& path, unsigned access) {
    int flags = 0;
    switch (access & kAccessReadWrite) {
        case kAccessRead:
            flags = O_RDONLY;
            break;
        case kAccessWrite:
            flags = O_WRONLY;
            break;
        case kAccessReadWrite:
            flags = O_RDWR;
            break;
        default:
            SetLastError(EINVAL);
            return nullptr;
    }
    try {
        const linux_backend::NodeFile node = linux_backend::MapNodePath(path);
        const int fd = linux_backend::RetryOnInterrupt(
            [&] { return ::open(node.path.c_str(), flags | O_CLOEXEC); });
        if (fd < 0) {
            SetLastError(errno);
            return nullptr;
        }
        return linux_backend::MakeDeviceFile(fd, node.kind, access & kAccessReadWrite);
    } catch (...) {
        SetLastError(ENOMEM);  // only the path's copies can throw
        return nullptr;
    }
}

}  // namespace native
}  // namespace kvpcie::platform
