// The OS layer's file calls on every OS, with an ordinary file standing in for the driver's.
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaDevice.h"
#include "platform/DeviceFile.h"
#include "platform/SystemError.h"

#include "../support/ScratchPath.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace kvpcie::platform {
namespace {

namespace fs = std::filesystem;
using testing::ScratchPath;

class PlainFiles : public ::testing::Test {
protected:
    std::string Make(const char* name) {
        const fs::path path = dir_ / name;
        std::ofstream(path, std::ios::binary).flush();
        return path.string();
    }

    ScratchPath scratch_;
    const fs::path dir_ = scratch_.Dir();
};

TEST_F(PlainFiles, SixteenMebibytesGoOutInPiecesAndComeBackWhole) {
    const std::string path = Make("card.bin");
    std::vector<std::uint8_t> data(16u << 20);
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<std::uint8_t>(i * 31 + (i >> 16));
    }
    {
        const DeviceFilePtr file = OpenDeviceFile(path, kAccessReadWrite);
        ASSERT_NE(file, nullptr) << LastError();
        EXPECT_EQ(xdma::XdmaWriteDevice(file.get(), 0, 16u << 20, data.data()), 16777216);
    }
    EXPECT_EQ(fs::file_size(path), data.size());
    const DeviceFilePtr file = OpenDeviceFile(path, kAccessRead);
    ASSERT_NE(file, nullptr);
    std::vector<std::uint8_t> back(data.size());
    EXPECT_EQ(xdma::XdmaReadDevice(file.get(), 0, 16u << 20, back.data()), 16777216);
    EXPECT_TRUE(back == data);
    // Past the end a read moves nothing; a negative position is refused.
    std::uint32_t moved = 1;
    ASSERT_TRUE(file->Seek(16 << 20));
    EXPECT_TRUE(file->Read(back.data(), 16, moved));
    EXPECT_EQ(moved, 0u);
    EXPECT_FALSE(file->Seek(-4));
}

TEST_F(PlainFiles, MissingFilesAndForbiddenDirectionsAreRefusedWithTheSystemsCode) {
    EXPECT_EQ(OpenDeviceFile((dir_ / "missing.bin").string(), kAccessRead), nullptr);
    EXPECT_EQ(LastError(), SystemCode(Error::FileNotFound));
    const DeviceFilePtr file = OpenDeviceFile(Make("read-only.bin"), kAccessRead);
    ASSERT_NE(file, nullptr);
    std::uint32_t moved = 0;
    const char byte = 1;
    EXPECT_FALSE(file->Write(&byte, 1, moved));
}

#ifdef _WIN32
// Device files are opened unshared, as the XDMA driver's are: a second open fails.
TEST_F(PlainFiles, AFileTheLibraryHoldsOpensNoSecondTime) {
    const std::string path = Make("user.bin");
    DeviceFilePtr held = OpenDeviceFile(path, kAccessReadWrite);
    ASSERT_NE(held, nullptr);
    EXPECT_EQ(OpenDeviceFile(path, kAccessRead), nullptr);
    EXPECT_EQ(LastError(), 32);  // ERROR_SHARING_VIOLATION
    held.reset();
    EXPECT_NE(OpenDeviceFile(path, kAccessRead), nullptr);
}
#endif

}  // namespace
}  // namespace kvpcie::platform
