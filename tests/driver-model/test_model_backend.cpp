// The OS layer on the driver models: the very calls that drive a card under the XDMA driver
// (register words, DMA at the position, event reads that a cancel ends, listing and the
// restart). On Linux, the Linux backend against kvpcie-simd's files, run through with-model.sh
// (KVPCIE_MODEL_ROOT, KVPCIE_LINUX_ROOT); on Windows, the Windows backend through SetupAPI and
// the model driver that forwards to a kvpcie-simd, run through with-wine-model.sh as well
// (KVPCIE_MODEL_CARD, the card's interface path).
#include "Common/IO/DeviceStream/KvPCIE/riffa_stream/RiffaDriverInterface.h"
#include "platform/Backend.h"
#include "platform/ControlDevice.h"
#include "platform/DeviceInterfaces.h"
#include "platform/SystemError.h"

#ifdef _WIN32
#include "Common/IO/DeviceStream/KvPCIE/riffa_stream/RiffaDevice.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#endif

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <vector>

namespace kvpcie::platform {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t kIdentity = 0x1F0000;
constexpr std::uint32_t kStaging = 0x1F1400;  // channel 0's status staging area
constexpr std::uint32_t kDelayTest = 0x100024;
constexpr std::uint32_t kCaptureEnable = 0x100018;
constexpr std::uint32_t kCaptureFrameSize = 0x101010;
constexpr std::uint32_t kExternalRate = 0x1F1004;
constexpr std::uint32_t kFrameEventOff = 0x1F1034;

class ModelBackend : public ::testing::Test {
protected:
    void SetUp() override {
        const char* root = std::getenv("KVPCIE_MODEL_ROOT");
        if (root == nullptr || *root == '\0') {
            GTEST_SKIP() << "runs against kvpcie-simd: start it through with-model.sh";
        }
#ifdef _WIN32
        const char* card = std::getenv("KVPCIE_MODEL_CARD");
        if (card == nullptr || *card == '\0') {
            GTEST_SKIP() << "runs against the Windows driver model: start it through "
                            "with-wine-model.sh";
        }
        card_ = card;
#else
        card_ = std::string(root) + "/dev/xdma0";
#endif
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

TEST_F(ModelBackend, BlocksOfRegistersMoveAsWordsAndOddSizesAreRefused) {
    const std::uint32_t words[3] = {0x11223344, 0x55667788, 0x99AABBCC};
    std::uint32_t moved = 0;
    ASSERT_TRUE(user_->Seek(kStaging) && user_->Write(words, sizeof words, moved));
    EXPECT_EQ(moved, sizeof words);
    std::uint32_t back[3] = {};
    ASSERT_TRUE(user_->Seek(kStaging) && user_->Read(back, sizeof back, moved));
    EXPECT_EQ(std::vector<std::uint32_t>(back, back + 3),
              std::vector<std::uint32_t>(words, words + 3));
    EXPECT_FALSE(user_->Seek(kStaging) && user_->Read(back, 6, moved));
    EXPECT_FALSE(user_->Seek(kStaging + 2) && user_->Read(back, 4, moved));
}

TEST_F(ModelBackend, DmaMovesAtThePositionAndAdvancesIt) {
    const DeviceFilePtr toCard = Open("h2c_0", kAccessWrite);
    const DeviceFilePtr fromCard = Open("c2h_0", kAccessRead);
    ASSERT_NE(toCard, nullptr);
    ASSERT_NE(fromCard, nullptr);
    // More than FUSE moves in one request, at an address above what 32 bits of offset in
    // megabytes would reach, so that both the split and the offset show.
    std::vector<unsigned char> block(3 << 20);
    for (std::size_t k = 0; k < block.size(); ++k) {
        block[k] = static_cast<unsigned char>(k * 13 + k / 4096);
    }
    const std::int64_t address = 0x70000000;
    std::uint32_t moved = 0;
    ASSERT_TRUE(toCard->Seek(address) &&
                toCard->Write(block.data(), static_cast<std::uint32_t>(block.size()), moved));
    EXPECT_EQ(moved, block.size());
    // Two reads in a row continue where the first ended.
    std::vector<unsigned char> back(block.size());
    const std::uint32_t half = static_cast<std::uint32_t>(block.size() / 2);
    ASSERT_TRUE(fromCard->Seek(address) && fromCard->Read(back.data(), half, moved));
    EXPECT_EQ(moved, half);
    ASSERT_TRUE(fromCard->Read(back.data() + half, half, moved));
    EXPECT_EQ(back, block);
    // A direction the node does not have is refused.
    EXPECT_FALSE(fromCard->Write(block.data(), 4, moved));
}

TEST_F(ModelBackend, AnEventReadWaitsForTheCardAndACancelEndsIt) {
    const DeviceFilePtr event = Open("event_0", kAccessRead);
    ASSERT_NE(event, nullptr);
    // Frames of 64 bytes at 200 per second raise user event 0.
    WriteReg(kFrameEventOff, 0);
    WriteReg(kCaptureFrameSize, 64);
    WriteReg(kExternalRate, 200);
    WriteReg(kCaptureEnable, 1);
    unsigned char byte = 0;
    std::uint32_t moved = 0;
    ASSERT_TRUE(event->Read(&byte, 1, moved));
    EXPECT_EQ(moved, 1u);
    EXPECT_EQ(byte, 1);
    WriteReg(kCaptureEnable, 0);
    WriteReg(kFrameEventOff, 1);
    // Nothing raises the event now: only the cancel ends the wait, and promptly.
    std::future<bool> waiting = std::async(std::launch::async, [&] {
        unsigned char ignored = 0;
        std::uint32_t count = 0;
        // One pending from before the switch may still be there: take it first.
        while (event->Read(&ignored, 1, count)) {
        }
        return LastError() == SystemCode(Error::OperationAborted);
    });
    EXPECT_EQ(waiting.wait_for(300ms), std::future_status::timeout);
    event->Cancel();
    ASSERT_EQ(waiting.wait_for(2s), std::future_status::ready);
    EXPECT_TRUE(waiting.get());
}

#ifdef _WIN32
// The restart stand-in removes the device and adds it again: handles opened before fail, and
// the model's card comes back restarted under the same interface path.
TEST_F(ModelBackend, TheRestartTakesTheDeviceAwayAndBringsItBackRestarted) {
    WriteReg(kDelayTest, 7);
    RestartXilinxDevices();
    std::uint32_t value = 0;
    std::uint32_t moved = 0;
    EXPECT_FALSE(user_->Seek(kDelayTest) && user_->Read(&value, 4, moved));
    std::vector<std::string> paths;
    ASSERT_TRUE(ListDeviceInterfaces(kXdmaInterfaceClass, paths));
    ASSERT_EQ(paths, std::vector<std::string>{card_});
    user_ = Open("user", kAccessReadWrite);
    ASSERT_NE(user_, nullptr) << ErrorText(LastError());
    EXPECT_EQ(ReadReg(kDelayTest), 0u);
    EXPECT_EQ(ReadReg(kIdentity), 0x53494D31u);
}

// The model's RIFFA device, through DeviceIoControl with the RIFFA driver's requests and
// records: every request is left pending and answered from the driver's work item.
class RiffaModel : public ModelBackend {
protected:
    void SetUp() override {
        ModelBackend::SetUp();
        if (IsSkipped()) {
            return;
        }
        std::vector<std::string> paths;
        ASSERT_TRUE(ListDeviceInterfaces(kRiffaInterfaceClass, paths));
        ASSERT_EQ(paths.size(), 1u);
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

// The library's RIFFA device code itself: lookup by index, overlapped requests, the register
// request pair.
TEST_F(RiffaModel, TheDeviceLibraryListsOpensAndMovesRegistersThroughTheDriver) {
    riffa::RiffaDevice device;
    fpga_info_list list{};
    EXPECT_EQ(device.List(&list), 0);
    EXPECT_EQ(list.fpgaCount, 1);
    ASSERT_NE(device.Open(0), nullptr);
    EXPECT_EQ(device.ReadReg(KvPCIeSim::kRegIdentity), KvPCIeSim::kIdentityValue);
    EXPECT_EQ(device.WriteReg(0x600DF00D, 0x3004), 4);
    EXPECT_EQ(device.ReadReg(0x3004), 0x600DF00Du);
    EXPECT_EQ(device.Open(1), nullptr);  // there is no second device
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
