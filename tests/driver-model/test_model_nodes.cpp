// The driver model's names: what each path is, what each directory lists, the numbers FUSE
// knows them by, and its options.
#include "InodeTable.h"
#include "ModelNodes.h"
#include "SimdOptions.h"

#include <gtest/gtest.h>

#include <algorithm>

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
                 {"/sys/bus/pci/devices/0000:01:00.0/remove", NodeKind::PciRemove, 0, -1}};
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
          "/dev/xdma0_user/x", ""}) {
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
    EXPECT_EQ(*ListDirectory("/", cards), (std::vector<std::string>{"dev", "sys"}));
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

}  // namespace
}  // namespace kvpcie::simd
