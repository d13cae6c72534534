// GStreamer raw video formats as the card's pixel types, and row copies between strides.
#include "VideoFormats.h"

#include <cstring>

namespace kvpcie::gst {

std::string CapsText(const GstCaps* caps) {
    if (caps == nullptr) {
        return "nothing";
    }
    gchar* text = gst_caps_to_string(caps);
    std::string result = text;
    g_free(text);
    return result;
}

bool PixelTypeOf(GstVideoFormat format, ePixelType& pixelType) {
    switch (format) {
        case GST_VIDEO_FORMAT_UYVY:
            pixelType = UYVY422;
            return true;
        case GST_VIDEO_FORMAT_GRAY8:
            pixelType = Y8;
            return true;
        case GST_VIDEO_FORMAT_GRAY16_LE:
            pixelType = Y16;
            return true;
        case GST_VIDEO_FORMAT_BGR:
            pixelType = BGR24;
            return true;
        case GST_VIDEO_FORMAT_BGRx:
            pixelType = PIXEL32;
            return true;
        default:
            return false;
    }
}

void CopyRows(const guint8* from, gsize fromStride, guint8* to, gsize toStride, gsize rowBytes,
              gsize lines) {
    if (fromStride == rowBytes && toStride == rowBytes) {
        std::memcpy(to, from, rowBytes * lines);
        return;
    }
    for (gsize line = 0; line < lines; ++line) {
        std::memcpy(to + line * toStride, from + line * fromStride, rowBytes);
    }
}

}  // namespace kvpcie::gst
