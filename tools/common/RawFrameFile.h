// The frames of a raw recording, read one after the other and from the start again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>

namespace kvpcie::tools {

class RawFrameFile {
public:
    enum class OpenResult { Opened, Unreadable, NotWholeFrames };

    // A file that is empty or not a whole number of `frameBytes`-byte frames is refused.
    OpenResult Open(const std::string& path, std::size_t frameBytes);
    bool IsOpen() const { return frames_ > 0; }
    std::uint64_t FrameCount() const { return frames_; }

    // Reads the next frame into `frame` (frameBytes long); after the last one the first comes
    // again, and `wrapped` says so. False when the file could not be read.
    bool Next(char* frame, bool& wrapped);

private:
    std::ifstream in_;
    std::size_t frameBytes_ = 0;
    std::uint64_t frames_ = 0;
};

}  // namespace kvpcie::tools
