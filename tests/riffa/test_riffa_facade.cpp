// The facade in RIFFA mode on simulated RIFFA devices (device failures: test_riffa_device).
#include "../support/Environment.h"
#include "../support/ProcessCounters.h"
#include "../support/TempDir.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <QDir>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace kvpcie::testing {
namespace {

constexpr std::uint32_t kScratch = 0x1F0010;

class RiffaFacade : public ::testing::Test {
protected:
    void SetUp() override {
        ::kvpcie::testing::UnsetEnvironment("KVPCIE_SIM");
        ASSERT_TRUE(KvPCIeSim::Configure("riffa:2"));
        for (const char* log : {"Capture_AllChannel", "Inject_AllChannel", "InjectReadFile"}) {
            QDir().mkpath(QString("Log/") + log);
        }
    }

    ScratchDir scratch{true};  // the engines' logs go to ./Log
    PCIeDataManager manager{RIFFA};
};

TEST_F(RiffaFacade, RegistersGoOverTheDeviceOpenedByIndex) {
    EXPECT_EQ(manager.ReadReg(KvPCIeSim::kRegIdentity), 0u);  // nothing open yet
    ASSERT_TRUE(manager.OpenCard(1));
    EXPECT_EQ(manager.ReadReg(KvPCIeSim::kRegIdentity), KvPCIeSim::kIdentityValue);
    // The facade takes the address first; the request carries the data first.
    EXPECT_EQ(manager.WriteReg(kScratch, 0x5A5A), 0);
    std::uint32_t value = 0;
    ASSERT_TRUE(KvPCIeSim::PeekRiffaRegister(1, kScratch, value));
    EXPECT_EQ(value, 0x5A5Au);
    EXPECT_EQ(manager.ReadReg(kScratch), 0x5A5Au);
    ASSERT_TRUE(KvPCIeSim::PeekRiffaRegister(0, kScratch, value));
    EXPECT_EQ(value, 0u) << "device 0 was not the one opened";
}

TEST_F(RiffaFacade, ASecondOpenReplacesBothEnginesAndAMissingIndexClosesTheDevice) {
    ASSERT_TRUE(manager.OpenCard(0));
    const int withEngines = ThreadCount();  // each engine log has a writer thread
    // The first engines go with their three log writers, not left running beside the new.
    ASSERT_TRUE(manager.OpenCard(1));
    EXPECT_EQ(ThreadCount(), withEngines);

    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(manager.OpenCard(7));
    EXPECT_NE(::testing::internal::GetCapturedStdout().find(
                  "SetupDiEnumDeviceInterfaces failed, Error: "),
              std::string::npos);
    EXPECT_EQ(manager.ReadReg(KvPCIeSim::kRegIdentity), 0u) << "the open device was closed";
    EXPECT_EQ(ThreadCount(), withEngines) << "a failed open keeps the engines";
    manager.StopCapture(0);
    manager.StopCapture(9);  // no channel captures in RIFFA mode, in range or not
}

TEST_F(RiffaFacade, ADeviceRemovedWhileOpenIsListedNoMoreAndReopensAfterItsReturn) {
    ASSERT_TRUE(manager.OpenCard(1));
    ASSERT_TRUE(KvPCIeSim::RemoveRiffaDevice(1));
    EXPECT_EQ(manager.ReadReg(KvPCIeSim::kRegIdentity), 0u);
    fpga_info_list list{};
    EXPECT_TRUE(manager.GetDevices(&list));
    EXPECT_EQ(list.fpgaCount, 1);

    // A device that comes back is listed again and opens.
    const int back = KvPCIeSim::AddRiffaDevice();
    ASSERT_GE(back, 0);
    EXPECT_TRUE(manager.GetDevices(&list));
    ASSERT_EQ(list.fpgaCount, 2);
    ASSERT_TRUE(manager.OpenCard(1));
    EXPECT_EQ(manager.ReadReg(KvPCIeSim::kRegIdentity), KvPCIeSim::kIdentityValue);
    EXPECT_EQ(manager.WriteReg(kScratch, 9), 0);
    std::uint32_t value = 0;
    ASSERT_TRUE(KvPCIeSim::PeekRiffaRegister(back, kScratch, value));
    EXPECT_EQ(value, 9u);
}

TEST_F(RiffaFacade, CaptureAndInjectionAreRefusedWithoutTouchingTheErrorCode) {
    ASSERT_TRUE(manager.OpenCard(0));
    std::vector<char> frame(64 * 64 * 2);
    eErrorCode error = ERR_QUEUE_FULL;
    EXPECT_FALSE(manager.StartCapture(
        0, true, 64, 64, Y16, error, [](int, const char*, void*) {}, nullptr, frame.data()));
    EXPECT_EQ(error, ERR_QUEUE_FULL);
    EXPECT_FALSE(manager.StartInject(0, 50, 64, 64, Y16, 0, frame.data(), error));
    EXPECT_EQ(error, ERR_QUEUE_FULL);
    EXPECT_FALSE(manager.IsStartCapture(0));
    EXPECT_FALSE(manager.WriteControlCmd(0, QByteArray("x")));
}

}  // namespace
}  // namespace kvpcie::testing
