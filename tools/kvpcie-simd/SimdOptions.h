// The command line of kvpcie-simd.
#pragma once

#include <string>
#include <vector>

namespace kvpcie::simd {

struct SimdOptions {
    std::string mountDir;
    int cards = 1;
    bool foreground = false;
    bool help = false;
};

constexpr int kMaxCards = 4;

// False with `error` set when the arguments are not understood; `--mount` is required unless
// help is asked for.
bool ParseSimdOptions(const std::vector<std::string>& arguments, SimdOptions& options,
                      std::string& error);

extern const char kSimdUsage[];

}  // namespace kvpcie::simd
