// Pixel type names.
#include "PixelTypeNames.h"

namespace kvpcie::tools {

const char* PixelTypeName(ePixelType type) {
    switch (type) {
        case UYVY422:
            return "UYVY422";
        case Y8:
            return "Y8";
        case Y16:
            return "Y16";
        case Y16_Y8:
            return "Y16&Y8";
        case BGR24:
            return "BGR24";
        default:
            return "?";
    }
}

std::optional<ePixelType> PixelTypeFromName(std::string_view name) {
    for (ePixelType type : {UYVY422, Y8, Y16, Y16_Y8, BGR24}) {
        if (name == PixelTypeName(type)) {
            return type;
        }
    }
    if (name == "Y16_Y8") {
        return Y16_Y8;
    }
    return std::nullopt;
}

}  // namespace kvpcie::tools
