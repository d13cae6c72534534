// What is the simulated XDMA card's own: the driver's limit, event timeouts, the listing.
#include "../support/Environment.h"
#include "SimCardTest.h"

#include "platform/DeviceInterfaces.h"
#include "platform/SystemError.h"

#include <string>
#include <vector>

namespace kvpcie {
namespace {

using SimCard = SimCardTest;

TEST_F(SimCard, TheIdentityIgnoresWritesAndTheDelayClockIsItsOwn) {
    Write(KvPCIeSim::kRegIdentity, 0);
    EXPECT_EQ(Read(KvPCIeSim::kRegIdentity), KvPCIeSim::kIdentityValue);
    EXPECT_EQ(Read(0x100030), 125000000u);  // the delay clock, apart from the 100 MHz one
}

TEST_F(SimCard, DmaKeepsTheDriversEightMebibyteLimit) {
    std::vector<std::uint8_t> buffer(0x800001, 0xAA);
    std::uint32_t moved = 0;
    ASSERT_TRUE(c2h_->Seek(0));
    EXPECT_FALSE(c2h_->Read(buffer.data(), 0x800001, moved));
    KvPCIeSim::CardCounters counters{};
    ASSERT_TRUE(KvPCIeSim::ReadCounters(0, counters));
    EXPECT_EQ(counters.refusedTransfers, 1u);
    EXPECT_TRUE(c2h_->Read(buffer.data(), 0x800000, moved));
    EXPECT_EQ(moved, 0x800000u);
    EXPECT_EQ(buffer[0x7FFFFF], 0) << "memory never written reads zero";
}

TEST_F(SimCard, EventRaisesMergeAndAReadTimesOutWithZero) {
    ASSERT_TRUE(KvPCIeSim::SetUserEventTimeout(0, 20));
    const platform::DeviceFilePtr event =
        platform::OpenDeviceFile("sim:xdma0\\event_2", platform::kAccessRead);
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

TEST_F(SimCard, ListingFollowsKvpcieSimAndTheControlApi) {
    std::vector<std::string> paths;
    ::kvpcie::testing::SetEnvironment("KVPCIE_SIM", "xdma:3,riffa:1");
    ASSERT_TRUE(platform::ListDeviceInterfaces(platform::kXdmaInterfaceClass, paths));
    EXPECT_EQ(paths, (std::vector<std::string>{"sim:xdma0", "sim:xdma1", "sim:xdma2"}));
    user_ = platform::OpenDeviceFile("sim:xdma0\\user", platform::kAccessReadWrite);
    ASSERT_NE(user_, nullptr);

    ASSERT_TRUE(KvPCIeSim::Configure("xdma:1"));  // replaces the cards until KVPCIE_SIM changes
    ASSERT_TRUE(platform::ListDeviceInterfaces(platform::kXdmaInterfaceClass, paths));
    EXPECT_EQ(paths.size(), 1u);
    std::uint32_t value = 0;
    std::uint32_t moved = 0;
    EXPECT_FALSE(user_->Read(&value, 4, moved)) << "a replaced card behaves as removed";

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
