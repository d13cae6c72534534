// The public records as a host sees them through the installed headers only.
#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <gtest/gtest.h>

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

TEST(PublicTypes, VersionOfHeadersAndLibraryAgree) {
    EXPECT_STREQ(KvPCIeInjectSdkVersionString(), KVPCIE_VERSION_STRING);
    EXPECT_EQ(KVPCIE_VERSION >> 16, KVPCIE_VERSION_MAJOR);
}

}  // namespace
