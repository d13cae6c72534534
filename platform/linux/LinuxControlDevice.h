// The RIFFA Linux driver's node for the OS layer's device-control requests.
#pragma once

#include "platform/ControlDevice.h"

#include <string>
#include <vector>

namespace kvpcie::platform::linux_backend {

// Appends "<node>#<slot>" for each device the driver lists. True with nothing appended when the
// node does not exist; false, with LastError() set, when the driver refuses the listing.
bool RiffaDevicePaths(const char* node, std::vector<std::string>& paths);

// Opens "<node>#<slot>"; null with LastError() set.
ControlDevicePtr OpenRiffaNode(const std::string& path);

}  // namespace kvpcie::platform::linux_backend
