// The walk over the interfaces of a device set, on the SetupAPI calls it is given, so that the
// suites can make one interface fail where no driver would.
#pragma once

#include "platform/DeviceInterfaces.h"
#include "platform/win32/Win32Handle.h"

#include <cstddef>
#include <string>
#include <vector>

namespace kvpcie::platform::win32 {

struct SetupApiCalls {
    decltype(&::SetupDiGetClassDevsW) getClassDevs;
    decltype(&::SetupDiEnumDeviceInterfaces) enumInterfaces;
    decltype(&::SetupDiGetDeviceInterfaceDetailW) getInterfaceDetail;
    decltype(&::SetupDiDestroyDeviceInfoList) destroyInfoList;
    void* (*allocateZeroed)(std::size_t bytes);  // from the process heap; null when refused
    void (*release)(void* block);
};

// SetupAPI itself, with the process heap.
const SetupApiCalls& SystemSetupApi();

// The calls that the OS layer's listings use: SystemSetupApi() unless a suite put others in
// (and put back what it found before it ends). Not for use while a listing runs.
const SetupApiCalls*& ListingSetupApi();

// Appends the path of every present interface of the class. False, with LastError() set, only
// when the device set cannot be obtained; a failure on one interface ends the walk with true
// and says what failed in `stop`.
bool WalkDeviceInterfaces(const SetupApiCalls& api, const GUID& interfaceClass,
                          std::vector<std::string>& paths, ListingStop& stop);

}  // namespace kvpcie::platform::win32
