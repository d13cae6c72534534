// Listing a driver's device interfaces with SetupAPI, and restarting Xilinx devices through
// the configuration manager.
#include "platform/win32/Win32Handle.h"

#include "platform/Backend.h"
#include "platform/SystemError.h"

#include <cfgmgr32.h>

#include <cwchar>
#include <vector>

namespace kvpcie::platform {
namespace {

GUID ToWindowsGuid(const Guid& guid) {
    GUID windows{};
    windows.Data1 = guid.data1;
    windows.Data2 = guid.data2;
    windows.Data3 = guid.data3;
    for (int i = 0; i < 8; ++i) {
        windows.Data4[i] = guid.data4[i];
    }
    return windows;
}

// Interface data 32 bytes, detail header 8, device info 32 on 64-bit Windows.
constexpr DWORD kPresentInterfaces = DIGCF_PRESENT | DIGCF_DEVICEINTERFACE;  // 0x12
constexpr int kInstanceIdChars = 200;
constexpr DWORD kRestartPauseMs = 20;

}  // namespace

namespace native {

bool ListDeviceInterfaces(const Guid& interfaceClass, std::vector<std::string>& paths) {
    const GUID guid = ToWindowsGuid(interfaceClass);
    const win32::DeviceInfoSet set(
        ::SetupDiGetClassDevsW(&guid, nullptr, nullptr, kPresentInterfaces));
    if (!set.Valid()) {
        SetLastError(static_cast<int>(::GetLastError()));
        return false;
    }
    try {
        for (DWORD member = 0;; ++member) {
            SP_DEVICE_INTERFACE_DATA interfaceData{};
            interfaceData.cbSize = sizeof interfaceData;
            if (!::SetupDiEnumDeviceInterfaces(set.Get(), nullptr, &guid, member, &interfaceData)) {
                return true;  // ERROR_NO_MORE_ITEMS ends the list; any other error too
            }
            DWORD required = 0;
            ::SetupDiGetDeviceInterfaceDetailW(set.Get(), &interfaceData, nullptr, 0, &required,
                                               nullptr);
            if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER || required == 0) {
                SetLastError(static_cast<int>(::GetLastError()));
                return false;
            }
            std::vector<unsigned char> storage(required);
            auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(storage.data());
            detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
            SP_DEVINFO_DATA info{};
            info.cbSize = sizeof info;
            if (!::SetupDiGetDeviceInterfaceDetailW(set.Get(), &interfaceData, detail, required,
                                                    nullptr, &info)) {
                SetLastError(static_cast<int>(::GetLastError()));
                return false;
            }
            paths.push_back(win32::Narrow(detail->DevicePath));
        }
    } catch (...) {
        SetLastError(Error::NotEnoughMemory);
        return false;
    }
}

void RestartXilinxDevices() {
    // Every present device of every class: the cards may sit behind any driver at this point.
    const win32::DeviceInfoSet set(
        ::SetupDiGetClassDevsW(nullptr, nullptr, nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES));
    if (!set.Valid()) {
        return;
    }
    for (DWORD index = 0;; ++index) {
        SP_DEVINFO_DATA info{};
        info.cbSize = sizeof info;
        if (!::SetupDiEnumDeviceInfo(set.Get(), index, &info)) {
            return;
        }
        wchar_t instanceId[kInstanceIdChars] = {};
        if (::CM_Get_Device_IDW(info.DevInst, instanceId, kInstanceIdChars, 0) != CR_SUCCESS ||
            std::wcsstr(instanceId, L"VEN_10EE") == nullptr) {
            continue;
        }
        // Without administrator rights both calls fail and the card simply keeps running.
        ::CM_Disable_DevNode(info.DevInst, 0);
        ::Sleep(kRestartPauseMs);
        ::CM_Enable_DevNode(info.DevInst, 0);
        ::Sleep(kRestartPauseMs);
    }
}

}  // namespace native
}  // namespace kvpcie::platform
