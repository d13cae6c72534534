// What every backing of the device files keeps to, as the engines rely on it: the in-process
// card, the Linux backend over plain files, and the driver model's (skipped without it).
#include "../support/Environment.h"
#include "../support/TestCard.h"
#include "../support/WaitFor.h"
#include "platform/DeviceFile.h"
#include "platform/SystemError.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <gtest/gtest.h>

#ifdef __linux__
#include "../support/ScratchPath.h"
#include "platform/linux/LinuxDeviceFile.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#endif

#include <cstdint>
#include <cstdlib>
#include <future>
#include <iterator>
#include <string>
#include <vector>

namespace kvpcie::platform {
namespace {

constexpr std::uint32_t kStaging = 0x1F1400;  // channel 0's status staging area: plain words
constexpr std::int64_t kRegisterBytes = 0x200000;
constexpr std::int64_t kMemoryBytes = std::int64_t{1} << 31;

// A backing prepares a card (or says why not), opens its nodes, and raises user event 0.
class InProcessCard {
public:
    static constexpr const char* kName = "InProcessCard";
    static constexpr Error kEventWriteRefusal = Error::InvalidParameter;
    std::string Prepare() {
        ::kvpcie::testing::UnsetEnvironment("KVPCIE_SIM");
        EXPECT_TRUE(KvPCIeSim::Configure("xdma:1"));
        return "";
    }
    DeviceFilePtr Open(const std::string& node, unsigned access) {
        return OpenDeviceFile("sim:xdma0\\" + node, access);
    }
    bool Raise() { return KvPCIeSim::RaiseUserEvent(0, 0); }
    void Quiet() {}
};

#ifdef __linux__
// The driver's files stand-ins: sparse files as large as the register space and card memory.
class LinuxBackend {
public:
    static constexpr const char* kName = "LinuxBackend";
    static constexpr Error kEventWriteRefusal = Error::InvalidParameter;
    ~LinuxBackend() {
        for (const int fd : pipe_) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }
    std::string Prepare() {
        EXPECT_EQ(::pipe2(pipe_, O_CLOEXEC), 0);
        for (const auto& [name, size] :
             {std::pair{"user", kRegisterBytes}, std::pair{"memory", kMemoryBytes}}) {
            std::ofstream(dir_ / name);
            std::filesystem::resize_file(dir_ / name, static_cast<std::uintmax_t>(size));
        }
        return "";
    }
    DeviceFilePtr Open(const std::string& node, unsigned access) {
        using linux_backend::NodeKind;
        if (node.rfind("event_", 0) == 0) {
            return linux_backend::MakeDeviceFile(::dup(pipe_[0]), NodeKind::Event, access);
        }
        const bool user = node == "user";
        const int fd = ::open((dir_ / (user ? "user" : "memory")).c_str(), O_RDWR | O_CLOEXEC);
        return linux_backend::MakeDeviceFile(fd, user ? NodeKind::Register : NodeKind::Dma, access);
    }
    bool Raise() {
        const std::uint32_t one = 1;
        return ::write(pipe_[1], &one, 4) == 4;
    }
    void Quiet() {}

private:
    ::kvpcie::testing::ScratchPath scratch_;
    const std::filesystem::path dir_ = scratch_.Dir();
    int pipe_[2] = {-1, -1};
};
#endif

class DriverModel {
public:
    static constexpr const char* kName = "DriverModel";
    // Windows refuses a write to a file opened for reading before any driver sees it.
#ifdef _WIN32
    static constexpr Error kEventWriteRefusal = Error::AccessDenied;
#else
    static constexpr Error kEventWriteRefusal = Error::InvalidParameter;
#endif
    ~DriverModel() { Quiet(); }
    std::string Prepare() {
        card_ = ::kvpcie::testing::OnDriverModel() ? ::kvpcie::testing::TestCardPath() : "";
        if (card_.empty()) {
            return "runs against the driver model: start it through with-model.sh (kvpcie-simd) "
                   "or with-wine-model.sh (the Windows driver model)";
        }
        registers_ = Open("user", kAccessReadWrite);
        EXPECT_NE(registers_, nullptr) << ErrorText(LastError());
        return "";
    }
    DeviceFilePtr Open(const std::string& node, unsigned access) {
        return OpenDeviceFile(card_ + "\\" + node, access);
    }
    // Frames of 64 bytes at 200 per second, each raising user event 0.
    bool Raise() {
        return Set(0x1F1034, 0) && Set(0x101010, 64) && Set(0x1F1004, 200) && Set(0x100018, 1);
    }
    void Quiet() {
        Set(0x100018, 0);
        Set(0x1F1034, 1);
    }

private:
    bool Set(std::uint32_t address, std::uint32_t value) {
        std::uint32_t moved = 0;
        return registers_ && registers_->Seek(address) && registers_->Write(&value, 4, moved) &&
               moved == 4;
    }
    std::string card_;
    DeviceFilePtr registers_;
};

template <typename Backing>
class DeviceFileContract : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string skip = card_.Prepare();
        if (!skip.empty()) {
            GTEST_SKIP() << skip;
        }
        ASSERT_FALSE(this->HasFailure());
    }
    DeviceFilePtr Open(const char* node, unsigned access) {
        DeviceFilePtr file = card_.Open(node, access);
        EXPECT_NE(file, nullptr) << node << ": " << ErrorText(LastError());
        return file;
    }
    Backing card_;
};

struct BackingName {
    template <typename Backing>
    static std::string GetName(int) {
        return Backing::kName;
    }
};

#ifdef __linux__
using Backings = ::testing::Types<InProcessCard, LinuxBackend, DriverModel>;
#else
using Backings = ::testing::Types<InProcessCard, DriverModel>;
#endif
TYPED_TEST_SUITE(DeviceFileContract, Backings, BackingName);

TYPED_TEST(DeviceFileContract, RegistersMoveWholeWordsUpToTheEndOfTheirSpace) {
    const DeviceFilePtr user = this->Open("user", kAccessReadWrite);
    ASSERT_NE(user, nullptr);
    const std::uint32_t words[3] = {0x11223344, 0x55667788, 0x99AABBCC};
    std::uint32_t back[3] = {};
    std::uint32_t moved = 0;
    ASSERT_TRUE(user->Seek(kStaging) && user->Write(words, sizeof words, moved));
    EXPECT_EQ(moved, sizeof words);
    ASSERT_TRUE(user->Seek(kStaging) && user->Read(back, sizeof back, moved));
    EXPECT_EQ(std::vector<std::uint32_t>(back, back + 3),
              std::vector<std::uint32_t>(words, words + 3));
    // Part of a word, in size or in position, is refused.
    for (const auto& [position, size] : {std::pair{kStaging, 6u}, std::pair{kStaging + 2, 4u}}) {
        EXPECT_FALSE(user->Seek(position) && user->Read(back, size, moved)) << position;
        EXPECT_EQ(LastError(), SystemCode(Error::InvalidParameter)) << position;
    }
    ASSERT_TRUE(user->Seek(kRegisterBytes - 4) && user->Read(back, 8, moved));
    EXPECT_EQ(moved, 4u) << "only what is left of the space moves";
    user->Cancel();
    EXPECT_FALSE(user->Seek(kStaging) && user->Write(words, 4, moved));
    EXPECT_EQ(LastError(), SystemCode(Error::OperationAborted));
}

TYPED_TEST(DeviceFileContract, DmaMovesAtThePositionAndAdvancesIt) {
    const DeviceFilePtr toCard = this->Open("h2c_0", kAccessWrite);
    const DeviceFilePtr fromCard = this->Open("c2h_0", kAccessRead);
    ASSERT_TRUE(toCard && fromCard);
    // Halves larger than FUSE moves in one request, at an address above what 32 bits of offset
    // in megabytes would reach, so that both the split and the offset show.
    std::vector<unsigned char> block(3 << 20);
    for (std::size_t k = 0; k < block.size(); ++k) {
        block[k] = static_cast<unsigned char>(k * 13 + k / 4096);
    }
    const std::int64_t address = 0x70000000;
    const std::uint32_t half = static_cast<std::uint32_t>(block.size() / 2);
    std::uint32_t moved = 0;
    // Without a seek between them, transfers follow each other.
    ASSERT_TRUE(toCard->Seek(address) && toCard->Write(block.data(), half, moved));
    EXPECT_EQ(moved, half);
    ASSERT_TRUE(toCard->Write(block.data() + half, half, moved));
    std::vector<unsigned char> back(block.size());
    ASSERT_TRUE(fromCard->Seek(address) && fromCard->Read(back.data(), half, moved));
    EXPECT_EQ(moved, half);
    ASSERT_TRUE(fromCard->Read(back.data() + half, half, moved));
    EXPECT_EQ(back, block);

    EXPECT_FALSE(fromCard->Write(block.data(), 4, moved)) << "a direction the node has not";
    EXPECT_FALSE(fromCard->Seek(-1));
    ASSERT_TRUE(fromCard->Seek(kMemoryBytes - 0x1000) && fromCard->Read(back.data(), 0x2000, moved));
    EXPECT_EQ(moved, 0x1000u) << "only what is left of card memory moves";
}

// True once thread `tid` of this process sleeps in a call (Linux; elsewhere at once).
bool Asleep(long tid) {
#ifdef __linux__
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    const std::string line((std::istreambuf_iterator<char>(stat)), {});
    const std::size_t end = line.rfind(") ");
    return end != std::string::npos && line.compare(end + 2, 1, "S") == 0;
#else
    (void)tid;
    return true;
#endif
}

long ThreadId() {
#ifdef __linux__
    return static_cast<long>(::syscall(SYS_gettid));
#else
    return 0;
#endif
}

TYPED_TEST(DeviceFileContract, AnEventReadWaitsForARaiseAndACancelEndsItForGood) {
    const DeviceFilePtr event = this->Open("event_0", kAccessRead);
    ASSERT_NE(event, nullptr);
    unsigned char byte = 0;
    std::uint32_t moved = 0;
    ASSERT_TRUE(this->card_.Raise());
    ASSERT_TRUE(event->Seek(5) && event->Read(&byte, 1, moved)) << "a seek changes nothing";
    EXPECT_EQ(moved, 1u);
    EXPECT_EQ(byte, 1);
    EXPECT_FALSE(event->Write(&byte, 1, moved));
    EXPECT_EQ(LastError(), SystemCode(TypeParam::kEventWriteRefusal));
    this->card_.Quiet();

    // Only the cancel ends these reads: a raise from before the quiet, or a read that the
    // driver gave up on, answers and the thread reads again.
    std::promise<long> reader;
    auto waiting = std::async(std::launch::async, [&] {
        reader.set_value(ThreadId());
        unsigned char got = 0;
        std::uint32_t count = 0;
        while (event->Read(&got, 1, count)) {
        }
        return LastError();
    });
    const long tid = reader.get_future().get();
    // So that the cancel meets a read that waits rather than one still to come.
    ::kvpcie::testing::WaitFor([&] { return Asleep(tid); });
    event->Cancel();
    EXPECT_EQ(waiting.get(), SystemCode(Error::OperationAborted));
    ASSERT_TRUE(this->card_.Raise());
    EXPECT_FALSE(event->Read(&byte, 1, moved)) << "a cancelled file stays finished";
    EXPECT_EQ(LastError(), SystemCode(Error::OperationAborted));
    this->card_.Quiet();
}

}  // namespace
}  // namespace kvpcie::platform
