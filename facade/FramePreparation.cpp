// Turning the arguments of StartCapture into a channel's complete frame format.
#include "CardOpening.h"
#include "CaptureRequest.h"
#include "ErrorText.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

namespace {
// Card-generated timing runs the channel at this rate, with sub-mode 2 of the sync word.
constexpr int kCaptureFrameRate = 25;
constexpr int kCardTimingSubMode = 2;
// Line period beyond the active width, in pixel clocks.
constexpr int kLineBlankingExternal = 100;
constexpr int kLineBlankingCardTiming = 200;
static_assert(kvpcie::xdma::kCardBufferBytes == KvCardBufferBytes,
              "the public frame limit is the card's buffer size");
}  // namespace

bool IsCaptureRequestAcceptable(unsigned channel, int width, int height, ePixelType pixelType,
                                const char* frameBuffer) {
    if (!IsCaptureFormatAcceptable(channel, width, height, pixelType)) {
        return false;
    }
    // Last: a host that could not size a buffer for a bad format learns what is wrong with it.
    if (frameBuffer == nullptr) {
        kvpcie::SetErrorText("frameBuffer is null");
        return false;
    }
    return true;
}

bool IsCaptureFormatAcceptable(unsigned channel, int width, int height, ePixelType pixelType) {
    using kvpcie::SetErrorText;
    if (channel >= static_cast<unsigned>(kvpcie::xdma::kChannelCount)) {
        SetErrorText("channel %u is outside 0 to 3", channel);
        return false;
    }
    if (pixelType < UYVY422 || pixelType > PIXEL32) {
        SetErrorText("pixel type %d is outside UYVY422 (0) to PIXEL32 (5)",
                     static_cast<int>(pixelType));
        return false;
    }
    // The card would get a wrapped geometry word, or overrun its buffer.
    if (const std::string problem = KvFrameFormatProblem(pixelType, width, height);
        !problem.empty()) {
        SetErrorText("%s", problem.c_str());
        return false;
    }
    return true;
}

bool PCIeDataManager::IsCaptureFormatAcceptable(unsigned int channel, int width, int height,
                                                ePixelType pixelType) {
    kvpcie::ClearErrorText();
    return ::IsCaptureFormatAcceptable(channel, width, height, pixelType);
}

bool PCIeDataManager::PreProcCapture(KvFrameFormat& format, unsigned int channel, bool cardTiming,
                                     int width, int height, ePixelType pixelType) {
    if (!kvpcie::OpenFirstXdmaCardIfNone(d, "StartCapture")) {
        return false;  // the error text is set
    }
    format.channel = channel;
    format.width = width;
    format.height = height;
    format.pixelType = pixelType;
    format.paramLines = 0;
    if (cardTiming) {
        format.captureSyncMode = 1;
        format.syncSubMode = kCardTimingSubMode;
    } else {
        format.captureSyncMode = 0;
    }
    format.linePeriod = width + (cardTiming ? kLineBlankingCardTiming : kLineBlankingExternal);
    format.frameRate = kCaptureFrameRate;
    return true;
}
