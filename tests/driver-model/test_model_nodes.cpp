// The driver model's names, directories, inode numbers, options, and mount lock.
#include "InodeTable.h"
#include "ModelNodes.h"
#include "MountLock.h"
#include "MountPoint.h"
#include "RiffaExchange.h"
#include "SimdOptions.h"

#include "sim/SimRiffaDevice.h"

#include "../support/ScratchPath.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

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
                 {"/wine/xdma0_restart", NodeKind::WineRestart, 0, -1},
                 {"/wine/riffa1", NodeKind::WineRiffa, 1, -1}};
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
          "/wine/xdma0_user", "/wine/xdma2_restart", "/dev/xdma0_restart", "/wine/riffa2",
          "/wine/riffa01", "/dev/riffa0", ""}) {
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
    EXPECT_EQ(wine->size(), 16u + 2u);  // card 0's event nodes, its restart and its RIFFA device
    EXPECT_EQ(wine->back(), "riffa0");
    cards.present[1] = true;
    EXPECT_EQ(*ListDirectory("/sys/bus/pci", cards),
              (std::vector<std::string>{"devices", "rescan"}));
    EXPECT_EQ(*ListDirectory("/sys/bus/pci/devices/0000:01:00.0", cards),
              (std::vector<std::string>{"device", "remove", "vendor"}));
    EXPECT_FALSE(ListDirectory("/dev/xdma0_user", cards));
    EXPECT_EQ(PciAttributeText(NodeKind::PciVendor), "0x10ee\n");
}

// A RIFFA request as the Windows driver model writes it: header, 32-byte record, data block.
std::vector<char> RiffaRequest(std::uint32_t code, std::int32_t channel, std::int32_t words,
                               std::int32_t offset, const std::vector<std::uint32_t>& block) {
    const std::int32_t record[8] = {0, channel, words, offset, 1, 0, 25000, 0};
    std::vector<std::uint32_t> words32;
    words32.reserve(4 + 8 + block.size());
    for (const std::uint32_t word : {code, 32u, static_cast<std::uint32_t>(block.size() * 4), 0u}) {
        words32.push_back(word);
    }
    for (const std::int32_t field : record) {
        words32.push_back(static_cast<std::uint32_t>(field));
    }
    for (const std::uint32_t word : block) {
        words32.push_back(word);
    }
    std::vector<char> bytes(words32.size() * 4);
    std::memcpy(bytes.data(), words32.data(), bytes.size());
    return bytes;
}

// Writes `request` in pieces, as the kernel splits a large write; the answer's words come back.
std::vector<std::uint32_t> Exchange(RiffaExchange& exchange, sim::SimRiffaDevice& device,
                                    const std::vector<char>& request, std::size_t piece) {
    for (std::size_t at = 0; at < request.size(); at += piece) {
        const std::size_t size = std::min(piece, request.size() - at);
        EXPECT_EQ(exchange.Write(device, request.data() + at, size, static_cast<std::int64_t>(at)),
                  static_cast<int>(size));
    }
    std::vector<std::uint32_t> answer(64, 0xDEADBEEF);
    const int read = exchange.Read(reinterpret_cast<char*>(answer.data()), answer.size() * 4, 0);
    answer.resize(read > 0 ? static_cast<std::size_t>(read) / 4 : 0);
    return answer;
}

class RiffaExchangePieces : public ::testing::TestWithParam<std::size_t> {};

TEST_P(RiffaExchangePieces, ARegisterWrittenAndReadBackThroughRequestsInPieces) {
    sim::SimRiffaDevice device(0);
    RiffaExchange exchange;
    const std::size_t piece = GetParam();
    const std::vector<std::uint32_t> written = Exchange(
        exchange, device,
        RiffaRequest(0x222402, 0, 4, 0, {0x12345678, 0x2000, 0xAAAAAAAA, 0xAAAAAAAA}), piece);
    ASSERT_GE(written.size(), 4u);
    EXPECT_EQ(written[0], 0u);  // completed
    EXPECT_EQ(written[1], 4u);  // four words sent
    Exchange(exchange, device,
             RiffaRequest(0x222402, 0, 4, 10, {0, 0x2000, 0x55555555, 0x55555555}), piece);
    const std::vector<std::uint32_t> reply =
        Exchange(exchange, device, RiffaRequest(0x222406, 0, 4, 0, {0, 0, 0, 0}), piece);
    ASSERT_EQ(reply.size(), 4u + 4u);
    EXPECT_EQ(reply[0], 0u);
    EXPECT_EQ(reply[1], 4u);
    EXPECT_EQ(reply[4], 0x12345678u);
    // Nothing more to receive: the device gives up on it.
    const std::vector<std::uint32_t> empty =
        Exchange(exchange, device, RiffaRequest(0x222406, 0, 4, 0, {0, 0, 0, 0}), piece);
    ASSERT_GE(empty.size(), 4u);
    EXPECT_EQ(empty[0], static_cast<std::uint32_t>(sim::RiffaAnswer::Kind::TimedOut));
}

INSTANTIATE_TEST_SUITE_P(Whole, RiffaExchangePieces, ::testing::Values(std::size_t{4096}));
INSTANTIATE_TEST_SUITE_P(Split, RiffaExchangePieces, ::testing::Values(std::size_t{1}, 7, 16));

TEST(RiffaExchange, PiecesOutOfOrderAndOversizedRequestsAreRefused) {
    sim::SimRiffaDevice device(0);
    RiffaExchange exchange;
    const std::vector<char> request = RiffaRequest(0x222402, 0, 4, 0, {1, 2, 3, 4});
    EXPECT_EQ(exchange.Write(device, request.data(), 8, 0), 8);
    EXPECT_EQ(exchange.Write(device, request.data() + 12, 4, 12), -EINVAL);
    std::vector<char> huge = request;
    const std::uint32_t tooLarge = kRiffaLargestBlock + 4;
    std::memcpy(huge.data() + 8, &tooLarge, 4);
    EXPECT_EQ(exchange.Write(device, huge.data(), huge.size(), 0), -EINVAL);
    char answer[16];
    EXPECT_EQ(exchange.Read(answer, sizeof answer, 0), 0);  // no answer to a refused request
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

TEST(MountTablePath, EveryNameOfADirectoryResolvesToItsOnePath) {
    const testing::ScratchPath scratch;
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
    const testing::ScratchPath scratch;
    std::filesystem::create_symlink("b", scratch.Path() + "/a");
    std::filesystem::create_symlink("a", scratch.Path() + "/b");
    errno = 0;
    const std::string resolved = MountTablePath(scratch.Path() + "/a");
    const int error = errno;
    EXPECT_EQ(resolved, "");
    EXPECT_EQ(error, ELOOP);
}

TEST(MountLock, OneHolderPerDirectoryUnderAnyNameUntilItGoes) {
    const testing::ScratchPath scratch;
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
