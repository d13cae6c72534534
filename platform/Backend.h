// What each OS backend and the simulated-card route provide; the router picks one per call.
#pragma once

#include "platform/ControlDevice.h"
#include "platform/DeviceFile.h"
#include "platform/DeviceInterfaces.h"

#include <string>
#include <vector>

namespace kvpcie::platform {

// The machine's own drivers (platform/linux or platform/win32).
namespace native {
DeviceFilePtr OpenDeviceFile(const std::string& path, unsigned access);
bool ListDeviceInterfaces(const Guid& interfaceClass, std::vector<std::string>& paths,
                          ListingStop& stop);
void RestartXilinxDevices(const std::string& cardPath);
ControlDevicePtr OpenControlDevice(const std::string& path, bool overlapped);
}  // namespace native

// Paths that begin with "sim:" (platform/sim), in every build.
namespace simulated {
constexpr char kPathPrefix[] = "sim:";
bool IsSimulatedPath(const std::string& path);
DeviceFilePtr OpenDeviceFile(const std::string& path, unsigned access);
void ListDeviceInterfaces(const Guid& interfaceClass, std::vector<std::string>& paths);
void RestartXilinxDevices();
ControlDevicePtr OpenControlDevice(const std::string& path, bool overlapped);
}  // namespace simulated

}  // namespace kvpcie::platform
