// The simulated RIFFA device as the OS layer presents it: listing, opening, the driver's
// requests, the register logic behind channel 0 and removal.
#include "../support/Environment.h"
#include "platform/ControlDevice.h"
#include "platform/DeviceInterfaces.h"
#include "platform/SystemError.h"

#include "Common/IO/DeviceStream/KvPCIE/riffa_stream/RiffaDriverInterface.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
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
using Bytes = std::vector<std::uint8_t>;
using Words = std::array<std::uint8_t, 16>;

// fpga_info_list, whose own header needs Qt.
#pragma pack(push, 1)
struct ListRecord {
    std::int32_t fpgaCount;
    std::int32_t id[5];
    std::int32_t channelCount[5];
    char name[5][16];
    std::int32_t vendorId[5];
    std::int32_t deviceId[5];
};
#pragma pack(pop)
static_assert(sizeof(ListRecord) == 164, "the driver's list record");

// The sim: part of the RIFFA listing; any real device must come before it.
std::vector<std::string> SimulatedPaths() {
    std::vector<std::string> paths;
    EXPECT_TRUE(platform::ListDeviceInterfaces(platform::kRiffaInterfaceClass, paths));
    std::vector<std::string> simulated;
    for (const std::string& path : paths) {
        if (path.compare(0, 4, "sim:") == 0) {
            simulated.push_back(path);
        } else {
            EXPECT_TRUE(simulated.empty()) << path << " listed after a simulated device";
        }
    }
    return simulated;
}

// Every request here moves the four words of a register request.
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
    for (int byte = 0; byte < 4; ++byte) {
        words[byte] = static_cast<std::uint8_t>(data >> (8 * byte));
        words[4 + byte] = static_cast<std::uint8_t>(address >> (8 * byte));
    }
    return words;
}

std::uint32_t WordAt(const Words& words, int index) {
    std::uint32_t value = 0;
    std::memcpy(&value, words.data() + 4 * index, 4);
    return value;
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
    ControlResult Write(std::uint32_t address, std::uint32_t value) {
        return Send(riffa::kWriteRequestOffset, RegisterWords(value, address, riffa::kWriteFill));
    }
    ControlResult AskRead(std::uint32_t address) {
        return Send(riffa::kReadRequestOffset, RegisterWords(0, address, riffa::kReadFill));
    }
    ControlResult Receive(Words& reply, int channel = 0) {
        reply.fill(0xEE);
        const riffa::RiffaIoArgs args = Args(channel, 0);
        return device_->Control(riffa::kReceiveCode, &args, sizeof(args), reply.data(), 16);
    }
    // Read request and reply; 0xFFFFFFFF when either step did not complete.
    std::uint32_t Read(std::uint32_t address) {
        Words reply;
        if (AskRead(address).outcome != Outcome::Completed ||
            Receive(reply).outcome != Outcome::Completed) {
            return 0xFFFFFFFF;
        }
        return WordAt(reply, 0);
    }

    ControlDevicePtr device_;
};

TEST_F(SimRiffa, ListsNoneOneOrSixDevicesInNumberOrder) {
    ASSERT_TRUE(KvPCIeSim::Configure("xdma:2"));
    EXPECT_TRUE(SimulatedPaths().empty());
    ASSERT_TRUE(KvPCIeSim::Configure("riffa:1"));
    EXPECT_EQ(SimulatedPaths(), std::vector<std::string>{"sim:riffa0"});
    ASSERT_TRUE(KvPCIeSim::Configure("xdma:1,riffa:6"));
    EXPECT_EQ(SimulatedPaths(),
              (std::vector<std::string>{"sim:riffa0", "sim:riffa1", "sim:riffa2", "sim:riffa3",
                                        "sim:riffa4", "sim:riffa5"}));
    std::vector<std::string> xdma;
    ASSERT_TRUE(platform::ListDeviceInterfaces(platform::kXdmaInterfaceClass, xdma));
    EXPECT_EQ(std::count(xdma.begin(), xdma.end(), "sim:xdma0"), 1);
    EXPECT_EQ(std::count(xdma.begin(), xdma.end(), "sim:riffa0"), 0);
}

TEST_F(SimRiffa, FollowsKvpcieSimAndTheControlApi) {
    ::kvpcie::testing::SetEnvironment("KVPCIE_SIM", "riffa:2");
    EXPECT_EQ(KvPCIeSim::RiffaDeviceNumbers(), (std::vector<int>{0, 1}));
    const int added = KvPCIeSim::AddRiffaDevice();
    EXPECT_EQ(added, 2);
    EXPECT_TRUE(KvPCIeSim::RemoveRiffaDevice(0));
    EXPECT_FALSE(KvPCIeSim::RemoveRiffaDevice(0));
    EXPECT_EQ(SimulatedPaths(), (std::vector<std::string>{"sim:riffa1", "sim:riffa2"}));
    ::kvpcie::testing::UnsetEnvironment("KVPCIE_SIM");
    EXPECT_TRUE(SimulatedPaths().empty());
}

TEST_F(SimRiffa, RegisterWriteThenReadTravelAsTheLibrarysFourWords) {
    const ControlResult written = Write(0x1234, 0xCAFE0042);
    EXPECT_EQ(written.outcome, Outcome::Completed);
    EXPECT_EQ(written.count, 4u);
    ASSERT_EQ(AskRead(0x1234).outcome, Outcome::Completed);
    Words reply;
    const ControlResult received = Receive(reply);
    ASSERT_EQ(received.outcome, Outcome::Completed);
    EXPECT_EQ(received.count, 4u);
    EXPECT_EQ(WordAt(reply, 0), 0xCAFE0042u);
    EXPECT_EQ(WordAt(reply, 1) | WordAt(reply, 2) | WordAt(reply, 3), 0u);

    const auto log = KvPCIeSim::TakeRiffaRequestLog(0);
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].controlCode, riffa::kSendCode);
    EXPECT_EQ(log[0].channel, 0);
    EXPECT_EQ(log[0].lengthWords, 4);
    EXPECT_EQ(log[0].offset, 0);
    EXPECT_EQ(log[0].timeout, 25000);
    EXPECT_EQ(log[0].data, (Bytes{0x42, 0x00, 0xFE, 0xCA, 0x34, 0x12, 0, 0, 0xAA, 0xAA, 0xAA, 0xAA,
                                  0xAA, 0xAA, 0xAA, 0xAA}));
    EXPECT_EQ(log[1].offset, 10);
    EXPECT_EQ(log[1].data, (Bytes{0, 0, 0, 0, 0x34, 0x12, 0, 0, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55,
                                  0x55, 0x55}));
    EXPECT_EQ(log[2].controlCode, riffa::kReceiveCode);
    EXPECT_TRUE(log[2].data.empty());
    EXPECT_TRUE(KvPCIeSim::TakeRiffaRequestLog(0).empty());
}

TEST_F(SimRiffa, IdentityIsReadOnlyAndOtherRegistersReadZeroUntilWritten) {
    EXPECT_EQ(Read(KvPCIeSim::kRegIdentity), 0x53494D31u);
    ASSERT_EQ(Write(KvPCIeSim::kRegIdentity, 0).outcome, Outcome::Completed);
    EXPECT_EQ(Read(KvPCIeSim::kRegIdentity), 0x53494D31u);
    EXPECT_EQ(Read(0x40), 0u);
    ASSERT_TRUE(KvPCIeSim::PokeRiffaRegister(0, 0x40, 7));
    EXPECT_EQ(Read(0x40), 7u);
    std::uint32_t peeked = 0;
    ASSERT_TRUE(KvPCIeSim::PeekRiffaRegister(0, 0x40, peeked));
    EXPECT_EQ(peeked, 7u);
}

TEST_F(SimRiffa, ReceiveWithNothingQueuedIsAbortedAtOnceAndLeavesTheBuffer) {
    ASSERT_EQ(AskRead(0x40).outcome, Outcome::Completed);  // a reply for channel 0 only
    Words reply;
    const ControlResult received = Receive(reply, 1);
    EXPECT_EQ(received.outcome, Outcome::AbortedLater);
    EXPECT_EQ(received.count, 0u);
    EXPECT_EQ(reply[0], 0xEE);
    EXPECT_EQ(Receive(reply).outcome, Outcome::Completed);
    EXPECT_EQ(Receive(reply).outcome, Outcome::AbortedLater);
}

TEST_F(SimRiffa, ResetClearsAQueuedReplyAndAnUnknownCodeIsRefused) {
    ASSERT_EQ(AskRead(0x40).outcome, Outcome::Completed);
    const ControlResult reset = device_->Control(riffa::kResetCode, nullptr, 0, nullptr, 0);
    EXPECT_EQ(reset.outcome, Outcome::Completed);
    Words reply;
    EXPECT_EQ(Receive(reply).outcome, Outcome::AbortedLater);
    const ControlResult unknown = device_->Control(0x222412, nullptr, 0, nullptr, 0);
    EXPECT_EQ(unknown.outcome, Outcome::Failed);
    EXPECT_EQ(unknown.error, platform::SystemCode(Error::InvalidParameter));
}

TEST_F(SimRiffa, NeverAnsweringDeviceTakesSendsButActsOnNone) {
    ASSERT_TRUE(KvPCIeSim::SetRiffaNeverAnswers(0, true));
    EXPECT_EQ(Write(0x40, 9).outcome, Outcome::Completed);
    EXPECT_EQ(AskRead(0x40).outcome, Outcome::Completed);
    Words reply;
    const ControlResult received = Receive(reply);
    EXPECT_EQ(received.outcome, Outcome::AbortedLater);
    EXPECT_EQ(received.count, 0u);
    EXPECT_EQ(KvPCIeSim::TakeRiffaRequestLog(0).size(), 3u);
    ASSERT_TRUE(KvPCIeSim::SetRiffaNeverAnswers(0, false));
    EXPECT_EQ(Read(0x40), 0u);
}

TEST_F(SimRiffa, ListRequestFillsOnlyTheSlotAskedAndRefusesAnIndexPastTheRecord) {
    const ControlDevicePtr second = platform::OpenControlDevice("sim:riffa2", false);
    ASSERT_NE(second, nullptr);
    std::vector<std::uint8_t> buffer(sizeof(ListRecord) + 8, 0xC3);  // 8 guard bytes after it
    const std::int32_t index = 3;
    ControlResult listed = second->Control(riffa::kListCode, &index, 4, buffer.data(), 164);
    ASSERT_EQ(listed.outcome, Outcome::Completed);
    EXPECT_EQ(listed.count, 164u);
    ListRecord record;
    std::memcpy(&record, buffer.data(), sizeof(record));
    EXPECT_EQ(record.id[3], 2);
    EXPECT_EQ(record.channelCount[3], 12);
    EXPECT_EQ(std::memcmp(record.name[3], "KvSimRiffa\0\0\0\0\0\0", 16), 0);
    EXPECT_EQ(record.vendorId[3], 0x10EE);
    EXPECT_EQ(record.deviceId[3], 0x7028);
    EXPECT_EQ(record.fpgaCount, std::int32_t(0xC3C3C3C3)) << "the library counts, not the driver";
    EXPECT_EQ(record.id[2], std::int32_t(0xC3C3C3C3));

    const std::vector<std::uint8_t> before = buffer;
    const std::int32_t pastEnd = riffa::kListSlots;
    listed = second->Control(riffa::kListCode, &pastEnd, 4, buffer.data(), 164);
    EXPECT_EQ(listed.outcome, Outcome::Failed);
    EXPECT_EQ(listed.error, platform::SystemCode(Error::InvalidParameter));
    EXPECT_EQ(buffer, before);
    listed = second->Control(riffa::kListCode, &index, 4, buffer.data(), 163);
    EXPECT_EQ(listed.outcome, Outcome::Failed);
    EXPECT_EQ(buffer, before);
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

TEST_F(SimRiffa, RemovedDeviceFailsRequestsOnAHandleOpenedBefore) {
    ASSERT_TRUE(KvPCIeSim::RemoveRiffaDevice(0));
    const ControlResult written = Write(0x40, 1);
    EXPECT_EQ(written.outcome, Outcome::Failed);
    EXPECT_EQ(written.error, platform::SystemCode(Error::DeviceRemoved));
    Words reply;
    EXPECT_EQ(Receive(reply).error, platform::SystemCode(Error::DeviceRemoved));
    const ControlResult reset = device_->Control(riffa::kResetCode, nullptr, 0, nullptr, 0);
    EXPECT_EQ(reset.error, platform::SystemCode(Error::DeviceRemoved));
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
