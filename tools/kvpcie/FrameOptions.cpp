// Frame geometry options and pictures of frames.
#include "FrameOptions.h"

#include "PixelConversion.h"

#include <QImage>

namespace kvpcie::cli {

FrameGeometry ParseGeometry(const Arguments& arguments, FrameGeometry defaults) {
    FrameGeometry geometry = defaults;
    if (const auto width = arguments.Value("--width")) {
        geometry.width = static_cast<int>(ParseNumber(*width, "width", 1, KvMaxFrameSide));
    }
    if (const auto height = arguments.Value("--height")) {
        geometry.height = static_cast<int>(ParseNumber(*height, "height", 1, KvMaxFrameSide));
    }
    if (const auto type = arguments.Value("--type")) {
        geometry.type = ParsePixelType(*type);
    }
    if (const std::string problem =
            KvFrameFormatProblem(geometry.type, geometry.width, geometry.height);
        !problem.empty()) {
        throw UsageError{problem};
    }
    return geometry;
}

RunLimits ParseRunLimits(const Arguments& arguments) {
    RunLimits limits;
    if (const auto frames = arguments.Value("--frames")) {
        limits.frames = ParseNumber(*frames, "frames", 1, 1000000000);
    }
    if (const auto seconds = arguments.Value("--seconds")) {
        limits.seconds = ParseSeconds(*seconds, 86400.0 * 365);
    } else if (limits.frames == 0) {
        limits.seconds = 10;
    }
    return limits;
}

int StampBytes(ePixelType type) {
    return KvBytesPerPixel(type);
}

bool SaveFramePng(const std::string& path, const FrameGeometry& geometry, const char* frame) {
    QImage picture(geometry.width, geometry.height, QImage::Format_RGBA8888);
    if (picture.isNull() || picture.bytesPerLine() != geometry.width * 4 ||
        !tools::ConvertToRgba(geometry.type, geometry.width, geometry.height,
                              reinterpret_cast<const unsigned char*>(frame), geometry.Bytes(),
                              picture.bits())) {
        return false;
    }
    return picture.save(QString::fromStdString(path), "PNG");
}

}  // namespace kvpcie::cli
