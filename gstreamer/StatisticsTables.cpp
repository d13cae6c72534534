// The statistics tables of source and sink, and their structures.
#include "StatisticsTables.h"

#include <cstdint>
#include <type_traits>
#include <variant>

namespace kvpcie::gst {
namespace {

// A field's GType follows from its member's type: 64-bit counts, 32-bit counts, a signed number
// and a rate.
template <typename Stats>
struct StatsRow {
    const char* name;
    std::variant<std::uint64_t Stats::*, std::uint32_t Stats::*, std::int32_t Stats::*,
                 double Stats::*>
        member;
};

using Capture = KvCaptureStatistics;
const StatsRow<Capture> kCaptureRows[] = {
    {"frames-delivered", &Capture::framesDelivered},
    {"frames-failed", &Capture::framesFailed},
    {"error-frames", &Capture::errorFrames},
    {"frames-recorded", &Capture::framesRecorded},
    {"bytes-recorded", &Capture::bytesRecorded},
    {"frames-not-recorded", &Capture::framesNotRecorded},
    {"frames-per-second", &Capture::framesPerSecond},
    {"callback-micros-max", &Capture::callbackMicrosMax},
    {"last-card-buffer", &Capture::lastCardBuffer},
    {"status-bytes-delivered", &Capture::statusBytesDelivered},
    {"status-bytes-dropped", &Capture::statusBytesDropped},
};

using Inject = KvInjectStatistics;
const StatsRow<Inject> kInjectRows[] = {
    {"frames-queued", &Inject::framesQueued},
    {"frames-refused", &Inject::framesRefused},
    {"frames-to-card", &Inject::framesToCard},
    {"transfers-failed", &Inject::transfersFailed},
    {"frames-dropped-at-stop", &Inject::framesDroppedAtStop},
    {"periods-without-frame", &Inject::periodsWithoutFrame},
    {"frames-waiting", &Inject::framesWaiting},
    {"commands-sent", &Inject::commandsSent},
    {"commands-not-sent-in-time", &Inject::commandsNotSentInTime},
    {"commands-replaced", &Inject::commandsReplaced},
};

template <typename Stats, typename Rows>
GstStructure* StructureOf(const char* name, const Rows& rows, const Stats& stats) {
    GstStructure* structure = gst_structure_new_empty(name);
    for (const StatsRow<Stats>& row : rows) {
        std::visit(
            [&](auto member) {
                using Value = std::decay_t<decltype(stats.*member)>;
                if constexpr (std::is_same_v<Value, std::uint64_t>) {
                    gst_structure_set(structure, row.name, G_TYPE_UINT64, guint64(stats.*member),
                                      nullptr);
                } else if constexpr (std::is_same_v<Value, std::uint32_t>) {
                    gst_structure_set(structure, row.name, G_TYPE_UINT, guint(stats.*member),
                                      nullptr);
                } else if constexpr (std::is_same_v<Value, std::int32_t>) {
                    gst_structure_set(structure, row.name, G_TYPE_INT, gint(stats.*member),
                                      nullptr);
                } else {
                    gst_structure_set(structure, row.name, G_TYPE_DOUBLE, stats.*member, nullptr);
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
