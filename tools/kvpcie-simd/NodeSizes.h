// The sizes the model's files show: the register and memory spaces behind them, and what the
// Windows driver model's event files accept as a read's offset.
#pragma once

#include "ModelNodes.h"

#include <cstdint>

namespace kvpcie::simd {

// The Windows driver model waits in slices; a read's offset says how long, in ms, up to this.
constexpr std::int64_t kLongestWineEventWaitMs = 60000;

// What stat() shows as the node's size; for the register files, where their space ends.
std::uint64_t NodeBytes(NodeKind kind);

}  // namespace kvpcie::simd
