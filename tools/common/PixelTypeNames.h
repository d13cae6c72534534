// The pixel types by the names the tools and the recorder's file names use.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <optional>
#include <string_view>

namespace kvpcie::tools {

// "UYVY422", "Y8", "Y16", "Y16&Y8", "BGR24"; "?" for any other value.
const char* PixelTypeName(ePixelType type);
// The names above, and "Y16_Y8" for a shell that dislikes '&'; nothing for any other text.
std::optional<ePixelType> PixelTypeFromName(std::string_view name);

}  // namespace kvpcie::tools
