// Device files through CreateFileW, ReadFile and WriteFile at the position that an OVERLAPPED
// record carries; event files with an overlapped read that a stop can cancel.
#include "platform/win32/Win32Handle.h"

#include "platform/Backend.h"
#include "platform/SystemError.h"

#include <atomic>
#include <cstring>

namespace kvpcie::platform {
namespace {

using win32::Handle;

void SetLastSystemError() {
    SetLastError(static_cast<int>(::GetLastError()));
}

// The position is ours, not the handle's: each transfer names it in its OVERLAPPED record,
// which Windows takes on a synchronous handle too, in one call (a device that does not support
// SetFilePointer, as Wine's devices do not, still reads at the right place). Each transfer
// moves it on by what it moved, as the file pointer would.
class Win32File : public DeviceFile {
public:
    explicit Win32File(HANDLE handle) : handle_(handle) {}

    bool Seek(std::int64_t position) override {
        if (position < 0) {
            SetLastError(Error::InvalidParameter);
            return false;
        }
        position_ = static_cast<std::uint64_t>(position);
        return true;
    }

    bool Read(void* buffer, std::uint32_t size, std::uint32_t& moved) override {
        moved = 0;
        if (Cancelled()) {
            return false;
        }
        OVERLAPPED at = AtPosition();
        DWORD count = 0;
        if (!::ReadFile(handle_.Get(), buffer, size, &count, &at)) {
            // Positioned this way, a read at the end of a file fails with this code where a
            // plain read would move nothing and succeed: it is the same outcome.
            if (::GetLastError() == ERROR_HANDLE_EOF) {
                return true;
            }
            SetLastSystemError();
            return false;
        }
        moved = count;
        position_ += count;
        return true;
    }

    bool Write(const void* buffer, std::uint32_t size, std::uint32_t& moved) override {
        moved = 0;
        if (Cancelled()) {
            return false;
        }
        OVERLAPPED at = AtPosition();
        DWORD count = 0;
        if (!::WriteFile(handle_.Get(), buffer, size, &count, &at)) {
            SetLastSystemError();
            return false;
        }
        moved = count;
        position_ += count;
        return true;
    }

    void Cancel() override { cancelled_.store(true, std::memory_order_release); }

protected:
    OVERLAPPED AtPosition() const {
        OVERLAPPED at{};
        at.Offset = static_cast<DWORD>(position_ & 0xFFFFFFFFu);
        at.OffsetHigh = static_cast<DWORD>(position_ >> 32);
        return at;
    }

    bool Cancelled() {
        if (cancelled_.load(std::memory_order_acquire)) {
            SetLastError(Error::OperationAborted);
            return true;
        }
        return false;
    }

    Handle handle_;
    std::uint64_t position_ = 0;
    std::atomic<bool> cancelled_{false};
};

// The driver answers a one-byte read when the user interrupt fires, or with 0 after 3 s. The
// read is overlapped so that Cancel can end it at once rather than after those 3 s.
class Win32EventFile final : public Win32File {
public:
    Win32EventFile(HANDLE handle, HANDLE done, HANDLE cancel)
        : Win32File(handle), done_(done), cancel_(cancel) {}

    bool Read(void* buffer, std::uint32_t size, std::uint32_t& moved) override {
        moved = 0;
        if (Cancelled()) {
            return false;
        }
        OVERLAPPED request = AtPosition();
        request.hEvent = done_.Get();
        ::ResetEvent(done_.Get());
        DWORD count = 0;
        if (!::ReadFile(handle_.Get(), buffer, size, &count, &request)) {
            if (::GetLastError() != ERROR_IO_PENDING) {
                SetLastSystemError();
                return false;
            }
            const HANDLE waits[2] = {done_.Get(), cancel_.Get()};
            if (::WaitForMultipleObjects(2, waits, FALSE, INFINITE) != WAIT_OBJECT_0) {
                ::CancelIoEx(handle_.Get(), &request);
            }
            // Waits for the request to end, whether it completed or was cancelled.
            if (!::GetOverlappedResult(handle_.Get(), &request, &count, TRUE)) {
                SetLastSystemError();
                return false;
            }
        }
        moved = count;
        position_ += count;
        return !Cancelled();
    }

    void Cancel() override {
        Win32File::Cancel();
        ::SetEvent(cancel_.Get());
    }

private:
    Handle done_;
    Handle cancel_;
};

bool IsEventNode(const std::string& path) {
    const std::size_t slash = path.find_last_of("\\/");
    const std::string node = slash == std::string::npos ? path : path.substr(slash + 1);
    return node.compare(0, 6, "event_") == 0;
}

}  // namespace

namespace native {

DeviceFilePtr OpenDeviceFile(const std::string& path, unsigned access) {
    const bool event = IsEventNode(path);
    const std::wstring wide = win32::Widen(path);
    // Unshared: while the library holds a device file, no other handle opens it.
    const HANDLE handle =
        ::CreateFileW(wide.c_str(), access, 0, nullptr, OPEN_EXISTING,
                      event ? FILE_FLAG_OVERLAPPED : FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        SetLastSystemError();
        return nullptr;
    }
    if (!event) {
        return std::make_unique<Win32File>(handle);
    }
    const HANDLE done = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const HANDLE cancel = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (done == nullptr || cancel == nullptr) {
        SetLastSystemError();
        ::CloseHandle(handle);
        if (done != nullptr) {
            ::CloseHandle(done);
        }
        if (cancel != nullptr) {
            ::CloseHandle(cancel);
        }
        return nullptr;
    }
    return std::make_unique<Win32EventFile>(handle, done, cancel);
}

}  // namespace native
}  // namespace kvpcie::platform
