// Turning the arguments of StartCapture into a channel's complete frame format.
#include "AutoOpen.h"
#include "CaptureRequest.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaChannelRegisters.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

namespace {
// Card-generated timing runs the channel at this rate, with sub-mode 2 of the sync word.
constexpr int kCaptureFrameRate = 25;
constexpr int kCardTimingSubMode = 2;
// Line period beyond the active width, in pixel clocks.
constexpr int kLineBlankingExternal = 100;
constexpr int kLineBlankingCardTiming = 200;
// The card's geometry register holds width and line count in 16 bits each.
constexpr int kMaxGeometryField = 0xFFFF;
}  // namespace

bool IsCaptureRequestAcceptable(unsigned channel, int width, int height, ePixelType pixelType,
                                const char* frameBuffer) {
    if (channel >= static_cast<unsigned>(kvpcie::xdma::kChannelCount) || frameBuffer == nullptr) {
        return false;
    }
    if (pixelType < UYVY422 || pixelType > PIXEL32) {
        return false;
    }
    if (width <= 0 || width > kMaxGeometryField || height <= 0 || height > kMaxGeometryField) {
        return false;  // the card would get a wrapped geometry word
    }
    return KvFrameSizeBytes(pixelType, width, height) <= kvpcie::xdma::kCardBufferBytes;
}

bool PCIeDataManager::PreProcCapture(KvFrameFormat& format, unsigned int channel, bool cardTiming,
                                     int width, int height, ePixelType pixelType) {
    if (!OpenFirstXdmaCardIfNone(*this)) {
        return false;
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
