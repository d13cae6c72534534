// Waiting for a card's user event: raised, timed out, missing, cancelled.
#include "../support/Environment.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/EventFile.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>

namespace kvpcie::xdma {
namespace {

using namespace std::chrono_literals;

class EventFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::kvpcie::testing::UnsetEnvironment("KVPCIE_SIM");
        ASSERT_TRUE(KvPCIeSim::Configure("xdma:1"));
    }
};

TEST_F(EventFileTest, ReadGivesOneForARaisedEventAndZeroWhenTheDriverGivesUp) {
    ASSERT_TRUE(KvPCIeSim::SetUserEventTimeout(0, 20));
    EventFile event("sim:xdma0\\event_3", platform::kAccessRead);
    ASSERT_TRUE(event.IsValid());
    ASSERT_TRUE(KvPCIeSim::RaiseUserEvent(0, 3));
    EXPECT_EQ(event.Read(0), 1);
    EXPECT_EQ(event.Read(0), 0);
}

TEST_F(EventFileTest, AMissingFileSaysSoAndEveryReadFailsAtOnce) {
    ::testing::internal::CaptureStdout();
    EventFile event("7028\\event_0", platform::kAccessRead);
    EXPECT_FALSE(event.IsValid());
    EXPECT_EQ(event.Read(0), 0);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("error: ", 0), 0u) << out;
    EXPECT_NE(out.find("\nerrorStr001: "), std::string::npos) << out;
    event.Cancel();  // harmless on an invalid file
}

TEST_F(EventFileTest, CancelReleasesAThreadWaitingForAnEventThatNeverComes) {
    EventFile event("sim:xdma0\\event_0", platform::kAccessRead);
    ASSERT_TRUE(event.IsValid());
    auto waiting = std::async(std::launch::async, [&] { return event.Read(0); });
    EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
    event.Cancel();
    ASSERT_EQ(waiting.wait_for(2s), std::future_status::ready);
    EXPECT_EQ(waiting.get(), 0);
    ASSERT_TRUE(KvPCIeSim::RaiseUserEvent(0, 0));
    EXPECT_EQ(event.Read(0), 0) << "a cancelled file stays finished";
}

}  // namespace
}  // namespace kvpcie::xdma
