// Reading a raw recording frame by frame, in a loop.
#include "RawFrameFile.h"

namespace kvpcie::tools {

RawFrameFile::OpenResult RawFrameFile::Open(const std::string& path, std::size_t frameBytes) {
    in_ = std::ifstream(path, std::ios::binary);
    frames_ = 0;
    frameBytes_ = frameBytes;
    if (!in_ || frameBytes == 0) {
        return OpenResult::Unreadable;
    }
    in_.seekg(0, std::ios::end);
    const auto size = static_cast<std::uint64_t>(in_.tellg());
    if (!in_ || size == 0 || size % frameBytes != 0) {
        return OpenResult::NotWholeFrames;
    }
    in_.seekg(0);
    frames_ = size / frameBytes;
    return OpenResult::Opened;
}

bool RawFrameFile::Next(char* frame, bool& wrapped) {
    wrapped = false;
    if (frames_ == 0) {
        return false;
    }
    const auto bytes = static_cast<std::streamsize>(frameBytes_);
    if (!in_.read(frame, bytes)) {
        in_.clear();
        in_.seekg(0);
        wrapped = true;
        return static_cast<bool>(in_.read(frame, bytes));
    }
    return true;
}

}  // namespace kvpcie::tools
