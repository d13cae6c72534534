// The "sim:" route of the OS layer for device-control requests: the simulated RIFFA devices.
#include "platform/Backend.h"
#include "platform/SystemError.h"

#include "sim/DecimalText.h"
#include "sim/SimRegistry.h"

#include <optional>

namespace kvpcie::platform::simulated {
namespace {

using sim::RiffaAnswer;
using DevicePtr = std::shared_ptr<sim::SimRiffaDevice>;

constexpr char kRiffaPrefix[] = "sim:riffa";

ControlResult Failure(Error error) {
    ControlResult result;
    result.outcome = ControlResult::Outcome::Failed;
    result.error = SystemCode(error);
    SetLastError(result.error);
    return result;
}

// An open handle: keeps the device alive, so a request after its removal fails cleanly.
class SimControlDevice final : public ControlDevice {
public:
    explicit SimControlDevice(DevicePtr device) : device_(std::move(device)) {}

    ControlResult Control(std::uint32_t code, const void* input, std::uint32_t inputBytes,
                          void* output, std::uint32_t outputBytes) override {
        const RiffaAnswer answer = device_->Control(code, input, inputBytes, output, outputBytes);
        ControlResult result;
        result.count = answer.count;
        switch (answer.kind) {
            case RiffaAnswer::Kind::Completed:
                result.outcome = ControlResult::Outcome::Completed;
                return result;
            case RiffaAnswer::Kind::TimedOut:
                result.outcome = ControlResult::Outcome::AbortedLater;
                result.count = 0;
                return result;
            case RiffaAnswer::Kind::Removed:
                return Failure(Error::DeviceRemoved);
            case RiffaAnswer::Kind::Refused:
                break;
        }
        return Failure(Error::InvalidParameter);
    }

private:
    DevicePtr device_;
};

}  // namespace

// Overlapped or not, a simulated request ends before Control returns, so both handles are alike.
ControlDevicePtr OpenControlDevice(const std::string& path, bool /*overlapped*/) {
    const std::size_t prefixLength = sizeof(kRiffaPrefix) - 1;
    const std::optional<int> number = path.compare(0, prefixLength, kRiffaPrefix) == 0
                                          ? sim::ParseDecimal(path.substr(prefixLength), 6, 999999)
                                          : std::nullopt;
    // Only the spelling the listing gives: "sim:riffa01" is no alias of "sim:riffa1".
    const bool canonical = number && path == kRiffaPrefix + std::to_string(*number);
    DevicePtr device = canonical ? sim::SimRegistry::Instance().FindRiffaDevice(*number) : nullptr;
    if (device == nullptr) {
        SetLastError(Error::FileNotFound);
        return nullptr;
    }
    return std::make_unique<SimControlDevice>(std::move(device));
}

}  // namespace kvpcie::platform::simulated
