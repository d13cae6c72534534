// Waiting for a card's user event.
#include "EventFile.h"

#include "platform/SystemError.h"

#include <cstdio>
#include <string>

namespace kvpcie::xdma {
namespace {

platform::DeviceFilePtr OpenEventFile(const char* path, unsigned access) {
    platform::DeviceFilePtr file;
    if (path != nullptr) {
        file = platform::OpenDeviceFile(path, access);
    } else {
        platform::SetLastError(platform::Error::InvalidParameter);
    }
    if (!file) {
        std::printf("error: %s\n", platform::ErrorText(platform::LastError()).c_str());
    }
    return file;
}

}  // namespace

EventFile::EventFile(const char* path, unsigned access) : file_(OpenEventFile(path, access)) {}

unsigned char EventFile::Read(unsigned offset) {
    bool positioned = false;
    if (file_ != nullptr) {
        positioned = file_->Seek(offset);
    } else {
        platform::SetLastError(platform::Error::InvalidHandle);
    }
    if (!positioned) {
        std::printf("errorStr001: %s\n", platform::ErrorText(platform::LastError()).c_str());
        return 0;
    }
    unsigned char byte = 0;
    std::uint32_t moved = 0;
    if (!file_->Read(&byte, 1, moved) || moved != 1) {
        return 0;
    }
    return byte;
}

void EventFile::Cancel() {
    if (file_ != nullptr) {
        file_->Cancel();
    }
}

}  // namespace kvpcie::xdma
