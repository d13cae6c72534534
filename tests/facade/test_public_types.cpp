// The public records as a host sees them through the installed headers only.
#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(PublicTypes, BytesPerPixelAndFrameSize) {
    EXPECT_EQ(KvBytesPerPixel(UYVY422), 2);
    EXPECT_EQ(KvBytesPerPixel(Y8), 1);
    EXPECT_EQ(KvBytesPerPixel(Y16), 2);
    EXPECT_EQ(KvBytesPerPixel(Y16_Y8), 3);
    EXPECT_EQ(KvBytesPerPixel(BGR24), 3);
    EXPECT_EQ(KvBytesPerPixel(PIXEL32), 4);
    EXPECT_EQ(KvBytesPerPixel(static_cast<ePixelType>(6)), 1);
    EXPECT_EQ(KvBytesPerPixel(static_cast<ePixelType>(-1)), 1);
    EXPECT_EQ(KvFrameSizeBytes(Y16, 1280, 1024), 2621440u);
    EXPECT_EQ(KvFrameSizeBytes(Y8, 640, 480, 1), 640u * 481u);
    EXPECT_EQ(KvFrameSizeBytes(BGR24, 65535, 65535), 3ull * 65535 * 65535);
    EXPECT_EQ(KvFrameSizeBytes(Y8, -1, 10), 0u);
}

TEST(PublicTypes, FrameFormatDefaults) {
    const KvFrameFormat format;
    EXPECT_EQ(format.channel, 0u);
    EXPECT_EQ(format.width, 1280);
    EXPECT_EQ(format.height, 1024);
    EXPECT_EQ(format.height2, 0);
    EXPECT_EQ(format.paramLines, 0);
    EXPECT_EQ(format.frameRate, 50);
    EXPECT_EQ(format.param6, 2);
    EXPECT_EQ(format.linePeriod, 0);
}

TEST(PublicTypes, DelayRecordsArePackedBackToBack) {
    tagCaptureDelayStatusInfo capture[8];
    tagInjectDelayStatusInfo inject[8];
    const auto* captureBytes = reinterpret_cast<const unsigned char*>(capture);
    const auto* injectBytes = reinterpret_cast<const unsigned char*>(inject);
    EXPECT_EQ(reinterpret_cast<const unsigned char*>(&capture[5]) - captureBytes, 36 * 5);
    EXPECT_EQ(reinterpret_cast<const unsigned char*>(&inject[7]) - injectBytes, 32 * 7);

    // The packed count sits right after the four doubles, whatever the host's alignment.
    tagCaptureDelayStatusInfo record{};
    record.delayTestCount = 0x01020304;
    unsigned char raw[36];
    std::memcpy(raw, &record, sizeof raw);
    EXPECT_EQ(raw[32], 0x04);
    EXPECT_EQ(raw[35], 0x01);
}

TEST(PublicTypes, VersionOfHeadersAndLibraryAgree) {
    EXPECT_STREQ(KvPCIeInjectSdkVersionString(), KVPCIE_VERSION_STRING);
    EXPECT_EQ(KVPCIE_VERSION >> 16, KVPCIE_VERSION_MAJOR);
}

}  // namespace
