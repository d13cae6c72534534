// An XDMA card: open, close, registers and DMA.
#include "XdmaDevice.h"

#include "drivers/XdmaCardRegisters.h"

#include "Common/ConsoleMessages.h"
#include "Common/WriterFirstSharedMutex.h"
#include "platform/SystemError.h"

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

namespace kvpcie::xdma {
namespace {

using platform::DeviceFilePtr;

// The driver's seek distance is a signed 32-bit value: positions of 2 GiB and more come out
// negative, and the OS refuses them.
std::int64_t SeekDistance(std::uint64_t position) {
    const auto low = static_cast<std::uint32_t>(position);
    return low <= INT32_MAX ? std::int64_t{low} : std::int64_t{low} - (std::int64_t{1} << 32);
}

bool SeekTo(XdmaFileHandle file, std::uint64_t position) {
    const bool ok = file != nullptr
                        ? file->Seek(SeekDistance(position))
                        : (platform::SetLastError(platform::Error::InvalidHandle), false);
    if (!ok) {
        std::fprintf(stderr, "Error setting file pointer, win32 error code: %ld\n",
                     static_cast<long>(platform::LastError()));
    }
    return ok;
}

// Seek once, move the whole 8 MiB pieces back to back (the file position advances), seek to
// the remainder and move it, possibly 0 bytes. The order is the driver's and binds.
template <typename Byte, typename MovePiece>
int TransferInPieces(XdmaFileHandle file, unsigned offset, unsigned size, Byte* buffer,
                     MovePiece movePiece) {
    if ((buffer == nullptr && size != 0) || size > static_cast<unsigned>(INT_MAX)) {
        platform::SetLastError(platform::Error::InvalidParameter);
        return kTransferCallFailed;
    }
    if (!SeekTo(file, offset)) {
        return kTransferSeekFailed;
    }
    const auto move = [&](std::uint64_t at, std::uint32_t length) {
        std::uint32_t moved = 0;
        if (!movePiece(buffer == nullptr ? nullptr : buffer + at, length, moved)) {
            return kTransferCallFailed;
        }
        return moved == length ? 0 : kTransferShort;
    };
    const unsigned pieces = size / kDmaChunkBytes;
    for (unsigned i = 0; i < pieces; ++i) {
        if (const int result = move(std::uint64_t{i} * kDmaChunkBytes, kDmaChunkBytes)) {
            return result;
        }
    }
    const std::uint64_t done = std::uint64_t{pieces} * kDmaChunkBytes;
    if (!SeekTo(file, offset + done)) {
        return kTransferSeekFailed;
    }
    if (const int result = move(done, static_cast<std::uint32_t>(size - done))) {
        return result;
    }
    return static_cast<int>(size);
}

int WriteWord(XdmaFileHandle user, unsigned address, unsigned value) {
    return XdmaWriteDevice(user, address, sizeof value, &value);
}

}  // namespace

int XdmaGetDevices(const platform::Guid& interfaceClass, char** paths) {
    if (paths == nullptr) {
        return 0;
    }
    for (int slot = 0; slot < kPathSlots; ++slot) {
        paths[slot] = static_cast<char*>(std::calloc(1, kPathBufferBytes));
        if (paths[slot] == nullptr) {
            for (int allocated = 0; allocated < slot; ++allocated) {
                std::free(paths[allocated]);
                paths[allocated] = nullptr;
            }
            return 0;
        }
    }
    std::vector<std::string> found;
    if (!platform::ListDeviceInterfaces(interfaceClass, found)) {
        std::exit(-1);  // no device set: the process ends, and says nothing of its own
    }
    int listed = 0;
    for (const std::string& path : found) {
        if (listed == kPathSlots) {
            break;  // no room: the fifth card and later are not listed
        }
        std::strncpy(paths[listed], path.c_str(), kListedPathMaxBytes);
        ++listed;
    }
    return listed;
}

DeviceFilePtr XdmaOpenDeviceFile(const char* interfacePath, const char* node, unsigned access) {
    if (interfacePath == nullptr || node == nullptr) {
        platform::SetLastError(platform::Error::InvalidParameter);
        return nullptr;
    }
    PrintConsoleMessage("Device base path: %s\n", interfacePath);
    PrintConsoleMessage("Device node: %s\n", node);
    char path[kPathBufferBytes];
    const int length = std::snprintf(path, sizeof path, "%s\\%s", interfacePath, node);
    DeviceFilePtr file;
    if (length < 0 || length >= kPathBufferBytes) {
        platform::SetLastError(platform::Error::NameTooLong);  // never truncate to another path
    } else {
        file = platform::OpenDeviceFile(path, access);
    }
    if (!file) {
        std::fprintf(stderr, "Error opening device, win32 error code: %ld\n",
                     static_cast<long>(platform::LastError()));
    }
    return file;
}

void XdmaRestartDevices(const char* cardPath) {
    platform::RestartXilinxDevices(cardPath != nullptr ? cardPath : "");
}

XdmaCard::XdmaCard() = default;

XdmaCard::~XdmaCard() {
    XdmaClose();
}

void XdmaCard::CloseLocked() {
    if (!isOpen_) {
        return;
    }
    if (user_) {
        WriteWord(user_.get(), kRegHostAttach, kHostDetached);
    }
    user_.reset();
    c2h_.reset();
    h2c_.reset();
    control_.reset();
    path_.clear();
    isOpen_ = false;
}

bool XdmaCard::XdmaOpen(const char* interfacePath) {
    if (interfacePath == nullptr) {
        return false;
    }
    std::unique_lock<WriterFirstSharedMutex> exclusive(access_);
    CloseLocked();
    {
        const DeviceFilePtr user =
            XdmaOpenDeviceFile(interfacePath, "user", platform::kAccessReadWrite);
        if (!user) {
            return false;
        }
        WriteWord(user.get(), kRegRestart, kRestartRequest);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    XdmaRestartDevices(interfacePath);
    // Built locally and kept only when every file opened: a failure closes what came before.
    DeviceFilePtr user = XdmaOpenDeviceFile(interfacePath, "user", platform::kAccessReadWrite);
    if (!user) {
        return false;
    }
    DeviceFilePtr h2c = XdmaOpenDeviceFile(interfacePath, "h2c_0", platform::kAccessWrite);
    if (!h2c) {
        return false;
    }
    DeviceFilePtr c2h = XdmaOpenDeviceFile(interfacePath, "c2h_0", platform::kAccessRead);
    if (!c2h) {
        return false;
    }
    DeviceFilePtr control = XdmaOpenDeviceFile(interfacePath, "control", platform::kAccessRead);
    if (!control) {
        return false;
    }
    WriteWord(user.get(), kRegHostAttach, kHostAttached);
    user_ = std::move(user);
    h2c_ = std::move(h2c);
    c2h_ = std::move(c2h);
    control_ = std::move(control);
    path_ = interfacePath;
    isOpen_ = true;
    {
        std::lock_guard<std::mutex> lock(lostLock_);
        openCount_.fetch_add(1, std::memory_order_acq_rel);
        lost_.store(false, std::memory_order_release);
    }
    return true;
}

void XdmaCard::XdmaClose() {
    std::unique_lock<WriterFirstSharedMutex> exclusive(access_);
    CloseLocked();
}

bool XdmaCard::XdmaIsOpen() const {
    std::shared_lock<WriterFirstSharedMutex> shared(access_);
    return isOpen_;
}

std::string XdmaCard::Path() const {
    std::shared_lock<WriterFirstSharedMutex> shared(access_);
    return path_;
}

template <typename Move>
std::optional<int> XdmaCard::Transfer(std::mutex& lock, const platform::DeviceFilePtr& file,
                                      Move move) {
    int result = kTransferCallFailed;
    int code = 0;
    std::uint64_t openCount = 0;
    {
        std::shared_lock<WriterFirstSharedMutex> shared(access_);
        std::lock_guard<std::mutex> guard(lock);
        if (!file) {
            return std::nullopt;
        }
        result = move(file.get());
        if (result >= 0) {
            return result;
        }
        code = platform::LastError();
        openCount = OpenCount();
    }
    // Looked at with the card's locks let go: it may read a register itself.
    NoteFailure(code, openCount);
    return result;
}

unsigned XdmaCard::XdmaReadReg(unsigned address) {
    unsigned value = 0;
    ReadRegChecked(address, value);
    return value;
}

bool XdmaCard::ReadRegChecked(unsigned address, unsigned& value) {
    value = 0;
    const std::optional<int> result = Transfer(regLock_, user_, [&](XdmaFileHandle user) {
        return XdmaReadDevice(user, address, sizeof value, &value);
    });
    if (result == static_cast<int>(sizeof value)) {
        return true;
    }
    value = 0;
    return false;
}

int XdmaCard::XdmaWriteReg(unsigned address, const unsigned* value) {
    if (value == nullptr) {
        return kTransferCallFailed;
    }
    return Transfer(regLock_, user_, [&](XdmaFileHandle user) {
               return XdmaWriteDevice(user, address, sizeof *value, value);
           }).value_or(kTransferCallFailed);
}

// A failed user-space transfer is not reported here, only a closed card or a null buffer.
bool XdmaCard::XdmaReadUser(unsigned address, void* buffer, unsigned size) {
    return (buffer != nullptr || size == 0) &&
           Transfer(regLock_, user_, [&](XdmaFileHandle user) {
               return XdmaReadDevice(user, address, size, buffer);
           }).has_value();
}

bool XdmaCard::XdmaWriteUser(unsigned address, const void* buffer, unsigned size) {
    return (buffer != nullptr || size == 0) &&
           Transfer(regLock_, user_, [&](XdmaFileHandle user) {
               return XdmaWriteDevice(user, address, size, buffer);
           }).has_value();
}

bool XdmaCard::XdmaReadData(unsigned address, unsigned size, void* buffer) {
    const std::optional<int> result = Transfer(c2hLock_, c2h_, [&](XdmaFileHandle c2h) {
        return XdmaReadDevice(c2h, address, size, buffer);
    });
    return result && *result >= 0;
}

bool XdmaCard::XdmaWriteData(unsigned address, unsigned size, const void* buffer) {
    const std::optional<int> result = Transfer(h2cLock_, h2c_, [&](XdmaFileHandle h2c) {
        return XdmaWriteDevice(h2c, address, size, buffer);
    });
    return result && *result >= 0;
}

// ---------------------------------------------------------------- whether the card is there

bool XdmaCard::StillAnswers() {
    std::shared_lock<WriterFirstSharedMutex> shared(access_);
    std::lock_guard<std::mutex> reg(regLock_);
    unsigned value = 0;
    return user_ && XdmaReadDevice(user_.get(), kRegTimingClockHz, sizeof value, &value) ==
                        static_cast<int>(sizeof value);
}

void XdmaCard::NoteFailure(int code, std::uint64_t openCount) {
    const platform::DeviceState state = platform::DeviceStateAfter(code);
    if (state == platform::DeviceState::Present || IsLost() || openCount != OpenCount()) {
        return;
    }
    // A DMA that failed on a card that is there gives the same I/O error as a card that went.
    if (state == platform::DeviceState::PerhapsGone && StillAnswers()) {
        return;
    }
    std::lock_guard<std::mutex> lock(lostLock_);
    if (IsLost() || openCount != OpenCount()) {
        return;
    }
    lostAtMs_ = std::chrono::duration_cast<std::chrono::milliseconds>(
                    std::chrono::system_clock::now().time_since_epoch())
                    .count();
    lostReason_ = platform::ErrorText(code);
    lost_.store(true, std::memory_order_release);
}

std::int64_t XdmaCard::LostAtMs() const {
    std::lock_guard<std::mutex> lock(lostLock_);
    return lost_.load(std::memory_order_acquire) ? lostAtMs_ : 0;
}

std::string XdmaCard::LostReason() const {
    std::lock_guard<std::mutex> lock(lostLock_);
    return lost_.load(std::memory_order_acquire) ? lostReason_ : std::string();
}

int XdmaReadDevice(XdmaFileHandle file, unsigned offset, unsigned size, void* buffer) {
    return TransferInPieces(file, offset, size, static_cast<std::uint8_t*>(buffer),
                            [file](std::uint8_t* at, std::uint32_t length, std::uint32_t& moved) {
                                return file->Read(at, length, moved);
                            });
}

int XdmaWriteDevice(XdmaFileHandle file, unsigned offset, unsigned size, const void* buffer) {
    return TransferInPieces(
        file, offset, size, static_cast<const std::uint8_t*>(buffer),
        [file](const std::uint8_t* at, std::uint32_t length, std::uint32_t& moved) {
            return file->Write(at, length, moved);
        });
}

}  // namespace kvpcie::xdma
