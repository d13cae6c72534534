// Listing and restarting the devices of a driver's interface class.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvpcie::platform {

struct Guid {
    std::uint32_t data1;
    std::uint16_t data2;
    std::uint16_t data3;
    std::uint8_t data4[8];
};

constexpr bool operator==(const Guid& a, const Guid& b) {
    for (int i = 0; i < 8; ++i) {
        if (a.data4[i] != b.data4[i]) {
            return false;
        }
    }
    return a.data1 == b.data1 && a.data2 == b.data2 && a.data3 == b.data3;
}

// {74C7E4A9-6D5D-4A70-BC0D-20691DFF9E9D}: the Xilinx XDMA driver's cards.
constexpr Guid kXdmaInterfaceClass{
    0x74C7E4A9, 0x6D5D, 0x4A70, {0xBC, 0x0D, 0x20, 0x69, 0x1D, 0xFF, 0x9E, 0x9D}};
// {40D49FB9-6085-4E1D-8753-822BE944D7BB}: the RIFFA driver's devices.
constexpr Guid kRiffaInterfaceClass{
    0x40D49FB9, 0x6085, 0x4E1D, {0x87, 0x53, 0x82, 0x2B, 0xE9, 0x44, 0xD7, 0xBB}};

// Why a listing stopped before its end. The interfaces before the failing one stay listed.
struct ListingStop {
    enum class Reason {
        None,             // every interface was listed
        InterfaceDetail,  // the OS gave no detail (path) for the next interface
        OutOfMemory,      // the detail record of the next interface could not be allocated
    };
    Reason reason = Reason::None;
    int error = 0;  // the system code of the failure
};

// Interface paths of a class, the machine's own devices first and simulated ones after. False
// (with LastError() set) when the OS cannot give the device set at all; an empty list is not
// a failure. A failure on one interface ends the listing there with true: the paths before it
// are kept, no simulated device follows, and `stop` (where given) says what failed.
bool ListDeviceInterfaces(const Guid& interfaceClass, std::vector<std::string>& paths,
                          ListingStop* stop = nullptr);

// Restarts Xilinx (PCI vendor 0x10EE) devices at the driver level, simulated cards included.
// Given the path of the card about to be opened, only that card's device where the OS names it
// (Linux: the XDMA driver's /sys/class/xdma/<card>_user/device), so that a second card's open
// does not pull the first from under its engines; every Xilinx device otherwise. A device in
// use is left alone where the OS refuses (Windows, the simulated cards, the driver model). Where
// the OS does not permit it, says so on standard error and goes on.
void RestartXilinxDevices(const std::string& cardPath = std::string());

}  // namespace kvpcie::platform
