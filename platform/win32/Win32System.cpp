// Windows system codes and their texts, local time, thread pinning and string conversion.
#include "platform/win32/Win32Handle.h"

#include "platform/LocalTime.h"
#include "platform/SystemError.h"
#include "platform/ThreadAffinity.h"

#if defined(__MINGW32__)
#include <pthread.h>
#endif

namespace kvpcie::platform {

int SystemCode(Error error) {
    switch (error) {
        case Error::FileNotFound:
            return ERROR_FILE_NOT_FOUND;
        case Error::AccessDenied:
            return ERROR_ACCESS_DENIED;
        case Error::InvalidHandle:
            return ERROR_INVALID_HANDLE;
        case Error::InvalidParameter:
            return ERROR_INVALID_PARAMETER;
        case Error::NameTooLong:
            return ERROR_FILENAME_EXCED_RANGE;
        case Error::DeviceRemoved:
            return ERROR_DEVICE_REMOVED;
        case Error::IoFailed:
            return ERROR_IO_DEVICE;
        case Error::OperationAborted:
            return ERROR_OPERATION_ABORTED;
        case Error::NotEnoughMemory:
            return ERROR_NOT_ENOUGH_MEMORY;
        case Error::NoMoreItems:
            return ERROR_NO_MORE_ITEMS;
        case Error::MoreData:
            return ERROR_MORE_DATA;
    }
    return ERROR_INVALID_PARAMETER;
}

// ERROR_NO_SUCH_DEVICE, which mingw-w64's headers do not define.
constexpr int kErrorNoSuchDevice = 433;

DeviceState DeviceStateAfter(int code) {
    switch (code) {
        case ERROR_DEVICE_REMOVED:
        case ERROR_DEV_NOT_EXIST:
        case kErrorNoSuchDevice:
        case ERROR_DEVICE_NOT_CONNECTED:
            return DeviceState::Gone;
        // Errors that a card that went away gives as well as one that is there; a register
        // read tells them apart. (A handle of a device that was removed under it reads
        // ERROR_ACCESS_DENIED.)
        case ERROR_IO_DEVICE:
        case ERROR_GEN_FAILURE:
        case ERROR_READ_FAULT:
        case ERROR_WRITE_FAULT:
        case ERROR_NOT_READY:
        case ERROR_ACCESS_DENIED:
            return DeviceState::PerhapsGone;
        default:
            return DeviceState::Present;
    }
}

std::string ErrorText(int code) {
    char buffer[512] = {};
    const DWORD length =
        ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                         static_cast<DWORD>(code), 0, buffer, sizeof buffer, nullptr);
    try {
        std::string text(buffer, length);
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
            text.pop_back();
        }
        return text.empty() ? "Unknown error " + std::to_string(code) : text;
    } catch (...) {
        return std::string();
    }
}

LocalTime LocalTimeNow() {
    SYSTEMTIME now{};
    ::GetLocalTime(&now);
    return LocalTime{now.wYear,   now.wMonth,  now.wDay,         now.wHour,
                     now.wMinute, now.wSecond, now.wMilliseconds};
}

namespace {

bool PinHandleToCore(HANDLE handle, unsigned core) {
    const std::uint64_t mask = AffinityMaskForCore(core);
    if (mask == 0) {
        SetLastError(Error::InvalidParameter);
        return false;
    }
    if (::SetThreadAffinityMask(handle, static_cast<DWORD_PTR>(mask)) == 0) {
        SetLastError(static_cast<int>(::GetLastError()));
        return false;
    }
    return true;
}

}  // namespace

bool PinThreadToCore(std::thread& thread, unsigned core) {
    if (!thread.joinable()) {
        SetLastError(Error::InvalidParameter);
        return false;
    }
#if defined(__MINGW32__)
    // mingw's std::thread is a winpthreads thread; the call takes its Win32 handle.
    return PinHandleToCore(pthread_gethandle(thread.native_handle()), core);
#else
    return PinHandleToCore(static_cast<HANDLE>(thread.native_handle()), core);
#endif
}

bool PinThisThreadToCore(unsigned core) {
    return PinHandleToCore(::GetCurrentThread(), core);
}

void UsePreciseSleeps() {
    // Windows has no per-thread timer slack; raising the system timer resolution would change
    // the whole process, so the sleeps stay as the system gives them.
}

bool RaiseThisThreadToRealTime() {
    if (!::SetThreadPriority(::GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL)) {
        SetLastError(static_cast<int>(::GetLastError()));
        return false;
    }
    return true;
}

void NameThisThread(const char* name) {
    // SetThreadDescription exists from Windows 10 1607 on; looked up so that older systems
    // still load the DLL.
    using SetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);
    const HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
    const auto setDescription = kernel == nullptr
                                    ? nullptr
                                    : reinterpret_cast<SetDescription>(reinterpret_cast<void*>(
                                          ::GetProcAddress(kernel, "SetThreadDescription")));
    if (setDescription != nullptr) {
        setDescription(::GetCurrentThread(), win32::Widen(std::string(name).substr(0, 15)).c_str());
    }
}

namespace win32 {

std::wstring Widen(const std::string& text) {
    if (text.empty()) {
        return std::wstring();
    }
    const int length =
        ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(),
                          length);
    return wide;
}

std::string Narrow(const wchar_t* text) {
    const int length = ::WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (length <= 1) {
        return std::string();
    }
    std::string narrow(static_cast<std::size_t>(length - 1), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text, -1, narrow.data(), length, nullptr, nullptr);
    return narrow;
}

}  // namespace win32
}  // namespace kvpcie::platform
