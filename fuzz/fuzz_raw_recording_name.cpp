// Fuzzes the names of raw recordings, which come from files anyone may have renamed.
#include "FuzzCheck.h"
#include "PixelTypeNames.h"
#include "RawRecordingName.h"

#include <cstdint>
#include <string>
#include <string_view>

using kvpcie::tools::ParseRawRecordingName;
using kvpcie::tools::RawRecordingInfo;

namespace {

// The name the recorder writes for these frames.
std::string Format(const RawRecordingInfo& info) {
    return std::to_string(info.index) + "_" + std::to_string(info.width) + "x" +
           std::to_string(info.height) + "_ParamLine" + std::to_string(info.paramLines) + "_Fps" +
           std::to_string(info.frameRate) + "_" + kvpcie::tools::PixelTypeName(info.pixelType) +
           ".raw";
}

bool Same(const std::optional<RawRecordingInfo>& a, const std::optional<RawRecordingInfo>& b) {
    if (!a || !b) {
        return !a && !b;
    }
    return a->index == b->index && a->width == b->width && a->height == b->height &&
           a->paramLines == b->paramLines && a->frameRate == b->frameRate &&
           a->pixelType == b->pixelType;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view path(reinterpret_cast<const char*>(data), size);
    const auto info = ParseRawRecordingName(path);
    FUZZ_CHECK(Same(ParseRawRecordingName("dir/" + std::string(path)), info));
    FUZZ_CHECK(Same(ParseRawRecordingName("dir\\" + std::string(path)), info));
    if (!info) {
        return 0;
    }
    FUZZ_CHECK(info->width >= 1 && info->width <= 65535);
    FUZZ_CHECK(info->height >= 1 && info->height <= 65535);
    FUZZ_CHECK(info->index >= 0 && info->paramLines >= 0 && info->frameRate >= 0);
    // One spelling per name: what was accepted is exactly what the recorder would write.
    const std::string name = Format(*info);
    FUZZ_CHECK(path.size() >= name.size());
    const std::size_t start = path.size() - name.size();
    FUZZ_CHECK(path.substr(start) == name);
    FUZZ_CHECK(start == 0 || path[start - 1] == '/' || path[start - 1] == '\\');
    return 0;
}
