// Device-control requests with DeviceIoControl: overlapped, with a manual-reset event of its own
// per request, on the long-lived handle of an open device; synchronous for listing.
#include "platform/win32/Win32Handle.h"

#include "platform/Backend.h"
#include "platform/SystemError.h"

namespace kvpcie::platform {
namespace {

class Win32ControlDevice final : public ControlDevice {
public:
    Win32ControlDevice(HANDLE handle, bool overlapped) : handle_(handle), overlapped_(overlapped) {}

    ControlResult Control(std::uint32_t code, const void* input, std::uint32_t inputBytes,
                          void* output, std::uint32_t outputBytes) override {
        ControlResult result;
        DWORD count = 0;
        if (!overlapped_) {
            if (::DeviceIoControl(handle_.Get(), code, const_cast<void*>(input), inputBytes, output,
                                  outputBytes, &count, nullptr)) {
                result.outcome = ControlResult::Outcome::Completed;
                result.count = count;
            } else {
                result.error = static_cast<int>(::GetLastError());
            }
            return result;
        }
        // Created signalled, as the driver's requests expect; released with the request.
        const win32::Handle event(::CreateEventW(nullptr, TRUE, TRUE, nullptr));
        if (!event.Valid()) {
            result.error = static_cast<int>(::GetLastError());
            return result;
        }
        OVERLAPPED request{};
        request.hEvent = event.Get();
        if (::DeviceIoControl(handle_.Get(), code, const_cast<void*>(input), inputBytes, output,
                              outputBytes, &count, &request)) {
            result.outcome = ControlResult::Outcome::Completed;
            result.count = count;
            return result;
        }
        const DWORD error = ::GetLastError();
        if (error != ERROR_IO_PENDING) {
            result.error = static_cast<int>(error);
            return result;
        }
        ::WaitForSingleObject(event.Get(), INFINITE);
        if (::GetOverlappedResult(handle_.Get(), &request, &count, FALSE)) {
            result.outcome = ControlResult::Outcome::CompletedLater;
        } else if (::GetLastError() == ERROR_OPERATION_ABORTED) {
            result.outcome = ControlResult::Outcome::AbortedLater;
        } else {
            result.outcome = ControlResult::Outcome::FailedLater;
            result.error = static_cast<int>(::GetLastError());
        }
        result.count = count;
        return result;
    }

private:
    win32::Handle handle_;
    const bool overlapped_;
};

}  // namespace

namespace native {

ControlDevicePtr OpenControlDevice(const std::string& path, bool overlapped) {
    SECURITY_ATTRIBUTES security{};
    security.nLength = sizeof security;  // 24 bytes
    security.bInheritHandle = TRUE;
    const std::wstring wide = win32::Widen(path);
    const DWORD flags =
        overlapped ? FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING : FILE_ATTRIBUTE_NORMAL;
    const HANDLE handle = ::CreateFileW(
        wide.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
        overlapped ? &security : nullptr, OPEN_EXISTING, flags, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        SetLastError(static_cast<int>(::GetLastError()));
        return nullptr;
    }
    return std::make_unique<Win32ControlDevice>(handle, overlapped);
}

}  // namespace native
}  // namespace kvpcie::platform
