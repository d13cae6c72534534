// The OS layer on the driver models (with-model.sh, with-wine-model.sh): the listing, the
// restart, and on Windows the RIFFA requests. Files are the device file contract's.
#include "drivers/RiffaDriverInterface.h"
#include "platform/Backend.h"
#include "platform/ControlDevice.h"
#include "platform/DeviceInterfaces.h"
#include "platform/SystemError.h"

#include "../support/TestCard.h"

#ifdef _WIN32
#include "Common/IO/DeviceStream/KvPCIE/riffa_stream/RiffaDevice.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#endif

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace kvpcie::platform {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t kIdentity = 0x1F0000;
constexpr std::uint32_t kDelayTest = 0x100024;
constexpr std::uint32_t kCaptureEnable = 0x100018;

class ModelBackend : public ::testing::Test {
protected:
    void SetUp() override {
        card_ = testing::OnDriverModel() ? testing::TestCardPath() : "";
        if (card_.empty()) {
            GTEST_SKIP() << "runs against the driver model: start it through with-model.sh "
                            "(kvpcie-simd) or with-wine-model.sh (the Windows driver model)";
        }
        user_ = Open("user", kAccessReadWrite);
        ASSERT_NE(user_, nullptr) << ErrorText(LastError());
    }

    DeviceFilePtr Open(const char* node, unsigned access) {
        return OpenDeviceFile(card_ + "\\" + node, access);
    }

    std::uint32_t ReadReg(std::uint32_t address) {
        std::uint32_t value = 0;
        std::uint32_t moved = 0;
        EXPECT_TRUE(user_->Seek(address) && user_->Read(&value, 4, moved));
        EXPECT_EQ(moved, 4u);
        return value;
    }

    void WriteReg(std::uint32_t address, std::uint32_t value) {
        std::uint32_t moved = 0;
        EXPECT_TRUE(user_->Seek(address) && user_->Write(&value, 4, moved));
        EXPECT_EQ(moved, 4u);
    }

    std::string card_;
    DeviceFilePtr user_;
};

TEST_F(ModelBackend, TheCardIsListedUnderTheRootAndAnswersItsRegisters) {
    std::vector<std::string> paths;
    ASSERT_TRUE(ListDeviceInterfaces(kXdmaInterfaceClass, paths));
    ASSERT_FALSE(paths.empty());
    EXPECT_EQ(paths[0], card_);
    EXPECT_EQ(ReadReg(kIdentity), 0x53494D31u);
    EXPECT_EQ(ReadReg(0x100028), 100000000u);
}

#ifdef _WIN32
// Vetoed under open handles, as Windows does; else the card comes back restarted, same path.
TEST_F(ModelBackend, TheRestartTakesTheDeviceAwayAndBringsItBackUnlessItIsInUse) {
    WriteReg(kDelayTest, 7);
    RestartXilinxDevices();
    EXPECT_EQ(ReadReg(kDelayTest), 7u);
    user_.reset();
    RestartXilinxDevices();
    std::vector<std::string> paths;
    ASSERT_TRUE(ListDeviceInterfaces(kXdmaInterfaceClass, paths));
    ASSERT_FALSE(paths.empty());
    EXPECT_EQ(paths[0], card_);
    user_ = Open("user", kAccessReadWrite);
    ASSERT_NE(user_, nullptr) << ErrorText(LastError());
    EXPECT_EQ(ReadReg(kDelayTest), 0u);
    EXPECT_EQ(ReadReg(kIdentity), 0x53494D31u);
}

// The model's RIFFA device through DeviceIoControl: requests answered from a work item.
class RiffaModel : public ModelBackend {
protected:
    void SetUp() override {
        ModelBackend::SetUp();
        if (IsSkipped()) {
            return;
        }
        std::vector<std::string> paths;
        ASSERT_TRUE(ListDeviceInterfaces(kRiffaInterfaceClass, paths));
        ASSERT_FALSE(paths.empty());
        riffaPath_ = paths[0];
        device_ = OpenControlDevice(riffaPath_, true);
        ASSERT_NE(device_, nullptr) << ErrorText(LastError());
    }

    ControlResult Transfer(std::uint32_t code, std::int32_t channel, std::int32_t offset,
                           std::vector<std::uint32_t>& block) {
        riffa::RiffaIoArgs args{};
        args.channel = channel;
        args.lengthWords = static_cast<std::int32_t>(block.size());
        args.offset = offset;
        args.last = 1;
        args.timeout = riffa::kRegisterTimeoutMs;
        return device_->Control(code, &args, sizeof args, block.data(),
                                static_cast<std::uint32_t>(block.size() * 4));
    }

    std::string riffaPath_;
    ControlDevicePtr device_;
};

TEST_F(RiffaModel, TheListRequestFillsTheDevicesSlot) {
    const ControlDevicePtr listing = OpenControlDevice(riffaPath_, false);
    ASSERT_NE(listing, nullptr);
    std::int32_t index = 0;
    unsigned char record[164] = {};
    const ControlResult result =
        listing->Control(riffa::kListCode, &index, sizeof index, record, sizeof record);
    ASSERT_EQ(result.outcome, ControlResult::Outcome::Completed);
    EXPECT_EQ(result.count, sizeof record);
    std::uint32_t vendor = 0;
    std::memcpy(&vendor, record + 124, 4);
    EXPECT_EQ(vendor, 0x10EEu);
    EXPECT_STREQ(reinterpret_cast<const char*>(record + 44), "KvSimRiffa");
}

TEST_F(RiffaModel, ARegisterWrittenBySendIsReadBackBySendAndReceive) {
    std::vector<std::uint32_t> write = {0xCAFE0042, 0x3000, 0xAAAAAAAA, 0xAAAAAAAA};
    const ControlResult sent = Transfer(riffa::kSendCode, 0, riffa::kWriteRequestOffset, write);
    ASSERT_EQ(sent.outcome, ControlResult::Outcome::CompletedLater);
    EXPECT_EQ(sent.count, 4u);  // words, as the driver counts them
    std::vector<std::uint32_t> read = {0, 0x3000, 0x55555555, 0x55555555};
    ASSERT_EQ(Transfer(riffa::kSendCode, 0, riffa::kReadRequestOffset, read).outcome,
              ControlResult::Outcome::CompletedLater);
    std::vector<std::uint32_t> reply(4, 0);
    const ControlResult received = Transfer(riffa::kReceiveCode, 0, 0, reply);
    ASSERT_EQ(received.outcome, ControlResult::Outcome::CompletedLater);
    EXPECT_EQ(received.count, 4u);
    EXPECT_EQ(reply[0], 0xCAFE0042u);
}

TEST_F(RiffaModel, AFrameIsSentWholeAndAReceiveWithNothingToReceiveEndsAborted) {
    std::vector<std::uint32_t> frame(256 * 1024);
    for (std::size_t k = 0; k < frame.size(); ++k) {
        frame[k] = static_cast<std::uint32_t>(k * 2654435761u);
    }
    const ControlResult sent = Transfer(riffa::kSendCode, 1, 0, frame);
    ASSERT_EQ(sent.outcome, ControlResult::Outcome::CompletedLater);
    EXPECT_EQ(sent.count, frame.size());
    std::vector<std::uint32_t> nothing(64, 0);
    EXPECT_EQ(Transfer(riffa::kReceiveCode, 2, 0, nothing).outcome,
              ControlResult::Outcome::AbortedLater);
    // A code the driver does not have is refused at once.
    EXPECT_EQ(device_->Control(0x222412, nullptr, 0, nullptr, 0).outcome,
              ControlResult::Outcome::Failed);
}

// The library's RIFFA device code itself, through the model's driver.
TEST_F(RiffaModel, TheDeviceLibraryListsOpensAndMovesRegistersThroughTheDriver) {
    riffa::RiffaDevice device;
    fpga_info_list list{};
    EXPECT_EQ(device.List(&list), 0);
    std::vector<std::string> paths;
    ASSERT_TRUE(ListDeviceInterfaces(kRiffaInterfaceClass, paths));
    EXPECT_EQ(list.fpgaCount, static_cast<int>(paths.size()));
    ASSERT_NE(device.Open(0), nullptr);
    EXPECT_EQ(device.ReadReg(KvPCIeSim::kRegIdentity), KvPCIeSim::kIdentityValue);
    EXPECT_EQ(device.WriteReg(0x600DF00D, 0x3004), 4);
    EXPECT_EQ(device.ReadReg(0x3004), 0x600DF00Du);
    EXPECT_EQ(device.Open(list.fpgaCount), nullptr);  // one past the last device
    EXPECT_EQ(device.ReadReg(KvPCIeSim::kRegIdentity), 0u) << "the failed open closed the first";
}

// With no event, a read answers the byte 0 after about 3 s, as the Windows driver does.
TEST_F(ModelBackend, AnEventReadWithoutTheEventAnswersZeroAfterThreeSeconds) {
    WriteReg(kCaptureEnable, 0);
    const DeviceFilePtr event = Open("event_1", kAccessRead);
    ASSERT_NE(event, nullptr);
    unsigned char byte = 0xFF;
    std::uint32_t moved = 0;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(event->Read(&byte, 1, moved)) << ErrorText(LastError());
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(moved, 1u);
    EXPECT_EQ(byte, 0);
    EXPECT_GE(waited, 2500ms);
}
#else
TEST_F(ModelBackend, TheRestartGoesThroughSysfsUnlessTheCardIsInUse) {
    WriteReg(kDelayTest, 7);
    // This process holds the user node: the removal is refused, the card keeps its state.
    RestartXilinxDevices();
    EXPECT_EQ(ReadReg(kDelayTest), 7u);
    user_.reset();
    RestartXilinxDevices();  // now nothing is open: removed, rescanned, restarted
    user_ = Open("user", kAccessReadWrite);
    ASSERT_NE(user_, nullptr);
    EXPECT_EQ(ReadReg(kDelayTest), 0u);
    EXPECT_EQ(ReadReg(kIdentity), 0x53494D31u);
}
#endif

}  // namespace
}  // namespace kvpcie::platform
