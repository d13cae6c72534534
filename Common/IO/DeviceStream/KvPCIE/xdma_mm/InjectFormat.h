// How the inject channels size, encode and stamp the frames of each pixel type, and which
// formats they can take at all.
#pragma once

#include "XdmaChannelRegisters.h"

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <cstdint>

namespace kvpcie::xdma {

// The card's inject channels know the pixel types UYVY422 to BGR24 only.
inline bool IsInjectablePixelType(ePixelType pixelType) {
    return pixelType >= UYVY422 && pixelType <= BGR24;
}

// The card's format code; 0 for a type it does not know.
inline std::uint32_t InjectPixelCode(ePixelType pixelType) {
    return IsInjectablePixelType(pixelType) ? static_cast<std::uint32_t>(pixelType) : 0;
}

// Bytes per pixel of an inject frame, and bytes of the frame counter stamped into its head;
// 0 for a type the card does not know.
inline int InjectBytesPerPixel(ePixelType pixelType) {
    return IsInjectablePixelType(pixelType) ? KvBytesPerPixel(pixelType) : 0;
}

constexpr int kMaxInjectGeometryField = 0xFFFF;

// Whether a channel can be started with `format`: channel 0 to 3, a frame rate of at least 1,
// a pixel type the card knows, width and line count that fit the card's 16-bit geometry fields,
// and a frame (with the parameter line when `parameterLine`) that fits one card buffer.
inline bool IsInjectFormatAcceptable(const KvFrameFormat& format, bool parameterLine) {
    if (format.channel >= static_cast<unsigned>(kChannelCount) || format.frameRate <= 0 ||
        !IsInjectablePixelType(format.pixelType)) {
        return false;
    }
    const long long lines =
        static_cast<long long>(format.height) + format.paramLines + (parameterLine ? 1 : 0);
    if (format.width <= 0 || format.width > kMaxInjectGeometryField || format.height <= 0 ||
        format.paramLines < 0 || lines > kMaxInjectGeometryField) {
        return false;
    }
    const long long frameBytes =
        static_cast<long long>(InjectBytesPerPixel(format.pixelType)) * format.width * lines;
    return frameBytes <= static_cast<long long>(kCardBufferBytes);
}

}  // namespace kvpcie::xdma
