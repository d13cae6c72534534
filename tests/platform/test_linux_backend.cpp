// The Linux backend of the OS layer (its files: test_device_file_contract).
#include "platform/Backend.h"
#include "platform/SystemError.h"
#include "platform/ThreadAffinity.h"
#include "platform/linux/LinuxControlDevice.h"
#include "platform/linux/LinuxDeviceFile.h"
#include "platform/linux/LinuxDeviceInterfaces.h"

#include "../support/ScratchPath.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <utility>

namespace kvpcie::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using linux_backend::NodeKind;

class TempDir : public ::testing::Test {
protected:
    std::string Put(const std::string& name, const std::string& text) {
        const fs::path path = dir_ / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path) << text;
        return path.string();
    }
    std::string Get(const std::string& name) {
        std::ifstream in(dir_ / name);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    testing::ScratchPath scratch_;
    const fs::path dir_ = scratch_.Dir();
};

using LinuxFiles = TempDir;

// Position, short reads and missing files are the device file contract's and PlainFiles'.
TEST_F(LinuxFiles, ANegativeSeekAndAReadOfAWriteOnlyFileFailWithTheirCodes) {
    const DeviceFilePtr file = native::OpenDeviceFile(Put("data", "0123"), kAccessWrite);
    ASSERT_NE(file, nullptr);
    EXPECT_FALSE(file->Seek(-1));
    EXPECT_EQ(LastError(), EINVAL);
    char out[4] = {};
    std::uint32_t moved = 0;
    EXPECT_FALSE(file->Read(out, 4, moved));
    EXPECT_EQ(LastError(), EBADF);
}

TEST(LinuxXdmaNodes, MapsNodeNamesToTheDriversFiles) {
    const struct {
        const char* from;
        const char* to;
        NodeKind kind;
    } cases[] = {{"/dev/xdma0\\user", "/dev/xdma0_user", NodeKind::Register},
                 {"/dev/xdma0\\control", "/dev/xdma0_control", NodeKind::Register},
                 {"/dev/xdma0\\c2h_0", "/dev/xdma0_c2h_0", NodeKind::Dma},
                 {"/dev/xdma1\\h2c_0", "/dev/xdma1_h2c_0", NodeKind::Dma},
                 {"/dev/xdma0\\event_3", "/dev/xdma0_events_3", NodeKind::Event},
                 {"a\\b\\xvc", "a\\b_xvc", NodeKind::Plain},  // split at the last backslash
                 {"/tmp/plain", "/tmp/plain", NodeKind::Plain}};
    for (const auto& node : cases) {
        const linux_backend::NodeFile file = linux_backend::MapNodePath(node.from);
        EXPECT_EQ(file.path, node.to);
        EXPECT_TRUE(file.kind == node.kind) << node.from;
    }
}

TEST(LinuxXdmaListing, MatchesOnlyUserNodesAndSortsByNumber) {
    EXPECT_EQ(linux_backend::XdmaUserNodeNumber("xdma0_user"), 0u);
    EXPECT_EQ(linux_backend::XdmaUserNodeNumber("xdma12_user"), 12u);
    EXPECT_FALSE(linux_backend::XdmaUserNodeNumber("xdma0_c2h_0"));
    EXPECT_FALSE(linux_backend::XdmaUserNodeNumber("xdmaX_user"));
    const std::vector<std::string> names{"xdma10_user", "tty0", "xdma2_user", "xdma2_c2h_0"};
    const std::vector<std::string> expected{"/dev/xdma2", "/dev/xdma10"};
    EXPECT_EQ(linux_backend::XdmaInterfacePaths(names), expected);
}

TEST_F(LinuxFiles, RiffaListingWithoutTheDriverIsEmptyAndBadNodePathsAreRefused) {
    std::vector<std::string> paths;
    EXPECT_TRUE(linux_backend::RiffaDevicePaths((dir_ / "riffa").c_str(), paths));
    EXPECT_TRUE(paths.empty());
    // A plain file answers no driver request: the listing fails with the system's code.
    Put("riffa", "");
    EXPECT_FALSE(linux_backend::RiffaDevicePaths((dir_ / "riffa").c_str(), paths));
    EXPECT_NE(LastError(), 0);
    EXPECT_TRUE(paths.empty());
    for (const std::string& path : {std::string("/dev/riffa"), std::string("/dev/riffa#"),
                                    std::string("/dev/riffa#x1"),
                                    (dir_ / "missing#0").string()}) {
        EXPECT_EQ(linux_backend::OpenRiffaNode(path), nullptr) << path;
    }
}

using LinuxRestart = TempDir;

TEST_F(LinuxRestart, RemovesAndRescansOnlyXilinxDevices) {
    Put("devices/0000:01:00.0/vendor", "0x10ee\n");
    Put("devices/0000:01:00.0/remove", "");
    Put("devices/0000:00:02.0/vendor", "0x8086\n");
    Put("devices/0000:00:02.0/remove", "");
    Put("rescan", "");
    ::testing::internal::CaptureStderr();
    linux_backend::RestartXilinxDevicesUnder(dir_.string());
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(Get("devices/0000:01:00.0/remove"), "1");
    EXPECT_EQ(Get("rescan"), "1");
    EXPECT_EQ(Get("devices/0000:00:02.0/remove"), "");
}

// Named by the driver's class link, only the card being opened restarts; without it, every one.
TEST_F(LinuxRestart, OnlyTheDeviceOfTheCardBeingOpenedWhenTheDriverNamesIt) {
    for (const char* device : {"0000:01:00.0", "0000:02:00.0"}) {
        Put(std::string("sys/bus/pci/devices/") + device + "/vendor", "0x10ee\n");
        Put(std::string("sys/bus/pci/devices/") + device + "/remove", "");
    }
    Put("sys/bus/pci/rescan", "");
    std::filesystem::create_directories(dir_ / "sys/class/xdma/xdma1_user");
    std::filesystem::create_directory_symlink("../../../bus/pci/devices/0000:02:00.0",
                                              dir_ / "sys/class/xdma/xdma1_user/device");
    const std::string root = dir_.string();
    EXPECT_EQ(linux_backend::PciDeviceOfCard(root, root + "/dev/xdma1"), "0000:02:00.0");
    EXPECT_EQ(linux_backend::PciDeviceOfCard(root, root + "/dev/xdma0"), "");
    linux_backend::RestartXilinxDevicesUnder(root + "/sys/bus/pci", "0000:02:00.0");
    EXPECT_EQ(Get("sys/bus/pci/devices/0000:01:00.0/remove"), "");
    EXPECT_EQ(Get("sys/bus/pci/devices/0000:02:00.0/remove"), "1");
    linux_backend::RestartXilinxDevicesUnder(root + "/sys/bus/pci");
    EXPECT_EQ(Get("sys/bus/pci/devices/0000:01:00.0/remove"), "1");
}

TEST_F(LinuxRestart, SaysOnceWhenTheRestartIsNotPermitted) {
    Put("devices/0000:01:00.0/vendor", "0x10EE\n");  // no writable "remove" in either device
    Put("devices/0000:02:00.0/vendor", "0x10ee\n");
    Put("rescan", "");
    ::testing::internal::CaptureStderr();
    linux_backend::RestartXilinxDevicesUnder(dir_.string());
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "kvpcie: cannot restart PCI device 0000:01:00.0: " + ErrorText(ENOENT) +
                  "; continuing without a restart\n");
    EXPECT_EQ(Get("rescan"), "");
}

// The byte is the driver's interrupt value, not a constant (the device file contract reads 1).
TEST(LinuxEventFile, AnInterruptValueOfZeroReadsAsTheByteZero) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const DeviceFilePtr event = linux_backend::MakeDeviceFile(ends[0], NodeKind::Event, kAccessRead);
    ASSERT_NE(event, nullptr);
    const std::uint32_t zero = 0;
    unsigned char byte = 7;
    std::uint32_t moved = 0;
    EXPECT_TRUE(::write(ends[1], &zero, 4) == 4 && event->Read(&byte, 1, moved));
    EXPECT_EQ(moved, 1u);
    EXPECT_EQ(byte, 0);
    ::close(ends[1]);
}

TEST(LinuxThreadAffinity, PinsAWorkerToOneCoreAndRefusesCore64) {
    cpu_set_t allowed;
    ASSERT_EQ(::sched_getaffinity(0, sizeof allowed, &allowed), 0);
    ASSERT_TRUE(CPU_ISSET(0, &allowed)) << "core 0 is outside this process's CPU set";
    std::promise<void> release;
    std::thread worker([done = release.get_future()] { done.wait_for(10s); });
    EXPECT_TRUE(PinThreadToCore(worker, 0));
    cpu_set_t pinned;
    EXPECT_EQ(::pthread_getaffinity_np(worker.native_handle(), sizeof pinned, &pinned), 0);
    EXPECT_EQ(CPU_COUNT(&pinned), 1);
    EXPECT_TRUE(CPU_ISSET(0, &pinned));
    EXPECT_FALSE(PinThreadToCore(worker, 64));
    release.set_value();
    worker.join();
    EXPECT_FALSE(PinThreadToCore(worker, 0));  // no longer joinable
}

}  // namespace
}  // namespace kvpcie::platform
