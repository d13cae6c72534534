/// \file
/// Enumerations, records and callbacks at the boundary of KvPCIeInjectSdk. The record layouts
/// are the card's and the drivers' formats and are checked at compile time below.
#pragma once


#include <cstddef>
#include <cstdint>
#include <string>

/// The driver framework a PCIeDataManager drives, fixed when it is constructed.
enum ePCIeFrameworkType : std::int32_t {
    XDMA_MM = 0,  ///< Xilinx XDMA driver, memory-mapped: capture, injection, commands, status
    RIFFA = 1,    ///< RIFFA driver: listing, opening and register access only
};

/// Pixel layout of a frame. Bytes per pixel: 2, 1, 2, 3, 3, 4; any other value counts as 1.
enum ePixelType : std::int32_t {
    UYVY422 = 0,
    Y8 = 1,
    Y16 = 2,
    Y16_Y8 = 3,
    BGR24 = 4,
    PIXEL32 = 5,
};

/// Reported through the reference argument of StartCapture and StartInject. The library
/// produces no other value.
enum eErrorCode : std::int32_t {
    ERR_NO_CARD = 0,     ///< no card found, the card would not open, or the format was refused
    ERR_QUEUE_FULL = 4,  ///< StartInject: 15 frames already wait on the channel; frame not taken
    ERR_NONE = 5,        ///< handed to the engine; false with ERR_NONE means the engine refused
};

/// Frame and timing description of one channel: thirteen 32-bit integers in this order.
/// Fields without a default in the card's format start at 0 here.
struct KvFrameFormat {
    unsigned int channel = 0;  ///< the channel, 0 to 3
    int width = 1280;          ///< pixels per line
    int height = 1024;         ///< image lines
    int height2 = 0;     ///< StartInject sets it to height; capture leaves 0
    int paramLines = 0;  ///< extra lines of the same width after the image lines
    int frameRate = 50;              ///< frames per second
    int param6 = 2;                  ///< passed to the card as it is
    int linePeriod = 0;              ///< the line period the card plays injected lines at
    int param8 = 0;                  ///< passed to the card as it is
    ePixelType pixelType = UYVY422;  ///< the frames' pixel layout
    int captureSyncMode = 0;  ///< 1: the card generates the capture frame timing
    int injectSyncMode = 0;   ///< the inject frame timing's mode, passed to the card
    int syncSubMode = 0;      ///< the timing's sub-mode, passed to the card

    KvFrameFormat() = default;
};

/// Bytes of one pixel of a pixel type.
inline int KvBytesPerPixel(ePixelType pixelType) {
    switch (pixelType) {
        case UYVY422:
        case Y16:
            return 2;
        case Y16_Y8:
        case BGR24:
            return 3;
        case PIXEL32:
            return 4;
        default:
            return 1;
    }
}

/// Bytes of one frame: bytes per pixel x width x (height + paramLines), computed without
/// overflow; 0 for negative dimensions.
inline std::uint64_t KvFrameSizeBytes(ePixelType pixelType, int width, int height,
                                      int paramLines = 0) {
    const std::int64_t lines = std::int64_t{height} + paramLines;
    if (width < 0 || lines < 0) {
        return 0;
    }
    return std::uint64_t(KvBytesPerPixel(pixelType)) * std::uint64_t(width) * std::uint64_t(lines);
}

/// The largest width, and the largest line count (parameter lines included), that the card's
/// 16-bit geometry fields hold.
constexpr int KvMaxFrameSide = 65535;
/// Bytes of one card buffer, and so of the largest frame: 20 MiB.
constexpr std::uint64_t KvCardBufferBytes = 20971520;

/// Why a frame of this format cannot go through a card ("" when it can): a width or a line
/// count outside 1 to KvMaxFrameSide, or more bytes than a card buffer holds. Front-ends check
/// with it before they size anything; StartCapture and StartInject check the same, and also
/// the channel, the pixel type and the frame rate.
inline std::string KvFrameFormatProblem(ePixelType pixelType, int width, int height,
                                        int paramLines = 0) {
    const std::int64_t lines = std::int64_t{height} + paramLines;
    if (width < 1 || width > KvMaxFrameSide) {
        return "width " + std::to_string(width) + " is outside 1 to " +
               std::to_string(KvMaxFrameSide);
    }
    if (height < 1 || paramLines < 0 || lines > KvMaxFrameSide) {
        return "height " + std::to_string(height) +
               (paramLines != 0 ? " + " + std::to_string(paramLines) + " parameter line(s)"
                                : std::string()) +
               " is outside 1 to " + std::to_string(KvMaxFrameSide);
    }
    const std::uint64_t bytes = KvFrameSizeBytes(pixelType, width, height, paramLines);
    if (bytes > KvCardBufferBytes) {
        std::string digits = std::to_string(bytes);
        for (std::size_t at = digits.size(); at > 3; at -= 3) {
            digits.insert(at - 3, ",");
        }
        return "frame of " + digits + " bytes exceeds the 20 MiB card buffer";
    }
    return std::string();
}

#pragma pack(push, 1)

/// Timing of one capture buffer, in seconds of the card's timing clock.
struct tagCaptureDelayStatusInfo {
    double delaySel3;  ///< frame start to the host's release
    double delaySel1;  ///< ready to the host's release
    double delaySel2;  ///< interval since the previous frame became ready
    double delaySel0;  ///< the card's write time of the frame
    int delayTestCount;  ///< the channel's display delay test count (SetImgDisplayDelayTest)
};

/// Timing of one inject buffer, in seconds of the card's timing clock.
struct tagInjectDelayStatusInfo {
    double delaySel3;  ///< host writing to play end
    double delaySel1;  ///< ready to play
    double delaySel2;  ///< play interval
    double delaySel0;  ///< host writing time
};

/// Parameters of a simulated thermal image, passed through the library uninterpreted.
struct tagThermalImgParams {
    unsigned char bytes[78];  ///< the parameter block as the card's parameter line carries it
};

/// The RIFFA driver's device list: five device slots, little-endian 32-bit integers.
struct fpga_info_list {
    std::int32_t fpgaCount;  ///< devices listed
    std::int32_t id[5];            ///< each device's number, as OpenCard(int) takes it
    std::int32_t channelCount[5];  ///< each device's RIFFA channels
    char name[5][16];              ///< each device's name, zero-padded
    std::int32_t vendorId[5];      ///< each device's PCI vendor id
    std::int32_t deviceId[5];      ///< each device's PCI device id
};

#pragma pack(pop)

static_assert(sizeof(KvFrameFormat) == 13 * 4, "KvFrameFormat is thirteen 32-bit integers");
static_assert(offsetof(KvFrameFormat, syncSubMode) == 12 * 4, "KvFrameFormat field order");
static_assert(sizeof(tagCaptureDelayStatusInfo) == 36, "capture delay record is 36 bytes");
static_assert(offsetof(tagCaptureDelayStatusInfo, delaySel0) == 24, "capture delay layout");
static_assert(offsetof(tagCaptureDelayStatusInfo, delayTestCount) == 32, "capture delay layout");
static_assert(sizeof(tagInjectDelayStatusInfo) == 32, "inject delay record is 32 bytes");
static_assert(sizeof(tagThermalImgParams) == 78, "thermal parameter block is 78 bytes");
static_assert(sizeof(fpga_info_list) == 164, "RIFFA device list is 164 bytes");
static_assert(offsetof(fpga_info_list, channelCount) == 24, "RIFFA device list layout");
static_assert(offsetof(fpga_info_list, name) == 44, "RIFFA device list layout");
static_assert(offsetof(fpga_info_list, vendorId) == 124, "RIFFA device list layout");
static_assert(offsetof(fpga_info_list, deviceId) == 144, "RIFFA device list layout");
static_assert(sizeof(ePixelType) == 4 && sizeof(eErrorCode) == 4 && sizeof(ePCIeFrameworkType) == 4,
              "the enumerations are 32-bit");

/// Declared only, so that the records above serve code without Qt; PCIeDataManager.h brings the
/// class itself.
class QByteArray;

/// Frame callbacks run on the capture engine's polling thread, one frame at a time. `frame` is
/// the caller's own frame buffer (the last argument of StartCapture) holding one whole frame; it
/// is overwritten by the channel's next frame once the callback has returned.
typedef void (*CaptureFrameCallback)(int channel, const char* frame, void* userContext);
/// `flag`: the card marked the frame as an error frame (bit 5 of the buffer status).
typedef void (*CaptureFrameCallbackEx)(int channel, const char* frame, void* userContext,
                                       bool flag);
/// Runs on the thread that opened the card, from its Qt event loop.
typedef void (*SystemStatusCallback)(int channel, const QByteArray& data, void* userContext);
