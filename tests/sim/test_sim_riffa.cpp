// What is the simulated RIFFA device's own (the rest: the RIFFA device and facade suites).
#include "../support/Environment.h"
#include "platform/ControlDevice.h"
#include "platform/DeviceInterfaces.h"
#include "platform/SystemError.h"

#include "drivers/RiffaDriverInterface.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace kvpcie {
namespace {

using platform::ControlDevicePtr;
using platform::ControlResult;
using platform::Error;
using Outcome = ControlResult::Outcome;
using Words = std::array<std::uint8_t, 16>;

// Only the sim: part of the RIFFA listing, whatever real devices there are.
std::vector<std::string> SimulatedPaths() {
    std::vector<std::string> paths;
    EXPECT_TRUE(platform::ListDeviceInterfaces(platform::kRiffaInterfaceClass, paths));
    paths.erase(std::remove_if(paths.begin(), paths.end(),
                               [](const std::string& p) { return p.compare(0, 4, "sim:") != 0; }),
                paths.end());
    return paths;
}

riffa::RiffaIoArgs Args(int channel, int offset) {
    riffa::RiffaIoArgs args{};
    args.channel = channel;
    args.lengthWords = riffa::kRegisterRequestWords;
    args.offset = offset;
    args.last = 1;
    args.timeout = riffa::kRegisterTimeoutMs;
    return args;
}

// The library's register request: data, address, then the fill.
Words RegisterWords(std::uint32_t data, std::uint32_t address, std::uint8_t fill) {
    Words words;
    words.fill(fill);
    std::memcpy(words.data(), &data, 4);
    std::memcpy(words.data() + 4, &address, 4);
    return words;
}

class SimRiffa : public ::testing::Test {
protected:
    void SetUp() override {
        ::kvpcie::testing::UnsetEnvironment("KVPCIE_SIM");
        ASSERT_TRUE(KvPCIeSim::Configure("riffa:3"));
        device_ = platform::OpenControlDevice(KvPCIeSim::RiffaDevicePath(0), true);
        ASSERT_NE(device_, nullptr);
    }

    ControlResult Send(int offset, Words words) {
        const riffa::RiffaIoArgs args = Args(0, offset);
        return device_->Control(riffa::kSendCode, &args, sizeof(args), words.data(), 16);
    }
    ControlResult AskRead(std::uint32_t address) {
        return Send(riffa::kReadRequestOffset, RegisterWords(0, address, riffa::kReadFill));
    }
    ControlResult Receive(Words& reply, int channel = 0) {
        reply.fill(0xEE);
        const riffa::RiffaIoArgs args = Args(channel, 0);
        return device_->Control(riffa::kReceiveCode, &args, sizeof(args), reply.data(), 16);
    }

    ControlDevicePtr device_;
};

TEST_F(SimRiffa, ListingFollowsKvpcieSimAndTheControlApiInNumberOrder) {
    ASSERT_TRUE(KvPCIeSim::Configure("xdma:1,riffa:6"));
    const std::vector<std::string> six = SimulatedPaths();
    ASSERT_EQ(six.size(), 6u);
    EXPECT_EQ(six[5], "sim:riffa5");
    std::vector<std::string> xdma;
    ASSERT_TRUE(platform::ListDeviceInterfaces(platform::kXdmaInterfaceClass, xdma));
    EXPECT_EQ(std::count(xdma.begin(), xdma.end(), "sim:riffa0"), 0);

    ::kvpcie::testing::SetEnvironment("KVPCIE_SIM", "riffa:2");
    EXPECT_EQ(KvPCIeSim::RiffaDeviceNumbers(), (std::vector<int>{0, 1}));
    EXPECT_EQ(KvPCIeSim::AddRiffaDevice(), 2);
    EXPECT_TRUE(KvPCIeSim::RemoveRiffaDevice(0));
    EXPECT_FALSE(KvPCIeSim::RemoveRiffaDevice(0));
    EXPECT_EQ(SimulatedPaths(), (std::vector<std::string>{"sim:riffa1", "sim:riffa2"}));
    ::kvpcie::testing::UnsetEnvironment("KVPCIE_SIM");
    EXPECT_TRUE(SimulatedPaths().empty());
}

TEST_F(SimRiffa, AReplyGoesOnlyToItsChannelAndAResetDropsIt) {
    ASSERT_EQ(Send(riffa::kWriteRequestOffset,
                   RegisterWords(0, KvPCIeSim::kRegIdentity, riffa::kWriteFill))
                  .outcome,
              Outcome::Completed);
    ASSERT_EQ(AskRead(KvPCIeSim::kRegIdentity).outcome, Outcome::Completed);
    Words reply;
    ControlResult received = Receive(reply, 1);
    EXPECT_EQ(received.outcome, Outcome::AbortedLater) << "nothing queued: aborted at once";
    EXPECT_EQ(received.count, 0u);
    EXPECT_EQ(reply[0], 0xEE);
    received = Receive(reply);
    ASSERT_EQ(received.outcome, Outcome::Completed);
    EXPECT_EQ(received.count, 4u);
    std::uint32_t identity = 0;
    std::memcpy(&identity, reply.data(), 4);
    EXPECT_EQ(identity, KvPCIeSim::kIdentityValue) << "the identity ignores writes";
    EXPECT_EQ(Receive(reply).outcome, Outcome::AbortedLater);

    ASSERT_EQ(AskRead(0x40).outcome, Outcome::Completed);
    EXPECT_EQ(device_->Control(riffa::kResetCode, nullptr, 0, nullptr, 0).outcome,
              Outcome::Completed);
    EXPECT_EQ(Receive(reply).outcome, Outcome::AbortedLater);
}

TEST_F(SimRiffa, UnknownCodesAndListRequestsOutsideTheRecordAreRefused) {
    const ControlDevicePtr second = platform::OpenControlDevice("sim:riffa2", false);
    ASSERT_NE(second, nullptr);
    std::vector<std::uint8_t> buffer(sizeof(fpga_info_list) + 8, 0xC3);  // 8 guard bytes after it
    const std::vector<std::uint8_t> untouched = buffer;
    struct Refused {
        std::uint32_t code;
        std::int32_t index;
        std::uint32_t size;
    };
    for (const Refused& r :
         {Refused{0x222412, 0, 164}, Refused{riffa::kListCode, 5, 164},
          Refused{riffa::kListCode, -1, 164}, Refused{riffa::kListCode, 3, 163}}) {
        const ControlResult result = second->Control(r.code, &r.index, 4, buffer.data(), r.size);
        EXPECT_EQ(result.outcome, Outcome::Failed) << r.code << " " << r.index << " " << r.size;
        EXPECT_EQ(result.error, platform::SystemCode(Error::InvalidParameter)) << r.index;
        EXPECT_EQ(buffer, untouched) << r.index;
    }

    const std::int32_t index = 3;
    const ControlResult listed =
        second->Control(riffa::kListCode, &index, 4, buffer.data(), sizeof(fpga_info_list));
    ASSERT_EQ(listed.outcome, Outcome::Completed);
    EXPECT_EQ(listed.count, 164u);
    fpga_info_list record;
    std::memcpy(&record, buffer.data(), sizeof(record));
    EXPECT_EQ(record.id[3], 2);
    EXPECT_EQ(record.deviceId[3], 0x7028);
    EXPECT_EQ(record.fpgaCount, std::int32_t(0xC3C3C3C3)) << "the library counts, not the driver";
    EXPECT_EQ(record.id[2], std::int32_t(0xC3C3C3C3));
    EXPECT_EQ(buffer.back(), 0xC3);
}

TEST_F(SimRiffa, HandlesOnSeveralThreadsWriteTogetherWhileTheLogIsTaken) {
    constexpr std::uint32_t kWrites = 200;
    std::vector<std::thread> writers;
    for (std::uint32_t thread = 0; thread < 2; ++thread) {
        writers.emplace_back([thread] {
            const ControlDevicePtr own = platform::OpenControlDevice("sim:riffa0", true);
            for (std::uint32_t i = 0; own != nullptr && i < kWrites; ++i) {
                const riffa::RiffaIoArgs args = Args(0, riffa::kWriteRequestOffset);
                Words words = RegisterWords(i + 1, thread * 0x1000 + 4 * i, riffa::kWriteFill);
                own->Control(riffa::kSendCode, &args, sizeof(args), words.data(), 16);
            }
        });
    }
    std::size_t logged = 0;
    for (int round = 0; round < 50; ++round) {
        logged += KvPCIeSim::TakeRiffaRequestLog(0).size();
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    logged += KvPCIeSim::TakeRiffaRequestLog(0).size();
    EXPECT_EQ(logged, 2 * kWrites);
    for (std::uint32_t thread = 0; thread < 2; ++thread) {
        std::uint32_t value = 0;
        ASSERT_TRUE(KvPCIeSim::PeekRiffaRegister(0, thread * 0x1000 + 4 * (kWrites - 1), value));
        EXPECT_EQ(value, kWrites);
    }
}

TEST_F(SimRiffa, OpeningAMissingDeviceFailsWithFileNotFound) {
    for (const bool overlapped : {true, false}) {
        for (const char* path :
             {"sim:riffa3", "sim:riffa", "sim:riffa01", "sim:riffa1x", "sim:xdma0", "sim:"}) {
            platform::SetLastError(0);
            EXPECT_EQ(platform::OpenControlDevice(path, overlapped), nullptr) << path;
            EXPECT_EQ(platform::LastError(), platform::SystemCode(Error::FileNotFound)) << path;
        }
    }
    EXPECT_NE(platform::OpenControlDevice("sim:riffa1", false), nullptr);
}

}  // namespace
}  // namespace kvpcie
