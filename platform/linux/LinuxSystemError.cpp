// The Linux system codes (errno values) and their texts.
#include "platform/SystemError.h"

#include <cerrno>
#include <cstring>

namespace kvpcie::platform {
namespace {

// strerror_r comes in two flavours depending on feature macros; overloads take either.
[[maybe_unused]] const char* Text(int result, const char* buffer) {
    return result == 0 ? buffer : nullptr;
}
[[maybe_unused]] const char* Text(const char* result, const char*) {
    return result;
}

}  // namespace

int SystemCode(Error error) {
    switch (error) {
        case Error::FileNotFound:
            return ENOENT;
        case Error::AccessDenied:
            return EACCES;
        case Error::InvalidHandle:
            return EBADF;
        case Error::InvalidParameter:
            return EINVAL;
        case Error::NameTooLong:
            return ENAMETOOLONG;
        case Error::DeviceRemoved:
            return ENODEV;
        case Error::IoFailed:
            return EIO;
        case Error::OperationAborted:
            return ECANCELED;
        case Error::NotEnoughMemory:
            return ENOMEM;
        case Error::NoMoreItems:
            return ENXIO;
        case Error::MoreData:
            return EOVERFLOW;
    }
    return EINVAL;
}

DeviceState DeviceStateAfter(int code) {
    switch (code) {
        case ENODEV:     // the driver's device went away
        case ENOTCONN:   // a FUSE device whose server ended
        case ESHUTDOWN:
            return DeviceState::Gone;
        case EIO:
            return DeviceState::PerhapsGone;
        default:
            return DeviceState::Present;
    }
}

std::string ErrorText(int code) {
    char buffer[256] = {};
    const char* text = Text(strerror_r(code, buffer, sizeof buffer), buffer);
    try {
        return text != nullptr ? std::string(text) : "Unknown error " + std::to_string(code);
    } catch (...) {
        return std::string();  // only allocation can fail, and the empty string does not allocate
    }
}

}  // namespace kvpcie::platform
