// Internals of the Linux device listing and restart, open to the backend's tests.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kvpcie::platform::linux_backend {

// N of a /dev entry named exactly "xdma<N>_user"; N as the driver writes it, without leading
// zeros, so that "/dev/xdma<N>" names the same card.
std::optional<unsigned> XdmaUserNodeNumber(const std::string& entryName);

// "<devDir>/xdma<N>" for each such entry, in the order of N. May throw std::bad_alloc.
std::vector<std::string> XdmaInterfacePaths(const std::vector<std::string>& entryNames,
                                            const std::string& devDir = "/dev");

// The directory that the driver's nodes and sysfs are found under: KVPCIE_LINUX_ROOT, read at
// each call, without a trailing slash; "" (the machine's own "/") when unset or empty. The
// driver model (kvpcie-simd) is reached this way, through the very calls that reach a card.
std::string LinuxRoot();

// The restart of every vendor 0x10EE device under a directory laid out as sysfs's PCI bus
// ("devices/<device>/vendor", "devices/<device>/remove", "rescan"), or of `onlyDevice` alone
// when it is named. May throw std::bad_alloc.
void RestartXilinxDevicesUnder(const std::string& pciBusDir,
                               const std::string& onlyDevice = std::string());

// The PCI device ("0000:03:00.0") of the XDMA card at `cardPath` ("<root>/dev/xdma0"), from the
// driver's class link <root>/sys/class/xdma/xdma0_user/device; "" when there is none.
std::string PciDeviceOfCard(const std::string& root, const std::string& cardPath);

}  // namespace kvpcie::platform::linux_backend
