// The simulated XDMA card as the OS layer presents it: registers, memory, events, removal and
// the KVPCIE_SIM listing.
#include "../support/Environment.h"
#include "platform/DeviceFile.h"
#include "platform/DeviceInterfaces.h"
#include "platform/SystemError.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <vector>

namespace kvpcie {
namespace {

using platform::DeviceFilePtr;
using platform::Error;
using namespace std::chrono_literals;

class SimCard : public ::testing::Test {
protected:
    void SetUp() override {
        ::kvpcie::testing::UnsetEnvironment("KVPCIE_SIM");
        ASSERT_TRUE(KvPCIeSim::Configure("xdma:1"));
    }

    static DeviceFilePtr Open(const char* node, unsigned access) {
        return platform::OpenDeviceFile(std::string("sim:xdma0\\") + node, access);
    }

    static std::uint32_t ReadWord(platform::DeviceFile& file, std::uint32_t address) {
        std::uint32_t value = 0xDEADBEEF;
        std::uint32_t moved = 0;
        EXPECT_TRUE(file.Seek(address));
        EXPECT_TRUE(file.Read(&value, 4, moved));
        EXPECT_EQ(moved, 4u);
        return value;
    }

    static bool WriteWord(platform::DeviceFile& file, std::uint32_t address, std::uint32_t value) {
        std::uint32_t moved = 0;
        return file.Seek(address) && file.Write(&value, 4, moved) && moved == 4;
    }
};

TEST_F(SimCard, AnswersItsIdentityAndTwoDifferentClocks) {
    const DeviceFilePtr user = Open("user", platform::kAccessReadWrite);
    ASSERT_NE(user, nullptr);
    EXPECT_EQ(ReadWord(*user, 0x1F0000), 0x53494D31u);
    EXPECT_EQ(ReadWord(*user, 0x100028), 100000000u);
    EXPECT_EQ(ReadWord(*user, 0x100030), 125000000u);
    ASSERT_TRUE(WriteWord(*user, 0x1F0000, 0));  // read-only: the write is taken and ignored
    EXPECT_EQ(ReadWord(*user, 0x1F0000), 0x53494D31u);
}

TEST_F(SimCard, StoresRegistersAndLogsWritesInOrder) {
    const DeviceFilePtr user = Open("user", platform::kAccessReadWrite);
    ASSERT_NE(user, nullptr);
    KvPCIeSim::TakeAccessLog(0);
    ASSERT_TRUE(WriteWord(*user, 0x101004, 0x05000400));
    ASSERT_TRUE(WriteWord(*user, 0x4, 0xFFFF0000));
    EXPECT_EQ(ReadWord(*user, 0x101004), 0x05000400u);
    const auto log = KvPCIeSim::TakeAccessLog(0);
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].address, 0x101004u);
    EXPECT_EQ(log[1].address, 0x4u);
    EXPECT_EQ(log[1].value, 0xFFFF0000u);
    EXPECT_TRUE(KvPCIeSim::TakeAccessLog(0).empty());
}

TEST_F(SimCard, RegisterFileMovesWholeWordsUpToTheEndOfTheUserSpace) {
    const DeviceFilePtr user = Open("user", platform::kAccessReadWrite);
    ASSERT_NE(user, nullptr);
    std::uint32_t words[2] = {};
    std::uint32_t moved = 0;
    ASSERT_TRUE(user->Seek(2));
    EXPECT_FALSE(user->Read(words, 4, moved));
    EXPECT_EQ(platform::LastError(), platform::SystemCode(Error::InvalidParameter));
    ASSERT_TRUE(user->Seek(0x1FFFFC));
    EXPECT_TRUE(user->Read(words, 8, moved));
    EXPECT_EQ(moved, 4u);
}

TEST_F(SimCard, DmaRefusesRequestsOverEightMebibytesAndShortensAtTheEndOfMemory) {
    const DeviceFilePtr c2h = Open("c2h_0", platform::kAccessRead);
    ASSERT_NE(c2h, nullptr);
    std::vector<std::uint8_t> buffer(0x800001, 0xAA);
    std::uint32_t moved = 0;
    ASSERT_TRUE(c2h->Seek(0));
    EXPECT_FALSE(c2h->Read(buffer.data(), 0x800001, moved));
    KvPCIeSim::CardCounters counters{};
    ASSERT_TRUE(KvPCIeSim::ReadCounters(0, counters));
    EXPECT_EQ(counters.refusedTransfers, 1u);

    EXPECT_TRUE(c2h->Read(buffer.data(), 0x800000, moved));  // never written: zeros
    EXPECT_EQ(moved, 0x800000u);
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(buffer[0x7FFFFF], 0);

    ASSERT_TRUE(c2h->Seek(0x7FFFF000));
    EXPECT_TRUE(c2h->Read(buffer.data(), 0x2000, moved));
    EXPECT_EQ(moved, 0x1000u);
    EXPECT_FALSE(c2h->Seek(-1));
}

TEST_F(SimCard, MemoryWrittenByTheHostIsReadBackAndAdvancesThePosition) {
    const DeviceFilePtr h2c = Open("h2c_0", platform::kAccessWrite);
    const DeviceFilePtr c2h = Open("c2h_0", platform::kAccessRead);
    ASSERT_NE(h2c, nullptr);
    ASSERT_NE(c2h, nullptr);
    const std::uint8_t first[3] = {1, 2, 3};
    const std::uint8_t second[2] = {4, 5};
    std::uint32_t moved = 0;
    ASSERT_TRUE(h2c->Seek(0xFFFFE));  // crosses a page boundary of the sparse memory
    ASSERT_TRUE(h2c->Write(first, 3, moved));
    ASSERT_TRUE(h2c->Write(second, 2, moved));
    std::uint8_t back[5] = {};
    ASSERT_TRUE(c2h->Seek(0xFFFFE));
    ASSERT_TRUE(c2h->Read(back, 5, moved));
    EXPECT_EQ(std::vector<std::uint8_t>(back, back + 5),
              (std::vector<std::uint8_t>{1, 2, 3, 4, 5}));
    EXPECT_FALSE(h2c->Read(back, 1, moved));  // the host-to-card file only writes
}

TEST_F(SimCard, UserEventReadsGiveOneWhenRaisedAndZeroAfterTheTimeout) {
    ASSERT_TRUE(KvPCIeSim::SetUserEventTimeout(0, 20));
    const DeviceFilePtr event = Open("event_2", platform::kAccessRead);
    ASSERT_NE(event, nullptr);
    std::uint8_t byte = 0xFF;
    std::uint32_t moved = 0;
    ASSERT_TRUE(KvPCIeSim::RaiseUserEvent(0, 2));
    ASSERT_TRUE(KvPCIeSim::RaiseUserEvent(0, 2));  // unread raises merge into one
    ASSERT_TRUE(event->Read(&byte, 1, moved));
    EXPECT_EQ(byte, 1);
    ASSERT_TRUE(event->Read(&byte, 1, moved));
    EXPECT_EQ(byte, 0);
    EXPECT_EQ(moved, 1u);
    EXPECT_FALSE(KvPCIeSim::RaiseUserEvent(0, 16));
}

TEST_F(SimCard, CancelEndsAWaitingEventReadAndEveryLaterOne) {
    const DeviceFilePtr event = Open("event_0", platform::kAccessRead);
    ASSERT_NE(event, nullptr);
    auto waiting = std::async(std::launch::async, [&] {
        std::uint8_t byte = 0;
        std::uint32_t moved = 0;
        return event->Read(&byte, 1, moved);
    });
    // The read blocks (3 s timeout); give it a moment to get there, then cancel.
    EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
    event->Cancel();
    ASSERT_EQ(waiting.wait_for(2s), std::future_status::ready);
    EXPECT_FALSE(waiting.get());
    std::uint8_t byte = 0;
    std::uint32_t moved = 0;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(event->Read(&byte, 1, moved));
    EXPECT_EQ(platform::LastError(), platform::SystemCode(Error::OperationAborted));
    EXPECT_LT(std::chrono::steady_clock::now() - before, 1s);
}

TEST_F(SimCard, SurpriseRemovalFailsEverythingUntilTheRestart) {
    const DeviceFilePtr user = Open("user", platform::kAccessReadWrite);
    const DeviceFilePtr c2h = Open("c2h_0", platform::kAccessRead);
    const DeviceFilePtr event = Open("event_1", platform::kAccessRead);
    ASSERT_TRUE(user && c2h && event);
    auto waiting = std::async(std::launch::async, [&] {
        std::uint8_t byte = 0;
        std::uint32_t moved = 0;
        return event->Read(&byte, 1, moved);
    });
    ASSERT_TRUE(WriteWord(*user, 0x1F0008, 1));
    ASSERT_EQ(waiting.wait_for(2s), std::future_status::ready);
    EXPECT_FALSE(waiting.get());

    std::uint32_t value = 0;
    std::uint32_t moved = 0;
    EXPECT_FALSE(user->Read(&value, 4, moved));
    EXPECT_EQ(platform::LastError(), platform::SystemCode(Error::DeviceRemoved));
    EXPECT_FALSE(c2h->Read(&value, 4, moved));

    platform::RestartXilinxDevices();
    EXPECT_EQ(ReadWord(*user, 0x1F0000), 0x53494D31u);
}

TEST_F(SimCard, MissingCardsAndAbsentNodesDoNotOpen) {
    EXPECT_EQ(platform::OpenDeviceFile("sim:xdma7\\user", platform::kAccessRead), nullptr);
    EXPECT_EQ(platform::LastError(), platform::SystemCode(Error::FileNotFound));
    EXPECT_EQ(Open("event_16", platform::kAccessRead), nullptr);
    EXPECT_EQ(Open("c2h_1", platform::kAccessRead), nullptr);
    ASSERT_TRUE(KvPCIeSim::SetNodeAbsent(0, "h2c_0", true));
    EXPECT_EQ(Open("h2c_0", platform::kAccessWrite), nullptr);
    ASSERT_TRUE(KvPCIeSim::SetNodeAbsent(0, "h2c_0", false));
    EXPECT_NE(Open("h2c_0", platform::kAccessWrite), nullptr);
}

TEST_F(SimCard, ListingFollowsKvpcieSimAndTheControlApi) {
    std::vector<std::string> paths;
    ::kvpcie::testing::SetEnvironment("KVPCIE_SIM", "xdma:3,riffa:1");
    ASSERT_TRUE(platform::ListDeviceInterfaces(platform::kXdmaInterfaceClass, paths));
    EXPECT_EQ(paths, (std::vector<std::string>{"sim:xdma0", "sim:xdma1", "sim:xdma2"}));

    const DeviceFilePtr user = Open("user", platform::kAccessReadWrite);
    ASSERT_NE(user, nullptr);
    ASSERT_TRUE(KvPCIeSim::Configure("xdma:1"));  // replaces the cards until KVPCIE_SIM changes
    ASSERT_TRUE(platform::ListDeviceInterfaces(platform::kXdmaInterfaceClass, paths));
    EXPECT_EQ(paths.size(), 1u);
    std::uint32_t value = 0;
    std::uint32_t moved = 0;
    EXPECT_FALSE(user->Read(&value, 4, moved)) << "a replaced card behaves as removed";

    ::kvpcie::testing::SetEnvironment("KVPCIE_SIM", "bogus");
    ::testing::internal::CaptureStderr();
    ASSERT_TRUE(platform::ListDeviceInterfaces(platform::kXdmaInterfaceClass, paths));
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("KVPCIE_SIM"), std::string::npos);
    EXPECT_TRUE(paths.empty());

    const int added = KvPCIeSim::AddXdmaCard();
    EXPECT_EQ(KvPCIeSim::XdmaCardPath(added), "sim:xdma0");
    EXPECT_TRUE(KvPCIeSim::RemoveXdmaCard(added));
    EXPECT_FALSE(KvPCIeSim::RemoveXdmaCard(added));
    ::kvpcie::testing::UnsetEnvironment("KVPCIE_SIM");
}

}  // namespace
}  // namespace kvpcie
