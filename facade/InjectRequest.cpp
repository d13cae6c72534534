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
    if (const std::string problem =
            KvFrameFormatProblem(format.pixelType, format.width, format.height, format.paramLines);
        !problem.empty()) {
        SetErrorText("%s", problem.c_str());
        return false;
    }
    // With the checks above this is the card's own rule (xdma::IsInjectFormatAcceptable).
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
