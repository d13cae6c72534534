// Fuzzes raw recording names, which come from whatever files a user points the tools at.
#include "FuzzCheck.h"
#include "PixelTypeNames.h"
#include "RawRecordingName.h"

#include <charconv>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using kvpcie::tools::ParseRawRecordingName;
using kvpcie::tools::PixelTypeFromName;
using kvpcie::tools::PixelTypeName;
using kvpcie::tools::RawRecordingInfo;

bool Same(const std::optional<RawRecordingInfo>& a, const std::optional<RawRecordingInfo>& b) {
    if (!a || !b) {
        return !a && !b;
    }
    return a->index == b->index && a->width == b->width && a->height == b->height &&
           a->paramLines == b->paramLines && a->frameRate == b->frameRate &&
           a->pixelType == b->pixelType;
}

std::string Format(const RawRecordingInfo& info) {
    return std::to_string(info.index) + "_" + std::to_string(info.width) + "x" +
           std::to_string(info.height) + "_ParamLine" + std::to_string(info.paramLines) + "_Fps" +
           std::to_string(info.frameRate) + "_" + PixelTypeName(info.pixelType) + ".raw";
}

std::vector<std::string_view> Split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    for (std::size_t end; (end = text.find(separator, start)) != std::string_view::npos;
         start = end + 1) {
        parts.push_back(text.substr(start, end - start));
    }
    parts.push_back(text.substr(start));
    return parts;
}

// Canonical decimal from `low` to `high`, through from_chars rather than the parser's loop.
std::optional<int> Number(std::string_view text, int low, int high) {
    if (text.empty() || (text.size() > 1 && text[0] == '0')) {
        return std::nullopt;
    }
    for (char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
    }
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < std::uint64_t(low) ||
        value > std::uint64_t(high)) {
        return std::nullopt;
    }
    return static_cast<int>(value);
}

std::optional<int> After(std::string_view prefix, std::string_view text, int low, int high) {
    if (text.substr(0, prefix.size()) != prefix) {
        return std::nullopt;
    }
    return Number(text.substr(prefix.size()), low, high);
}

// The name taken apart at its separators, a different route from the parser's left-to-right read.
std::optional<RawRecordingInfo> Expected(std::string_view path) {
    const std::size_t separator = path.find_last_of("/\\");
    const std::string_view name =
        separator == std::string_view::npos ? path : path.substr(separator + 1);
    const std::vector<std::string_view> fields = Split(name, '_');
    if (fields.size() != 5) {
        return std::nullopt;
    }
    const std::vector<std::string_view> size = Split(fields[1], 'x');
    const std::string_view type = fields[4];
    if (size.size() != 2 || type.size() < 4 || type.substr(type.size() - 4) != ".raw") {
        return std::nullopt;
    }
    // PixelTypeFromName's "Y16_Y8" cannot get here: it would have split into six fields.
    const auto pixelType = PixelTypeFromName(type.substr(0, type.size() - 4));
    const auto index = Number(fields[0], 0, INT_MAX);
    const auto width = Number(size[0], 1, 65535);
    const auto height = Number(size[1], 1, 65535);
    const auto paramLines = After("ParamLine", fields[2], 0, INT_MAX);
    const auto frameRate = After("Fps", fields[3], 0, INT_MAX);
    if (!pixelType || !index || !width || !height || !paramLines || !frameRate) {
        return std::nullopt;
    }
    return RawRecordingInfo{*index, *width, *height, *paramLines, *frameRate, *pixelType};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view path(reinterpret_cast<const char*>(data), size);
    const std::optional<RawRecordingInfo> info = ParseRawRecordingName(path);
    FUZZ_CHECK(Same(info, Expected(path)));
    FUZZ_CHECK(Same(ParseRawRecordingName("dir/" + std::string(path)), info));
    FUZZ_CHECK(Same(ParseRawRecordingName("dir\\" + std::string(path)), info));
    if (!info) {
        return 0;
    }
    FUZZ_CHECK(info->width >= 1 && info->width <= 65535);
    FUZZ_CHECK(info->height >= 1 && info->height <= 65535);
    FUZZ_CHECK(info->index >= 0 && info->paramLines >= 0 && info->frameRate >= 0);
    FUZZ_CHECK(info->pixelType == UYVY422 || info->pixelType == Y8 || info->pixelType == Y16 ||
               info->pixelType == Y16_Y8 || info->pixelType == BGR24);

    // One spelling per name: what was accepted is exactly what the recorder would write.
    const std::string name = Format(*info);
    FUZZ_CHECK(path.size() >= name.size());
    const std::size_t start = path.size() - name.size();
    FUZZ_CHECK(path.substr(start) == name);
    FUZZ_CHECK(start == 0 || path[start - 1] == '/' || path[start - 1] == '\\');
    FUZZ_CHECK(Same(ParseRawRecordingName(name), info));
    return 0;
}
