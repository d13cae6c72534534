// Device-control requests to a driver's device (the RIFFA driver's send, receive, list and reset).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace kvpcie::platform {

// How one request ended, in the terms of the overlapped model the device code is written
// against: at once, or after it had been left pending with the driver.
struct ControlResult {
    enum class Outcome {
        Completed,       // finished at once; `count` holds the driver's count
        Failed,          // refused at once; `error` holds the system code
        CompletedLater,  // pending, then finished; `count` as above
        AbortedLater,    // pending, then ended by the driver's time-out or a cancel
        FailedLater,     // pending, then failed; `error` holds the system code
    };
    Outcome outcome = Outcome::Failed;
    int error = 0;
    std::uint32_t count = 0;
};

// An open device for device-control requests. Several threads may issue requests at once: each
// request has its own completion.
class ControlDevice {
public:
    virtual ~ControlDevice() = default;
    ControlDevice(const ControlDevice&) = delete;
    ControlDevice& operator=(const ControlDevice&) = delete;

    // One request; blocks until it has ended. `output` receives (send: supplies) the data block.
    virtual ControlResult Control(std::uint32_t code, const void* input, std::uint32_t inputBytes,
                                  void* output, std::uint32_t outputBytes) = 0;

protected:
    ControlDevice() = default;
};

using ControlDevicePtr = std::unique_ptr<ControlDevice>;

// Opens an interface path that ListDeviceInterfaces gave for the RIFFA class (or "sim:riffa<N>").
// `overlapped`: the long-lived handle of an open device; false: the short synchronous handle
// that listing uses. Null, with LastError() set, when the device cannot be opened.
ControlDevicePtr OpenControlDevice(const std::string& path, bool overlapped);

}  // namespace kvpcie::platform
