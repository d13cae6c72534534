// The statistics tables of source and sink, and their structures.
#include "StatisticsTables.h"

#include <KvPCIeInjectSdk/KvPCIeStatisticsFields.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

namespace kvpcie::gst {
namespace {

// A field's GType follows from its member's type: 64-bit counts, 32-bit counts, signed numbers,
// a rate and a flag. The names are the library's table's, with dashes as GStreamer writes them.
template <typename Stats>
struct StatsRow {
    std::string name;
    std::variant<std::uint64_t Stats::*, std::uint32_t Stats::*, std::int32_t Stats::*,
                 std::int64_t Stats::*, double Stats::*, bool Stats::*>
        member;
};

template <typename Stats, typename Member>
StatsRow<Stats> Row(const char* name, Member member) {
    std::string dashed = name;
    std::replace(dashed.begin(), dashed.end(), '_', '-');
    return {dashed, member};
}

using Capture = KvCaptureStatistics;
#define KVPCIE_CAPTURE_ROW(member, name, label, text) Row<Capture>(#name, &Capture::member),
const std::vector<StatsRow<Capture>> kCaptureRows = {
    KVPCIE_CAPTURE_STATISTICS_FIELDS(KVPCIE_CAPTURE_ROW)};
#undef KVPCIE_CAPTURE_ROW

using Inject = KvInjectStatistics;
#define KVPCIE_INJECT_ROW(member, name, label, text) Row<Inject>(#name, &Inject::member),
const std::vector<StatsRow<Inject>> kInjectRows = {
    KVPCIE_INJECT_STATISTICS_FIELDS(KVPCIE_INJECT_ROW)};
#undef KVPCIE_INJECT_ROW

template <typename Stats, typename Rows>
GstStructure* StructureOf(const char* name, const Rows& rows, const Stats& stats) {
    GstStructure* structure = gst_structure_new_empty(name);
    for (const StatsRow<Stats>& row : rows) {
        std::visit(
            [&](auto member) {
                using Value = std::decay_t<decltype(stats.*member)>;
                const char* name = row.name.c_str();
                if constexpr (std::is_same_v<Value, std::uint64_t>) {
                    gst_structure_set(structure, name, G_TYPE_UINT64, guint64(stats.*member),
                                      nullptr);
                } else if constexpr (std::is_same_v<Value, std::uint32_t>) {
                    gst_structure_set(structure, name, G_TYPE_UINT, guint(stats.*member), nullptr);
                } else if constexpr (std::is_same_v<Value, std::int32_t>) {
                    gst_structure_set(structure, name, G_TYPE_INT, gint(stats.*member), nullptr);
                } else if constexpr (std::is_same_v<Value, std::int64_t>) {
                    gst_structure_set(structure, name, G_TYPE_INT64, gint64(stats.*member),
                                      nullptr);
                } else if constexpr (std::is_same_v<Value, bool>) {
                    gst_structure_set(structure, name, G_TYPE_BOOLEAN,
                                      gboolean(stats.*member ? TRUE : FALSE), nullptr);
                } else {
                    static_assert(std::is_same_v<Value, double>);
                    gst_structure_set(structure, name, G_TYPE_DOUBLE, stats.*member, nullptr);
                }
            },
            row.member);
    }
    return structure;
}

}  // namespace

void InstallStatsProperty(GObjectClass* klass, guint id, const char* blurb) {
    g_object_class_install_property(
        klass, id,
        g_param_spec_boxed("stats", "Statistics", blurb, GST_TYPE_STRUCTURE,
                           GParamFlags(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));
}

GstStructure* CaptureStatsStructure(const KvCaptureStatistics& stats) {
    return StructureOf("kvpcie-capture-stats", kCaptureRows, stats);
}

GstStructure* InjectStatsStructure(const KvInjectStatistics& stats) {
    return StructureOf("kvpcie-inject-stats", kInjectRows, stats);
}

}  // namespace kvpcie::gst
