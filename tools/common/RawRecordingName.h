// What the name of a raw recording says about its frames.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <optional>
#include <string_view>

namespace kvpcie::tools {

struct RawRecordingInfo {
    int index = 0;
    int width = 0;
    int height = 0;
    int paramLines = 0;
    int frameRate = 0;
    ePixelType pixelType = UYVY422;
};

// Parses "<index>_<width>x<height>_ParamLine<n>_Fps<rate>_<type>.raw" (type UYVY422, Y8, Y16,
// Y16&Y8 or BGR24), the last part of a path with '/' or '\\' separators. Nothing for any other
// name, or numbers out of range (sizes 1 to 65535, no negative value). Numbers are spelled as
// the recorder writes them: decimal digits only, without sign or leading zero.
std::optional<RawRecordingInfo> ParseRawRecordingName(std::string_view path);

}  // namespace kvpcie::tools
