// The RIFFA device library on the simulated RIFFA device.
#include "../support/Environment.h"
#include "../support/WaitFor.h"

#include "Common/IO/DeviceStream/KvPCIE/riffa_stream/RiffaDevice.h"
#include "platform/SystemError.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

namespace kvpcie::riffa {
namespace {

using KvPCIeSim::RiffaRequest;
constexpr std::uint32_t kSend = 0x222402;
constexpr std::uint32_t kReceive = 0x222406;
constexpr std::uint32_t kScratch = 0x1F0010;

class Riffa : public ::testing::Test {
protected:
    void SetUp() override {
        ::kvpcie::testing::UnsetEnvironment("KVPCIE_SIM");
        ASSERT_TRUE(KvPCIeSim::Configure("riffa:2"));
    }
    std::vector<RiffaRequest> Requests(int device = 0) {
        return KvPCIeSim::TakeRiffaRequestLog(device);
    }

    RiffaDevice device;
};

std::vector<std::uint8_t> RequestBytes(std::uint32_t first, std::uint32_t address,
                                       std::uint8_t fill) {
    std::vector<std::uint8_t> bytes(16, fill);
    for (int i = 0; i < 4; ++i) {
        bytes[i] = static_cast<std::uint8_t>(first >> (8 * i));
        bytes[4 + i] = static_cast<std::uint8_t>(address >> (8 * i));
    }
    return bytes;
}

TEST_F(Riffa, RegisterRequestsCarryDataThenAddressAndTheirFill) {
    ASSERT_NE(device.Open(1), nullptr);
    Requests(1);
    EXPECT_EQ(device.WriteReg(0x12345678, kScratch), 4);
    std::vector<RiffaRequest> log = Requests(1);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].controlCode, kSend);
    EXPECT_EQ(log[0].deviceIndex, 1);
    EXPECT_EQ(log[0].channel, 0);
    EXPECT_EQ(log[0].lengthWords, 4);
    EXPECT_EQ(log[0].offset, 0);
    EXPECT_EQ(log[0].last, 1);
    EXPECT_EQ(log[0].timeout, 25000);
    EXPECT_EQ(log[0].data, RequestBytes(0x12345678, kScratch, 0xAA));

    EXPECT_EQ(device.ReadReg(kScratch), 0x12345678u);
    log = Requests(1);
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].controlCode, kSend);
    EXPECT_EQ(log[0].offset, 10);
    EXPECT_EQ(log[0].last, 1);
    EXPECT_EQ(log[0].data, RequestBytes(0, kScratch, 0x55));
    EXPECT_EQ(log[1].controlCode, kReceive);
    EXPECT_EQ(log[1].channel, 0);
    EXPECT_EQ(log[1].lengthWords, 4);
    EXPECT_EQ(log[1].timeout, 25000);

    EXPECT_EQ(device.ReadReg(KvPCIeSim::kRegIdentity), KvPCIeSim::kIdentityValue);
}

TEST_F(Riffa, ListingCountsEachDeviceAndNeverWritesPastFiveSlots) {
    struct Guarded {
        fpga_info_list list;
        unsigned char guard[64];
    };
    for (const auto& [config, count, result] :
         {std::tuple{"riffa:0", 0, 0},
          {"riffa:1", 1, 0},
          {"riffa:6", 5, platform::SystemCode(platform::Error::MoreData)}}) {
        SCOPED_TRACE(config);
        ASSERT_TRUE(KvPCIeSim::Configure(config));
        Guarded record;
        std::memset(&record, 0x77, sizeof record);
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(device.List(&record.list), result);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
        EXPECT_EQ(record.list.fpgaCount, count);
        for (int slot = 0; slot < count; ++slot) {
            EXPECT_STREQ(record.list.name[slot], "KvSimRiffa");
            EXPECT_EQ(record.list.vendorId[slot], 0x10EE);
        }
        for (unsigned char byte : record.guard) {
            ASSERT_EQ(byte, 0x77);
        }
    }
    EXPECT_EQ(device.List(nullptr), platform::SystemCode(platform::Error::InvalidParameter));
}

TEST_F(Riffa, OpeningAMissingIndexClosesTheOpenDeviceAndSaysWhy) {
    ASSERT_NE(device.Open(0), nullptr);
    EXPECT_TRUE(device.IsOpen());
    for (int index : {2, -1}) {
        SCOPED_TRACE(index);
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(device.Open(index), nullptr);
        const std::string printed = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(printed, "SetupDiEnumDeviceInterfaces failed, Error: " +
                               std::to_string(platform::SystemCode(platform::Error::NoMoreItems)) +
                               "\n");
        EXPECT_FALSE(device.IsOpen());
    }
    // Closed, registers read 0 without a request or a message.
    Requests(0);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(device.ReadReg(KvPCIeSim::kRegIdentity), 0u);
    EXPECT_EQ(device.WriteReg(1, kScratch), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(Requests(0).empty());
}

TEST_F(Riffa, ACardThatNeverAnswersTimesOutAndLeavesRegistersAlone) {
    ASSERT_NE(device.Open(0), nullptr);
    ASSERT_TRUE(KvPCIeSim::SetRiffaNeverAnswers(0, true));
    device.WriteReg(0xBEEF, kScratch);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(device.ReadReg(kScratch), 0u);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Operation timed out or was aborted\n");
    std::uint32_t value = 1;
    ASSERT_TRUE(KvPCIeSim::PeekRiffaRegister(0, kScratch, value));
    EXPECT_EQ(value, 0u);

    ASSERT_TRUE(KvPCIeSim::SetRiffaNeverAnswers(0, false));
    device.WriteReg(0xBEEF, kScratch);
    EXPECT_EQ(device.ReadReg(kScratch), 0xBEEFu);
}

TEST_F(Riffa, ResetGoesToTheOpenDeviceOnly) {
    device.Reset();  // nothing open: no request, no message
    ASSERT_NE(device.Open(0), nullptr);
    Requests(0);
    ::testing::internal::CaptureStdout();
    device.Reset();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    const std::vector<RiffaRequest> log = Requests(0);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].controlCode, 0x22240Eu);
    EXPECT_EQ(device.ReadReg(KvPCIeSim::kRegIdentity), KvPCIeSim::kIdentityValue);
}

TEST_F(Riffa, ARemovedDeviceFailsEachRequestWithAMessage) {
    ASSERT_NE(device.Open(0), nullptr);
    ASSERT_TRUE(KvPCIeSim::RemoveRiffaDevice(0));
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(device.ReadReg(KvPCIeSim::kRegIdentity), 0u);
    EXPECT_EQ(device.WriteReg(1, kScratch), 0);
    const std::string message =
        "Error in DeviceIoControl: " +
        std::to_string(platform::SystemCode(platform::Error::DeviceRemoved)) + "\n";
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), message + message + message);
    device.Close();
    EXPECT_FALSE(device.IsOpen());
}

}  // namespace
}  // namespace kvpcie::riffa
