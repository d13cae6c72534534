// The sizes the model's files show.
#include "NodeSizes.h"

#include "RiffaExchange.h"

#include "sim/SimCardRegisters.h"

namespace kvpcie::simd {
namespace {

// The XDMA driver's control (config BAR) space.
constexpr std::uint64_t kControlSpaceBytes = 0x10000;
// What sysfs shows as the size of every attribute.
constexpr std::uint64_t kAttributeBytes = 4096;

}  // namespace

std::uint64_t NodeBytes(NodeKind kind) {
    switch (kind) {
        case NodeKind::User:
            return sim::kUserSpaceBytes;
        case NodeKind::Control:
            return kControlSpaceBytes;
        case NodeKind::CardToHost:
        case NodeKind::HostToCard:
            return sim::kCardMemoryBytes;
        case NodeKind::Events:
            return 4;
        case NodeKind::WineEvent:
            return kLongestWineEventWaitMs + 1;
        case NodeKind::WineRiffa:
            return kRiffaHeaderBytes + kRiffaLargestInput + kRiffaLargestBlock;
        default:
            return kAttributeBytes;
    }
}

}  // namespace kvpcie::simd
