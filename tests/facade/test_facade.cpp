// The facade as a host uses it: no card, the simulated card through KVPCIE_SIM, managers that
// share a card or take it over, and copies that share one record. (Two cards side by side:
// test_c_api_cards, whose handles each hold a manager of their own.)
#include "../support/Environment.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <gtest/gtest.h>

#include <QThread>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using KvPCIeSim::CardAccess;

struct PathList {
    char* paths[4] = {};
    ~PathList() {
        for (char* path : paths) {
            std::free(path);
        }
    }
};

class Facade : public ::testing::Test {
protected:
    void TearDown() override { kvpcie::testing::UnsetEnvironment("KVPCIE_SIM"); }
};

TEST_F(Facade, WithoutACardNothingOpensAndEveryAccessGivesItsNeutralResult) {
    kvpcie::testing::UnsetEnvironment("KVPCIE_SIM");
    PCIeDataManager manager;
    EXPECT_TRUE(manager.IsCardOpen());
    PathList list;
    EXPECT_EQ(manager.GetDevices(list.paths), 0);
    EXPECT_STREQ(list.paths[0], "");
    EXPECT_EQ(manager.ReadReg(0x1F0000), 0u);
    EXPECT_EQ(manager.WriteReg(0x4, 1), 0);
    unsigned char byte = 0;
    EXPECT_FALSE(manager.ReadData(0, 1, &byte));
    EXPECT_FALSE(manager.WriteData(0, 1, &byte));

    eErrorCode error = ERR_NONE;
    std::vector<char> frame(1280 * 1024 * 2);
    EXPECT_FALSE(manager.StartCapture(0, true, 1280, 1024, Y16, error, CaptureFrameCallback{},
                                      nullptr, frame.data()));
    EXPECT_EQ(error, ERR_NO_CARD);
    error = ERR_NONE;
    EXPECT_FALSE(manager.StartInject(0, 50, 1280, 1024, Y16, 0, frame.data(), error));
    EXPECT_EQ(error, ERR_NO_CARD);
    EXPECT_FALSE(manager.IsStartCapture(0));
    EXPECT_EQ(manager.GetCaptureDelayStatus(0), nullptr);
    EXPECT_EQ(manager.GetInjectDelayStatus(0), nullptr);
    EXPECT_FALSE(manager.WriteControlCmd(0, QByteArray("\x01", 1)));
    EXPECT_FALSE(manager.OpenCard(0));
}

TEST_F(Facade, OpensTheSimulatedCardReadsItsRegistersAndRoundTripsCardMemory) {
    kvpcie::testing::SetEnvironment("KVPCIE_SIM", "1");
    PCIeDataManager manager;
    PathList list;
    ASSERT_EQ(manager.GetDevices(list.paths), 1);
    EXPECT_STREQ(list.paths[0], "sim:xdma0");
    KvPCIeSim::TakeAccessLog(0);
    ASSERT_TRUE(manager.OpenCard(list.paths[0]));
    const std::vector<CardAccess> log = KvPCIeSim::TakeAccessLog(0);
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[2].address, 0x4u);
    EXPECT_EQ(log[2].value, 0xFFFF0000u);

    EXPECT_EQ(manager.ReadReg(0x1F0000), 0x53494D31u);
    EXPECT_EQ(manager.WriteReg(0x101020, -2), 4);
    EXPECT_EQ(manager.ReadReg(0x101020), 0xFFFFFFFEu);

    const unsigned size = (16u << 20) + 123;
    std::vector<unsigned char> written(size);
    std::vector<unsigned char> back(size);
    for (unsigned i = 0; i < size; ++i) {
        written[i] = static_cast<unsigned char>(i ^ (i >> 9));
    }
    ASSERT_TRUE(manager.WriteData(0x3000000, size, written.data()));
    ASSERT_TRUE(manager.ReadData(0x3000000, size, back.data()));
    EXPECT_EQ(back, written);

    manager.CloseCard();
    EXPECT_EQ(manager.ReadReg(0x1F0000), 0u);
    EXPECT_FALSE(manager.ReadData(0x3000000, 16, back.data()));
}

TEST_F(Facade, StartCaptureOpensTheFirstCardByItself) {
    kvpcie::testing::SetEnvironment("KVPCIE_SIM", "xdma:2");
    PCIeDataManager manager;
    KvPCIeSim::TakeAccessLog(0);
    eErrorCode error = ERR_NO_CARD;
    std::vector<char> frame(640 * 480);
    manager.StartCapture(1, false, 640, 480, Y8, error, CaptureFrameCallback{}, nullptr,
                         frame.data());
    EXPECT_EQ(error, ERR_NONE);
    EXPECT_EQ(manager.ReadReg(0x1F0000), 0x53494D31u);
    const std::vector<CardAccess> log = KvPCIeSim::TakeAccessLog(0);
    ASSERT_GE(log.size(), 3u);
    EXPECT_EQ(log[1].kind, CardAccess::Restart) << "the first card was opened";
    EXPECT_TRUE(manager.IsStartCapture(1));
    manager.CloseCard();
}

TEST_F(Facade, ASecondManagerLeavesTheCardOfOneWithRunningChannelsAlone) {
    kvpcie::testing::SetEnvironment("KVPCIE_SIM", "1");
    char path[] = "sim:xdma0";
    PCIeDataManager first;
    ASSERT_TRUE(first.OpenCard(path));
    std::vector<char> buffer(64 * 48 * 2);
    eErrorCode error = ERR_NONE;
    const CaptureFrameCallback ignore = [](int, const char*, void*) {};
    ASSERT_TRUE(first.StartCapture(0, true, 64, 48, Y16, error, ignore, nullptr, buffer.data()));

    PCIeDataManager second;
    EXPECT_FALSE(second.OpenCard(path));
    EXPECT_NE(std::string(second.LastErrorText()).find("another PCIeDataManager has channels"),
              std::string::npos)
        << second.LastErrorText();
    std::vector<char> other(64 * 48 * 2);
    EXPECT_FALSE(second.StartCapture(1, true, 64, 48, Y16, error, ignore, nullptr, other.data()));
    EXPECT_EQ(error, ERR_NO_CARD);
    second.CloseCard();
    // The first manager's card and channel are untouched: open, enabled, capturing.
    EXPECT_EQ(first.ReadReg(0x1F0000), 0x53494D31u);
    EXPECT_EQ(first.ReadReg(0x100018) & 1u, 1u);
    EXPECT_TRUE(first.IsStartCapture(0));
    // A copy shares the first one's record, and so its card.
    PCIeDataManager copy(first);
    EXPECT_TRUE(copy.StartCapture(2, true, 64, 48, Y16, error, ignore, nullptr, other.data()));
    copy.StopCapture(2);

    // Idle, the card may be taken over; the first manager then reaches no card.
    first.StopCapture(0);
    EXPECT_TRUE(second.OpenCard(path));
    EXPECT_EQ(second.ReadReg(0x1F0000), 0x53494D31u);
    EXPECT_EQ(first.ReadReg(0x1F0000), 0u);
    EXPECT_NE(std::string(first.LastErrorText()).find("no XDMA card is open"), std::string::npos)
        << first.LastErrorText();
    second.CloseCard();
}

// The core table hands out the lowest free core, and core 0 to share once all are taken.
TEST_F(Facade, CopiesShareOneRecordAndItsCoreTable) {
    kvpcie::testing::UnsetEnvironment("KVPCIE_SIM");
    PCIeDataManager first;
    PCIeDataManager second(RIFFA);
    second = first;
    PCIeDataManager third(second);
    PCIeDataManager fourth(RIFFA);
    fourth = std::move(third);

    const unsigned cores = static_cast<unsigned>(std::max(1, QThread::idealThreadCount()));
    for (unsigned core = 0; core < cores; ++core) {
        EXPECT_EQ(first.GetIdealCpuCoreIndex(), core);
    }
    EXPECT_EQ(fourth.GetIdealCpuCoreIndex(), 0u) << "the cores taken through `first` are taken";
    fourth.ResetUsedCpuCoreIndex(cores + 3);  // outside the table: never handed out
    fourth.ResetUsedCpuCoreIndex(0xFFFFFFFFu);
    EXPECT_EQ(fourth.GetIdealCpuCoreIndex(), 0u);
    fourth.ResetUsedCpuCoreIndex(cores - 1);
    fourth.ResetUsedCpuCoreIndex(0);
    EXPECT_EQ(second.GetIdealCpuCoreIndex(), 0u);
    EXPECT_EQ(second.GetIdealCpuCoreIndex(), cores - 1);
    EXPECT_EQ(second.GetIdealCpuCoreIndex(), 0u);
    EXPECT_EQ(PCIeDataManager().GetIdealCpuCoreIndex(), 0u) << "a new facade has its own table";

    // `second` was made for RIFFA; sharing the record made it an XDMA facade.
    eErrorCode error = ERR_QUEUE_FULL;
    char frame[16] = {};
    EXPECT_FALSE(second.StartInject(0, 25, 4, 4, Y8, 0, frame, error));
    EXPECT_EQ(error, ERR_NO_CARD);
}

}  // namespace
