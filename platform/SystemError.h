// The OS layer's last-error value: set by every failing platform call, read by the device code.
#pragma once

#include <string>

namespace kvpcie::platform {

// The few failures that the code above the OS layer needs to name; each backend maps them to
// its own system codes, so messages print the code the user's OS would give.
enum class Error {
    FileNotFound,
    AccessDenied,
    InvalidHandle,
    InvalidParameter,
    NameTooLong,
    DeviceRemoved,
    IoFailed,  // the device answered a transfer with an I/O error
    OperationAborted,
    NotEnoughMemory,
    NoMoreItems,  // an enumeration asked past its last element
    MoreData,     // a result had more entries than its record holds
};

int SystemCode(Error error);

// Thread-local, like errno and GetLastError().
int LastError();
void SetLastError(int code);
inline void SetLastError(Error error) {
    SetLastError(SystemCode(error));
}

// The system's text for a code, without a trailing line feed.
std::string ErrorText(int code);

// What the code of a failed transfer says of the device behind it.
enum class DeviceState {
    Present,      // the transfer failed, the device is there
    Gone,         // removed, unplugged, its driver or server ended
    PerhapsGone,  // an I/O error: a failed DMA gives it as well as a device that went away
};
DeviceState DeviceStateAfter(int code);

}  // namespace kvpcie::platform
