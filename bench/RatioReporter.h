// Console reporting plus a ratio of one benchmark against its limit measured in the same run.
#pragma once

#include "Figure.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace kvpcie::bench {

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            // Single runs, and the median of repeated ones (named "<run>_median").
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if ((run.run_type == Run::RT_Iteration || median) && !run.error_occurred) {
                realTimeNs_[run.benchmark_name()] = run.GetAdjustedRealTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    // Prints limit time / measured time: 1.0 means as fast as the limit. False when the ratio is
    // below the goal or either benchmark did not run.
    // `figure` names the ratio for bench/run.sh; null prints it for information only.
    bool PrintRatio(const std::string& measured, const std::string& limit, double goal,
                    const char* figure) const {
        const auto m = realTimeNs_.find(measured);
        const auto l = realTimeNs_.find(limit);
        if (m == realTimeNs_.end() || l == realTimeNs_.end() || m->second <= 0) {
            std::printf("ratio %s / %s: not measured\n", limit.c_str(), measured.c_str());
            return false;
        }
        const double ratio = l->second / m->second;
        if (figure == nullptr) {
            std::printf("ratio %-40s against %-30s %.3f (for information)\n", measured.c_str(),
                        limit.c_str(), ratio);
            return ratio >= goal;
        }
        std::printf("ratio %-40s against %-30s %.3f (goal >= %.2f) %s\n", measured.c_str(),
                    limit.c_str(), ratio, goal, ratio >= goal ? "met" : "NOT MET");
        PrintFigure(figure, ratio, ">=", goal);
        return ratio >= goal;
    }

private:
    std::map<std::string, double> realTimeNs_;
};

}  // namespace kvpcie::bench
