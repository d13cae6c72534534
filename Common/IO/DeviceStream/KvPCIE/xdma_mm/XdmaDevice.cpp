// The process-wide XDMA card: open, close, registers and DMA.
#include "XdmaDevice.h"

#include "XdmaCardRegisters.h"

#include "Common/WriterFirstSharedMutex.h"
#include "platform/SystemError.h"

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

namespace kvpcie::xdma {
namespace {

using platform::DeviceFilePtr;

struct OpenCard {
    WriterFirstSharedMutex access;  // see the header: shared per transfer, exclusive to open/close
    std::mutex regLock;
    std::mutex c2hLock;
    std::mutex h2cLock;
    DeviceFilePtr user;
    DeviceFilePtr h2c;
    DeviceFilePtr c2h;
    DeviceFilePtr control;
    bool isOpen = false;
};

// Never destroyed: engine threads may still call in while the process's statics go away.
OpenCard& Card() {
    static OpenCard* card = new OpenCard;
    return *card;
}

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

void CloseLocked(OpenCard& card) {
    if (!card.isOpen) {
        return;
    }
    if (card.user) {
        WriteWord(card.user.get(), kRegHostAttach, kHostDetached);
    }
    card.user.reset();
    card.c2h.reset();
    card.h2c.reset();
    card.control.reset();
    card.isOpen = false;
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
    std::printf("Device base path: %s\n", interfacePath);
    std::printf("Device node: %s\n", node);
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

void XdmaRestartDevices() {
    platform::RestartXilinxDevices();
}

bool XdmaOpen(const char* interfacePath) {
    if (interfacePath == nullptr) {
        return false;
    }
    OpenCard& card = Card();
    std::unique_lock<WriterFirstSharedMutex> exclusive(card.access);
    CloseLocked(card);
    {
        const DeviceFilePtr user =
            XdmaOpenDeviceFile(interfacePath, "user", platform::kAccessReadWrite);
        if (!user) {
            return false;
        }
        WriteWord(user.get(), kRegRestart, kRestartRequest);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    XdmaRestartDevices();
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
    card.user = std::move(user);
    card.h2c = std::move(h2c);
    card.c2h = std::move(c2h);
    card.control = std::move(control);
    card.isOpen = true;
    return true;
}

void XdmaClose() {
    OpenCard& card = Card();
    std::unique_lock<WriterFirstSharedMutex> exclusive(card.access);
    CloseLocked(card);
}

bool XdmaIsOpen() {
    OpenCard& card = Card();
    std::shared_lock<WriterFirstSharedMutex> shared(card.access);
    return card.isOpen;
}

unsigned XdmaReadReg(unsigned address) {
    OpenCard& card = Card();
    std::shared_lock<WriterFirstSharedMutex> shared(card.access);
    std::lock_guard<std::mutex> reg(card.regLock);
    unsigned value = 0;
    if (card.user) {
        XdmaReadDevice(card.user.get(), address, sizeof value, &value);
    }
    return value;
}

int XdmaWriteReg(unsigned address, const unsigned* value) {
    OpenCard& card = Card();
    std::shared_lock<WriterFirstSharedMutex> shared(card.access);
    std::lock_guard<std::mutex> reg(card.regLock);
    if (!card.user || value == nullptr) {
        return kTransferCallFailed;
    }
    return XdmaWriteDevice(card.user.get(), address, sizeof *value, value);
}

bool XdmaReadUser(unsigned address, void* buffer, unsigned size) {
    OpenCard& card = Card();
    std::shared_lock<WriterFirstSharedMutex> shared(card.access);
    std::lock_guard<std::mutex> reg(card.regLock);
    if (!card.user || (buffer == nullptr && size != 0)) {
        return false;
    }
    XdmaReadDevice(card.user.get(), address, size, buffer);
    return true;
}

bool XdmaWriteUser(unsigned address, const void* buffer, unsigned size) {
    OpenCard& card = Card();
    std::shared_lock<WriterFirstSharedMutex> shared(card.access);
    std::lock_guard<std::mutex> reg(card.regLock);
    if (!card.user || (buffer == nullptr && size != 0)) {
        return false;
    }
    XdmaWriteDevice(card.user.get(), address, size, buffer);
    return true;
}

bool XdmaReadData(unsigned address, unsigned size, void* buffer) {
    OpenCard& card = Card();
    std::shared_lock<WriterFirstSharedMutex> shared(card.access);
    std::lock_guard<std::mutex> c2h(card.c2hLock);
    return card.c2h && XdmaReadDevice(card.c2h.get(), address, size, buffer) >= 0;
}

bool XdmaWriteData(unsigned address, unsigned size, const void* buffer) {
    OpenCard& card = Card();
    std::shared_lock<WriterFirstSharedMutex> shared(card.access);
    std::lock_guard<std::mutex> h2c(card.h2cLock);
    return card.h2c && XdmaWriteDevice(card.h2c.get(), address, size, buffer) >= 0;
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
