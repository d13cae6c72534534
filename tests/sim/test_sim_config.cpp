// KVPCIE_SIM values: what they present, and what is refused.
#include "sim/SimConfig.h"

#include <gtest/gtest.h>

namespace kvpcie::sim {
namespace {

struct Accepted {
    const char* value;
    int xdma;
    int riffa;
};

TEST(SimConfig, AcceptsTheDocumentedForms) {
    const Accepted cases[] = {
        {"", 0, 0},       {"1", 1, 1},       {"xdma:5,riffa:6", 5, 6}, {"riffa:2,xdma:3", 3, 2},
        {"xdma:2", 2, 0}, {"riffa:8", 0, 8}, {"xdma:0,riffa:0", 0, 0}, {"xdma:08", 8, 0},
    };
    for (const Accepted& c : cases) {
        const auto config = ParseSimConfig(c.value);
        ASSERT_TRUE(config.has_value()) << c.value;
        EXPECT_EQ(config->xdmaCards, c.xdma) << c.value;
        EXPECT_EQ(config->riffaDevices, c.riffa) << c.value;
    }
}

TEST(SimConfig, RefusesEverythingElse) {
    for (const char* value : {"0", "2", "yes", "xdma:9", "xdma:-1", "xdma:", "xdma:1,", ",xdma:1",
                              "xdma:1,xdma:2", "riffa:1,riffa:1", "XDMA:1", "xdma=1",
                              "xdma:1;riffa:1", "xdma: 1", "xdma:100", "pcie:1"}) {
        EXPECT_FALSE(ParseSimConfig(value).has_value()) << value;
    }
}

}  // namespace
}  // namespace kvpcie::sim
