// One line per figure that bench/run.sh collects: "FIGURE <name> <value> <op> <goal> <unit>",
// with op ">=" or "<=", or "info" for a figure shown beside the goals without being one. The
// human-readable lines around it stay as they are.
#pragma once

#include <cstdio>

namespace kvpcie::bench {

inline void PrintFigure(const char* name, double value, const char* op, double goal,
                        const char* unit = "ratio") {
    std::printf("FIGURE %s %.6g %s %.6g %s\n", name, value, op, goal, unit);
    std::fflush(stdout);
}

}  // namespace kvpcie::bench
