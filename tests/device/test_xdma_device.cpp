// XDMA device access: open and close protocol, listing, transfers and a close racing them.
#include "../support/Environment.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaDevice.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace kvpcie::xdma {
namespace {

using KvPCIeSim::CardAccess;

class XdmaDevice : public ::testing::Test {
protected:
    void SetUp() override {
        ::kvpcie::testing::UnsetEnvironment("KVPCIE_SIM");
        ASSERT_TRUE(KvPCIeSim::Configure("xdma:1"));
    }
    void TearDown() override { card_.XdmaClose(); }

    XdmaCard card_;

    static std::uint64_t OpenFiles() {
        KvPCIeSim::CardCounters counters{};
        EXPECT_TRUE(KvPCIeSim::ReadCounters(0, counters));
        return counters.openFiles;
    }
};

struct PathList {
    char* paths[kPathSlots] = {};
    ~PathList() {
        for (char* path : paths) {
            std::free(path);
        }
    }
};

bool IsWrite(const CardAccess& access, std::uint32_t address, std::uint32_t value) {
    return access.kind == CardAccess::RegisterWrite && access.address == address &&
           access.value == value;
}

TEST_F(XdmaDevice, OpenRequestsRestartRestartsAndAttachesTheHostAndCloseDetaches) {
    KvPCIeSim::TakeAccessLog(0);
    ASSERT_TRUE(card_.XdmaOpen("sim:xdma0"));
    EXPECT_TRUE(card_.XdmaIsOpen());
    std::vector<CardAccess> log = KvPCIeSim::TakeAccessLog(0);
    ASSERT_EQ(log.size(), 3u);
    EXPECT_TRUE(IsWrite(log[0], 0x100014, 1));
    EXPECT_EQ(log[1].kind, CardAccess::Restart);
    EXPECT_TRUE(IsWrite(log[2], 0x4, 0xFFFF0000));
    EXPECT_EQ(OpenFiles(), 4u);

    card_.XdmaClose();
    log = KvPCIeSim::TakeAccessLog(0);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_TRUE(IsWrite(log[0], 0x4, 0));
    EXPECT_FALSE(card_.XdmaIsOpen());
    EXPECT_EQ(OpenFiles(), 0u);

    card_.XdmaClose();  // not open: not even the detach word
    EXPECT_TRUE(KvPCIeSim::TakeAccessLog(0).empty());
}

TEST_F(XdmaDevice, AFailedOpenLeavesTheCardClosedWithNoFileHeld) {
    ASSERT_TRUE(card_.XdmaOpen("sim:xdma0"));
    ASSERT_TRUE(KvPCIeSim::SetNodeAbsent(0, "control", true));
    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(card_.XdmaOpen("sim:xdma0"));
    EXPECT_NE(
        ::testing::internal::GetCapturedStderr().find("Error opening device, win32 error code: "),
        std::string::npos);
    EXPECT_FALSE(card_.XdmaIsOpen());
    EXPECT_EQ(OpenFiles(), 0u);
    EXPECT_EQ(card_.XdmaReadReg(0x1F0000), 0u);
    const unsigned value = 1;
    EXPECT_EQ(card_.XdmaWriteReg(0x100, &value), kTransferCallFailed);

    EXPECT_FALSE(card_.XdmaOpen(nullptr));
    EXPECT_FALSE(card_.XdmaOpen(std::string(300, 'x').c_str()));  // over 260 characters
    EXPECT_FALSE(card_.XdmaOpen("sim:xdma9"));
}

TEST_F(XdmaDevice, RegistersAndTheUserSpaceGoThroughTheUserFile) {
    ASSERT_TRUE(card_.XdmaOpen("sim:xdma0"));
    EXPECT_EQ(card_.XdmaReadReg(0x1F0000), 0x53494D31u);
    EXPECT_EQ(card_.XdmaReadReg(0x100028), 100000000u);
    const unsigned value = 0x12345678;
    EXPECT_EQ(card_.XdmaWriteReg(0x101020, &value), 4);
    EXPECT_EQ(card_.XdmaReadReg(0x101020), 0x12345678u);
    EXPECT_EQ(card_.XdmaWriteReg(0x101020, nullptr), kTransferCallFailed);

    const std::uint32_t block[4] = {1, 2, 3, 4};
    std::uint32_t back[4] = {};
    EXPECT_TRUE(card_.XdmaWriteUser(0x1F1400, block, sizeof block));
    EXPECT_TRUE(card_.XdmaReadUser(0x1F1400, back, sizeof back));
    EXPECT_EQ(std::vector<std::uint32_t>(back, back + 4),
              std::vector<std::uint32_t>(block, block + 4));
    EXPECT_FALSE(card_.XdmaReadUser(0x1F1400, nullptr, 4));
}

TEST_F(XdmaDevice, SixteenMebibytesMoveAsTwoPiecesAndAFinalEmptyOne) {
    ASSERT_TRUE(card_.XdmaOpen("sim:xdma0"));
    const platform::DeviceFilePtr c2h =
        XdmaOpenDeviceFile("sim:xdma0", "c2h_0", platform::kAccessRead);
    ASSERT_NE(c2h, nullptr);
    std::vector<std::uint8_t> buffer(16u << 20);
    KvPCIeSim::TakeAccessLog(0);
    EXPECT_EQ(XdmaReadDevice(c2h.get(), 0, 16u << 20, buffer.data()), 16777216);
    const std::vector<CardAccess> log = KvPCIeSim::TakeAccessLog(0);
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].kind, CardAccess::CardToHost);
    EXPECT_EQ(log[0].address, 0u);
    EXPECT_EQ(log[0].value, 0x800000u);
    EXPECT_EQ(log[1].address, 0x800000u);
    EXPECT_EQ(log[1].value, 0x800000u);
    EXPECT_EQ(log[2].address, 0x1000000u);
    EXPECT_EQ(log[2].value, 0u);
}

TEST_F(XdmaDevice, TransfersReportEachResultCode) {
    ASSERT_TRUE(card_.XdmaOpen("sim:xdma0"));
    const platform::DeviceFilePtr c2h =
        XdmaOpenDeviceFile("sim:xdma0", "c2h_0", platform::kAccessRead);
    const platform::DeviceFilePtr h2c =
        XdmaOpenDeviceFile("sim:xdma0", "h2c_0", platform::kAccessWrite);
    ASSERT_TRUE(c2h && h2c);
    std::vector<std::uint8_t> buffer(0x2000);

    ::testing::internal::CaptureStderr();
    EXPECT_EQ(XdmaReadDevice(c2h.get(), 0x80000000u, 16, buffer.data()), kTransferSeekFailed);
    EXPECT_EQ(XdmaReadDevice(nullptr, 0, 16, buffer.data()), kTransferSeekFailed);
    EXPECT_NE(::testing::internal::GetCapturedStderr().find(
                  "Error setting file pointer, win32 error code: "),
              std::string::npos);
    // Past the end of the 2 GiB of card memory only part of it moves.
    EXPECT_EQ(XdmaReadDevice(c2h.get(), 0x7FFFF000, 0x2000, buffer.data()), kTransferShort);
    EXPECT_EQ(XdmaWriteDevice(h2c.get(), 0x7FFFF000, 0x2000, buffer.data()), kTransferShort);
    EXPECT_EQ(XdmaReadDevice(c2h.get(), 0, 16, nullptr), kTransferCallFailed);
    EXPECT_EQ(XdmaReadDevice(h2c.get(), 0, 16, buffer.data()), kTransferCallFailed);

    EXPECT_FALSE(card_.XdmaReadData(0x80000000u, 16, buffer.data()));
    EXPECT_FALSE(card_.XdmaWriteData(0x7FFFFFF0, 32, buffer.data()));
    EXPECT_TRUE(card_.XdmaReadData(0, 0, nullptr));

    ASSERT_TRUE(KvPCIeSim::SetSurpriseRemoved(0, true));
    EXPECT_EQ(XdmaReadDevice(c2h.get(), 0, 16, buffer.data()), kTransferCallFailed);
    EXPECT_FALSE(card_.XdmaReadData(0, 16, buffer.data()));
    EXPECT_EQ(card_.XdmaReadReg(0x1F0000), 0u);
    const unsigned value = 1;
    EXPECT_EQ(card_.XdmaWriteReg(0x100, &value), kTransferCallFailed);
}

#ifdef __linux__
// Without a device set the process ends with status -1 and prints nothing of its own.
TEST(XdmaDeviceDeathTest, NoDeviceSetEndsTheProcessSilently) {
    // Re-executing the suite is what keeps its threads out of the child, but under user-mode
    // emulation the child would be started natively: there it is forked as it stands.
    GTEST_FLAG_SET(death_test_style,
                   std::getenv("KVPCIE_UNDER_EMULATOR") != nullptr ? "fast" : "threadsafe");
    EXPECT_EXIT(
        {
            ::setenv("KVPCIE_LINUX_ROOT", "/nonexistent/kvpcie-root", 1);
            PathList list;
            XdmaGetDevices(platform::kXdmaInterfaceClass, list.paths);
        },
        ::testing::ExitedWithCode(255), ::testing::Not(::testing::HasSubstr("information set")));
}
#endif

TEST_F(XdmaDevice, ListingFillsAtMostFourBuffers) {
    for (const char* config : {"xdma:0", "xdma:1", "xdma:5"}) {
        SCOPED_TRACE(config);
        ASSERT_TRUE(KvPCIeSim::Configure(config));
        const int cards = config[5] - '0';
        PathList list;
        const int listed = XdmaGetDevices(platform::kXdmaInterfaceClass, list.paths);
        EXPECT_EQ(listed, std::min(cards, kPathSlots));
        for (int slot = 0; slot < kPathSlots; ++slot) {
            ASSERT_NE(list.paths[slot], nullptr);
            const std::string expected = slot < cards ? "sim:xdma" + std::to_string(slot) : "";
            EXPECT_EQ(list.paths[slot], expected);
        }
    }
    EXPECT_EQ(XdmaGetDevices(platform::kXdmaInterfaceClass, nullptr), 0);
    PathList riffa;
    EXPECT_EQ(XdmaGetDevices(platform::kRiffaInterfaceClass, riffa.paths), 0);
}

TEST_F(XdmaDevice, CloseAndReopenWhileAnotherThreadTransfersNeverTouchAClosedFile) {
    ASSERT_TRUE(card_.XdmaOpen("sim:xdma0"));
    std::atomic<bool> run{true};
    std::atomic<int> succeeded{0};
    std::atomic<int> failed{0};
    std::thread transfers([&] {
        std::vector<std::uint8_t> frame(1 << 20);
        while (run.load()) {
            const bool ok = card_.XdmaReadData(0, static_cast<unsigned>(frame.size()), frame.data()) &&
                            card_.XdmaReadReg(0x1F0000) == 0x53494D31u;
            (ok ? succeeded : failed)++;
        }
    });
    // Waits, a bounded time, until the transfer thread's counter moves past `from`.
    const auto awaitChange = [](const std::atomic<int>& counter, int from) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (counter.load() == from && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        return counter.load() != from;
    };
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(awaitChange(succeeded, succeeded.load())) << "transfers succeed while open";
        card_.XdmaClose();
        ASSERT_TRUE(card_.XdmaOpen("sim:xdma0"));
    }
    card_.XdmaClose();
    EXPECT_TRUE(awaitChange(failed, failed.load())) << "transfers after the close fail";
    run = false;
    transfers.join();
    EXPECT_EQ(OpenFiles(), 0u);
}

// Each card object reaches its own card only, and closing one leaves the other open.
TEST_F(XdmaDevice, TwoCardObjectsDriveTwoCardsApart) {
    ASSERT_TRUE(KvPCIeSim::Configure("xdma:2"));
    XdmaCard other;
    ASSERT_TRUE(card_.XdmaOpen("sim:xdma0"));
    ASSERT_TRUE(other.XdmaOpen("sim:xdma1"));
    EXPECT_EQ(card_.Path(), "sim:xdma0");
    EXPECT_EQ(other.Path(), "sim:xdma1");
    const unsigned first = 100;
    const unsigned second = 20;
    ASSERT_EQ(card_.XdmaWriteReg(0x101020, &first), 4);
    ASSERT_EQ(other.XdmaWriteReg(0x101020, &second), 4);
    EXPECT_EQ(card_.XdmaReadReg(0x101020), first);
    EXPECT_EQ(other.XdmaReadReg(0x101020), second);
    std::vector<std::uint8_t> written(4096, 0xA5);
    std::vector<std::uint8_t> back(4096, 0);
    ASSERT_TRUE(other.XdmaWriteData(0x3000000, 4096, written.data()));
    ASSERT_TRUE(card_.XdmaReadData(0x3000000, 4096, back.data()));
    EXPECT_NE(back, written) << "card 0's memory shows what was written to card 1";

    card_.XdmaClose();
    EXPECT_FALSE(card_.XdmaIsOpen());
    EXPECT_TRUE(other.XdmaIsOpen());
    EXPECT_EQ(other.XdmaReadReg(0x101020), second);
    other.XdmaClose();
}

}  // namespace
}  // namespace kvpcie::xdma
