// Listing a driver's device interfaces with SetupAPI, and restarting Xilinx devices through
// the configuration manager.
#include "platform/win32/Win32InterfaceWalk.h"

#include "platform/Backend.h"
#include "platform/SystemError.h"

#include <cfgmgr32.h>

#include <cstddef>
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

namespace win32 {
namespace {

void* AllocateFromProcessHeap(std::size_t bytes) {
    return ::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, bytes);
}

void ReleaseToProcessHeap(void* block) {
    ::HeapFree(::GetProcessHeap(), 0, block);
}

// The device set, released through the same calls that gave it.
class WalkedSet {
public:
    WalkedSet(const SetupApiCalls& api, HDEVINFO set) : api_(api), set_(set) {}
    ~WalkedSet() {
        if (Valid()) {
            api_.destroyInfoList(set_);
        }
    }
    WalkedSet(const WalkedSet&) = delete;
    WalkedSet& operator=(const WalkedSet&) = delete;
    bool Valid() const { return set_ != INVALID_HANDLE_VALUE && set_ != nullptr; }
    HDEVINFO Get() const { return set_; }

private:
    const SetupApiCalls& api_;
    HDEVINFO set_;
};

}  // namespace

const SetupApiCalls& SystemSetupApi() {
    static const SetupApiCalls calls{&::SetupDiGetClassDevsW,
                                     &::SetupDiEnumDeviceInterfaces,
                                     &::SetupDiGetDeviceInterfaceDetailW,
                                     &::SetupDiDestroyDeviceInfoList,
                                     &AllocateFromProcessHeap,
                                     &ReleaseToProcessHeap};
    return calls;
}

const SetupApiCalls*& ListingSetupApi() {
    static const SetupApiCalls* calls = &SystemSetupApi();
    return calls;
}

bool WalkDeviceInterfaces(const SetupApiCalls& api, const GUID& interfaceClass,
                          std::vector<std::string>& paths, ListingStop& stop) {
    stop = ListingStop{};
    const WalkedSet set(api,
                        api.getClassDevs(&interfaceClass, nullptr, nullptr, kPresentInterfaces));
    if (!set.Valid()) {
        SetLastError(static_cast<int>(::GetLastError()));
        return false;
    }
    const auto stopHere = [&stop](ListingStop::Reason reason, int error) {
        stop.reason = reason;
        stop.error = error;
        return true;
    };
    for (DWORD member = 0;; ++member) {
        SP_DEVICE_INTERFACE_DATA interfaceData{};
        interfaceData.cbSize = sizeof interfaceData;
        if (!api.enumInterfaces(set.Get(), nullptr, &interfaceClass, member, &interfaceData)) {
            return true;  // ERROR_NO_MORE_ITEMS ends the list; any other error too
        }
        DWORD required = 0;
        api.getInterfaceDetail(set.Get(), &interfaceData, nullptr, 0, &required, nullptr);
        const DWORD sizeError = ::GetLastError();
        // A record too small for its own header is refused as invalid data.
        if (sizeError != ERROR_INSUFFICIENT_BUFFER ||
            required < sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W)) {
            return stopHere(
                ListingStop::Reason::InterfaceDetail,
                static_cast<int>(sizeError == ERROR_INSUFFICIENT_BUFFER ? ERROR_INVALID_DATA
                                                                        : sizeError));
        }
        void* storage = api.allocateZeroed(required);
        if (storage == nullptr) {
            return stopHere(ListingStop::Reason::OutOfMemory, ERROR_NOT_ENOUGH_MEMORY);
        }
        auto* detail = static_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(storage);
        detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
        SP_DEVINFO_DATA info{};
        info.cbSize = sizeof info;
        if (!api.getInterfaceDetail(set.Get(), &interfaceData, detail, required, nullptr, &info)) {
            const int error = static_cast<int>(::GetLastError());
            api.release(storage);
            return stopHere(ListingStop::Reason::InterfaceDetail, error);
        }
        // The path ends within the record, even if the OS did not end it.
        const std::size_t pathChars =
            (required - offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath)) / sizeof(wchar_t);
        try {
            paths.push_back(
                Narrow(std::wstring(detail->DevicePath, ::wcsnlen(detail->DevicePath, pathChars))
                           .c_str()));
        } catch (...) {
            api.release(storage);
            return stopHere(ListingStop::Reason::OutOfMemory, ERROR_NOT_ENOUGH_MEMORY);
        }
        api.release(storage);
    }
}

}  // namespace win32

namespace native {

bool ListDeviceInterfaces(const Guid& interfaceClass, std::vector<std::string>& paths,
                          ListingStop& stop) {
    return win32::WalkDeviceInterfaces(*win32::ListingSetupApi(), ToWindowsGuid(interfaceClass),
                                       paths, stop);
}

void RestartXilinxDevices(const std::string& /*cardPath*/) {
    // Every present device of every class: the cards may sit behind any driver at this point.
    // A card with open handles is not taken away: Windows vetoes that.
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
