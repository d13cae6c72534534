// Sends each OS-layer call to the simulated card or to the machine's own drivers.
#include "Backend.h"

namespace kvpcie::platform {

DeviceFilePtr OpenDeviceFile(const std::string& path, unsigned access) {
    if (simulated::IsSimulatedPath(path)) {
        return simulated::OpenDeviceFile(path, access);
    }
    return native::OpenDeviceFile(path, access);
}

bool ListDeviceInterfaces(const Guid& interfaceClass, std::vector<std::string>& paths,
                          ListingStop* stop) {
    paths.clear();
    ListingStop nativeStop;
    if (!native::ListDeviceInterfaces(interfaceClass, paths, nativeStop)) {
        return false;
    }
    if (stop != nullptr) {
        *stop = nativeStop;
    }
    if (nativeStop.reason == ListingStop::Reason::None) {
        simulated::ListDeviceInterfaces(interfaceClass, paths);
    }
    return true;
}

ControlDevicePtr OpenControlDevice(const std::string& path, bool overlapped) {
    if (simulated::IsSimulatedPath(path)) {
        return simulated::OpenControlDevice(path, overlapped);
    }
    return native::OpenControlDevice(path, overlapped);
}

void RestartXilinxDevices(const std::string& cardPath) {
    native::RestartXilinxDevices(cardPath);
    simulated::RestartXilinxDevices();
}

}  // namespace kvpcie::platform
