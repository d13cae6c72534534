// Refusing inject requests with a reason.
#include "InjectRequest.h"

#include "ErrorText.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/InjectFormat.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

bool IsInjectRequestAcceptable(const KvFrameFormat& format, const char* frameData) {
    if (!IsInjectFormatAcceptable(format)) {
        return false;
    }
    // Last: a host that could not size a frame for a bad format learns what is wrong with it.
    if (frameData == nullptr) {
        kvpcie::SetErrorText("frameData is null");
        return false;
    }
    return true;
}

bool IsInjectFormatAcceptable(const KvFrameFormat& format) {
    using namespace kvpcie;
    using xdma::kMaxInjectGeometryField;
    if (format.channel >= static_cast<unsigned>(xdma::kChannelCount)) {
        SetErrorText("channel %u is outside 0 to 3", format.channel);
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

bool PCIeDataManager::IsInjectFormatAcceptable(unsigned int channel, int frameRate, int width,
                                               int height, ePixelType pixelType) {
    kvpcie::ClearErrorText();
    KvFrameFormat format;
    format.channel = channel;
    format.frameRate = frameRate;
    format.width = width;
    format.height = height;
    format.pixelType = pixelType;
    return ::IsInjectFormatAcceptable(format);
}
