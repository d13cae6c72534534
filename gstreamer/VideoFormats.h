// The card's pixel types as GStreamer raw video formats. The card's Y16&Y8 has no GStreamer
// format and is not offered.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <gst/video/video.h>

#include <string>

namespace kvpcie::gst {

// What the source produces; the sink takes the same but BGRx (the card plays no 32-bit frames).
#define KVPCIE_GST_SRC_CAPS                                                                  \
    "video/x-raw, format = (string) { UYVY, GRAY8, GRAY16_LE, BGR, BGRx }, "                 \
    "width = (int) [ 1, 65535 ], height = (int) [ 1, 65535 ], framerate = (fraction) [ 0/1, MAX ]"
#define KVPCIE_GST_SINK_CAPS                                                                 \
    "video/x-raw, format = (string) { UYVY, GRAY8, GRAY16_LE, BGR }, "                       \
    "width = (int) [ 1, 65535 ], height = (int) [ 1, 65535 ], framerate = (fraction) [ 0/1, MAX ]"

// The caps as GStreamer writes them, for messages.
std::string CapsText(const GstCaps* caps);

// False for a format the card has no pixel type for.
bool PixelTypeOf(GstVideoFormat format, ePixelType& pixelType);

// Copies `lines` rows of `rowBytes` bytes between buffers whose rows lie `fromStride` and
// `toStride` bytes apart; one memcpy when both are packed.
void CopyRows(const guint8* from, gsize fromStride, guint8* to, gsize toStride, gsize rowBytes,
              gsize lines);

}  // namespace kvpcie::gst
