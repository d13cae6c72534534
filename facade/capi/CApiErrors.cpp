// The C interface's per-thread error text.
#include "facade/capi/CApiErrors.h"

namespace kvpcie::capi {
namespace {

thread_local std::string lastError;

}  // namespace

kvpcie_status Fail(kvpcie_status status, const std::string& text) {
    try {
        lastError = text.empty() ? "the call failed" : text;
    } catch (...) {
        lastError.clear();
    }
    return status;
}

kvpcie_status Succeed() {
    lastError.clear();
    return KVPCIE_OK;
}

const char* LastErrorText() {
    return lastError.c_str();
}

bool ChannelValid(int channel) {
    return channel >= 0 && channel < KVPCIE_CHANNELS;
}

kvpcie_status BadChannel(int channel) {
    return Fail(KVPCIE_BAD_ARGUMENT, "channel " + std::to_string(channel) + " is outside 0 to 3");
}

kvpcie_status CopyText(const std::string& text, char* buffer, std::size_t capacity) {
    if (buffer == nullptr) {
        return Fail(KVPCIE_BAD_ARGUMENT, "the text buffer is null");
    }
    if (capacity < text.size() + 1) {
        return Fail(KVPCIE_BAD_ARGUMENT, "the text needs " + std::to_string(text.size() + 1) +
                                             " bytes; the buffer holds " +
                                             std::to_string(capacity));
    }
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return Succeed();
}

}  // namespace kvpcie::capi
