// Owning wrappers for the Windows handles the backend opens.
#pragma once

#include <windows.h>

#include <setupapi.h>

#include <string>

namespace kvpcie::platform::win32 {

class Handle {
public:
    Handle() = default;
    explicit Handle(HANDLE handle) : handle_(handle) {}
    ~Handle() { Reset(); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    bool Valid() const { return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE; }
    HANDLE Get() const { return handle_; }
    void Reset() {
        if (Valid()) {
            ::CloseHandle(handle_);
        }
        handle_ = nullptr;
    }

private:
    HANDLE handle_ = nullptr;
};

class DeviceInfoSet {
public:
    explicit DeviceInfoSet(HDEVINFO set) : set_(set) {}
    ~DeviceInfoSet() {
        if (Valid()) {
            ::SetupDiDestroyDeviceInfoList(set_);
        }
    }
    DeviceInfoSet(const DeviceInfoSet&) = delete;
    DeviceInfoSet& operator=(const DeviceInfoSet&) = delete;

    bool Valid() const { return set_ != INVALID_HANDLE_VALUE; }
    HDEVINFO Get() const { return set_; }

private:
    HDEVINFO set_;
};

// UTF-8 paths of the layers above to the wide strings of the Windows calls, and back.
std::wstring Widen(const std::string& text);
std::string Narrow(const wchar_t* text);

}  // namespace kvpcie::platform::win32
