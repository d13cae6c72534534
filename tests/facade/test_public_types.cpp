// The public records as a host sees them through the installed headers only.
#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <gtest/gtest.h>

namespace {

TEST(PublicTypes, VersionOfHeadersAndLibraryAgree) {
    EXPECT_STREQ(KvPCIeInjectSdkVersionString(), KVPCIE_VERSION_STRING);
    EXPECT_EQ(KVPCIE_VERSION >> 16, KVPCIE_VERSION_MAJOR);
}

}  // namespace
