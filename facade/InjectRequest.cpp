// Refusing inject requests with a reason.
#include "InjectRequest.h"

#include "ErrorText.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/InjectFormat.h"

bool IsInjectRequestAcceptable(const KvFrameFormat& format, const char* frameData) {
    using namespace kvpcie;
    using xdma::kMaxInjectGeometryField;
    if (format.channel >= static_cast<unsigned>(xdma::kChannelCount)) {
        SetErrorText("channel %u is outside 0 to 3", format.channel);
        return false;
    }
    if (frameData == nullptr) {
        SetErrorText("frameData is null");
        return false;
    }
    if (format.frameRate <= 0) {
        SetErrorText("frame rate %d is below 1", format.frameRate);
        return false;
    }
    if (!xdma::IsInjectablePixelType(format.pixelType)) {
        SetErrorText("pixel type %d cannot be injected: the card takes UYVY422 (0) to BGR24 (4)",
                     static_cast<int>(format.pixelType));
        return false;
    }
    if (format.width <= 0 || format.width > kMaxInjectGeometryField) {
        SetErrorText("width %d is outside 1 to 65535", format.width);
        return false;
    }
    if (format.height <= 0 || format.height > kMaxInjectGeometryField) {
        SetErrorText("height %d is outside 1 to 65535", format.height);
        return false;
    }
    if (!xdma::IsInjectFormatAcceptable(format, false)) {
        const std::uint64_t bytes =
            KvFrameSizeBytes(format.pixelType, format.width, format.height, format.paramLines);
        SetErrorText("frame of %s bytes exceeds the 20 MiB card buffer",
                     GroupedDigits(bytes).c_str());
        return false;
    }
    return true;
}
