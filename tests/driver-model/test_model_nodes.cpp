// The driver model's names: what each path is, what each directory lists, the numbers FUSE
// knows them by, its options, and the names and lock of the directory it serves.
#include "InodeTable.h"
#include "ModelNodes.h"
#include "MountLock.h"
#include "MountPoint.h"
#include "SimdOptions.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

namespace kvpcie::simd {
namespace {

struct Cards final : CardPresence {
    int count = 2;
    bool present[2] = {true, true};
    int CardCount() const override { return count; }
    bool IsPresent(int card) const override { return card >= 0 && card < count && present[card]; }
};

TEST(ModelNodes, DriverNodesAreNamedAsTheLinuxDriverNamesThem) {
    Cards cards;
    const struct {
        const char* path;
        NodeKind kind;
        int card;
        int event;
    } cases[] = {{"/dev/xdma0_user", NodeKind::User, 0, -1},
                 {"/dev/xdma1_control", NodeKind::Control, 1, -1},
                 {"/dev/xdma0_c2h_0", NodeKind::CardToHost, 0, -1},
                 {"/dev/xdma1_h2c_0", NodeKind::HostToCard, 1, -1},
                 {"/dev/xdma0_events_0", NodeKind::Events, 0, 0},
                 {"/dev/xdma1_events_15", NodeKind::Events, 1, 15},
                 {"/sys/bus/pci/rescan", NodeKind::PciRescan, -1, -1},
                 {"/sys/bus/pci/devices/0000:02:00.0/vendor", NodeKind::PciVendor, 1, -1},
                 {"/sys/bus/pci/devices/0000:01:00.0/remove", NodeKind::PciRemove, 0, -1},
                 {"/wine/xdma1_event_15", NodeKind::WineEvent, 1, 15},
                 {"/wine/xdma0_restart", NodeKind::WineRestart, 0, -1}};
    for (const auto& expected : cases) {
        SCOPED_TRACE(expected.path);
        const std::optional<Node> node = FindNode(expected.path, cards);
        ASSERT_TRUE(node);
        EXPECT_EQ(node->kind, expected.kind);
        EXPECT_EQ(node->card, expected.card);
        EXPECT_EQ(node->event, expected.event);
    }
}

TEST(ModelNodes, NamesThatNoDriverMakesAreNotThere) {
    Cards cards;
    for (const char* path :
         {"/dev/xdma2_user", "/dev/xdma00_user", "/dev/xdma0_events_16", "/dev/xdma0_events_01",
          "/dev/xdma0_c2h_1", "/dev/xdma0_event_0", "/dev/xdma_user", "/dev/xdma0", "/dev/riffa",
          "/sys/bus/pci/devices/0000:03:00.0", "/sys/bus/pci/devices/0000:01:00.0/config", "/proc",
          "/dev/xdma0_user/x", "/wine/xdma0_events_0", "/wine/xdma0_event_16",
          "/wine/xdma0_user", "/wine/xdma2_restart", "/dev/xdma0_restart", ""}) {
        EXPECT_FALSE(FindNode(path, cards)) << path;
    }
}

TEST(ModelNodes, ACardOffTheBusHasNeitherNodesNorPciEntry) {
    Cards cards;
    cards.present[1] = false;
    EXPECT_FALSE(FindNode("/dev/xdma1_user", cards));
    EXPECT_FALSE(FindNode("/sys/bus/pci/devices/0000:02:00.0/remove", cards));
    EXPECT_TRUE(FindNode("/dev/xdma0_user", cards));
    const auto dev = ListDirectory("/dev", cards);
    ASSERT_TRUE(dev);
    EXPECT_EQ(dev->size(), 4u + 16u);  // card 0's four nodes and sixteen event nodes
    EXPECT_EQ(std::count(dev->begin(), dev->end(), "xdma0_events_15"), 1);
    EXPECT_EQ(std::count(dev->begin(), dev->end(), "xdma1_user"), 0);
    const auto devices = ListDirectory("/sys/bus/pci/devices", cards);
    ASSERT_TRUE(devices);
    EXPECT_EQ(*devices, std::vector<std::string>{"0000:01:00.0"});
}

TEST(ModelNodes, DirectoriesListWhatTheBackendLooksFor) {
    Cards cards;
    EXPECT_EQ(*ListDirectory("/", cards), (std::vector<std::string>{"dev", "sys", "wine"}));
    cards.present[1] = false;
    const auto wine = ListDirectory("/wine", cards);
    ASSERT_TRUE(wine);
    EXPECT_EQ(wine->size(), 16u + 1u);  // card 0's event nodes and its restart
    EXPECT_EQ(wine->back(), "xdma0_restart");
    cards.present[1] = true;
    EXPECT_EQ(*ListDirectory("/sys/bus/pci", cards),
              (std::vector<std::string>{"devices", "rescan"}));
    EXPECT_EQ(*ListDirectory("/sys/bus/pci/devices/0000:01:00.0", cards),
              (std::vector<std::string>{"device", "remove", "vendor"}));
    EXPECT_FALSE(ListDirectory("/dev/xdma0_user", cards));
    EXPECT_EQ(PciAttributeText(NodeKind::PciVendor), "0x10ee\n");
}

TEST(SimdOptions, MountIsRequiredAndCardsAreOneToFour) {
    SimdOptions options;
    std::string error;
    EXPECT_TRUE(
        ParseSimdOptions({"--mount", "/tmp/m", "--cards", "4", "--foreground"}, options, error));
    EXPECT_EQ(options.mountDir, "/tmp/m");
    EXPECT_EQ(options.cards, 4);
    EXPECT_TRUE(options.foreground);
    for (const std::vector<std::string>& bad :
         std::vector<std::vector<std::string>>{{},
                                               {"--mount"},
                                               {"--mount", ""},
                                               {"--mount", "d", "--cards", "0"},
                                               {"--mount", "d", "--cards", "5"},
                                               {"--mount", "d", "--cards", "x"},
                                               {"--mount", "d", "--cards"},
                                               {"--mount", "d", "--allow-other"}}) {
        error.clear();
        EXPECT_FALSE(ParseSimdOptions(bad, options, error));
        EXPECT_FALSE(error.empty());
    }
    EXPECT_TRUE(ParseSimdOptions({"--help"}, options, error));
    EXPECT_TRUE(options.help);
}

TEST(InodeTable, EachPathKeepsOneNumberAndTheRootIsFusesRoot) {
    InodeTable inodes;
    EXPECT_EQ(inodes.PathOf(InodeTable::kRoot), "/");
    EXPECT_EQ(inodes.NumberOf("/"), InodeTable::kRoot);
    const std::uint64_t user = inodes.NumberOf("/dev/xdma0_user");
    const std::uint64_t dev = inodes.NumberOf("/dev");
    EXPECT_NE(user, dev);
    EXPECT_NE(user, InodeTable::kRoot);
    EXPECT_EQ(inodes.NumberOf("/dev/xdma0_user"), user);
    EXPECT_EQ(inodes.PathOf(user), "/dev/xdma0_user");
    EXPECT_EQ(inodes.PathOf(dev), "/dev");
    EXPECT_FALSE(inodes.PathOf(0));
    EXPECT_FALSE(inodes.PathOf(user + dev + 1));
    EXPECT_EQ(InodeTable::ChildPath("/", "dev"), "/dev");
    EXPECT_EQ(InodeTable::ChildPath("/dev", "xdma0_user"), "/dev/xdma0_user");
}

// A directory of its own under the temporary directory, removed with everything in it.
class ScratchDirectory {
public:
    ScratchDirectory() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "simd-mount.XXXXXX").string();
        if (::mkdtemp(pattern.data()) != nullptr) {
            path_ = std::filesystem::canonical(pattern).string();
        }
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        if (!path_.empty()) {
            std::filesystem::remove_all(path_, ignored);
        }
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

TEST(MountTablePath, EveryNameOfADirectoryResolvesToItsOnePath) {
    ScratchDirectory scratch;
    ASSERT_FALSE(scratch.Path().empty());
    const std::string root = scratch.Path() + "/root";
    std::filesystem::create_directories(root + "/sub");
    std::filesystem::create_directory_symlink(root, scratch.Path() + "/link");
    std::filesystem::create_directory_symlink("link", scratch.Path() + "/relative");
    std::filesystem::create_directory_symlink(scratch.Path() + "/link/sub/..",
                                              scratch.Path() + "/up");
    for (const std::string& name :
         {root, root + "/", root + "//", root + "/.", root + "/sub/..", root + "/sub/../",
          scratch.Path() + "/link", scratch.Path() + "/link/", scratch.Path() + "/relative",
          scratch.Path() + "/up", scratch.Path() + "/./root"}) {
        EXPECT_EQ(MountTablePath(name), root) << name;
    }
    // A name that does not exist yet is the one the mount would fail on.
    EXPECT_EQ(MountTablePath(root + "/none"), root + "/none");
    EXPECT_EQ(MountTablePath(scratch.Path() + "/none/x"), "");
}

TEST(MountTablePath, ALoopOfLinksIsRefused) {
    ScratchDirectory scratch;
    ASSERT_FALSE(scratch.Path().empty());
    std::filesystem::create_symlink("b", scratch.Path() + "/a");
    std::filesystem::create_symlink("a", scratch.Path() + "/b");
    errno = 0;
    const std::string resolved = MountTablePath(scratch.Path() + "/a");
    const int error = errno;
    EXPECT_EQ(resolved, "");
    EXPECT_EQ(error, ELOOP);
}

TEST(MountLock, OneHolderPerDirectoryUnderAnyNameUntilItGoes) {
    ScratchDirectory scratch;
    ASSERT_FALSE(scratch.Path().empty());
    const std::string root = scratch.Path() + "/root";
    std::filesystem::create_directory(root);
    std::filesystem::create_directory_symlink(root, scratch.Path() + "/link");
    {
        MountLock first;
        ASSERT_EQ(first.Take(root), MountLock::Outcome::Taken);
        MountLock second;
        EXPECT_EQ(second.Take(MountTablePath(scratch.Path() + "/link")), MountLock::Outcome::Held);
        MountLock third;
        EXPECT_EQ(third.Take(scratch.Path() + "/link/"), MountLock::Outcome::Held);
    }
    MountLock after;
    EXPECT_EQ(after.Take(root), MountLock::Outcome::Taken);
    MountLock missing;
    const MountLock::Outcome outcome = missing.Take(scratch.Path() + "/none");
    const int error = errno;
    EXPECT_EQ(outcome, MountLock::Outcome::Failed);
    EXPECT_EQ(error, ENOENT);
}

}  // namespace
}  // namespace kvpcie::simd
