// The `stats` property of source and sink: the library's capture and inject statistics as a
// GstStructure, one field per row of a table.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeStatistics.h>

#include <gst/gst.h>

namespace kvpcie::gst {

// Read-only, a structure that the caller owns.
void InstallStatsProperty(GObjectClass* klass, guint id, const char* blurb);

// "kvpcie-capture-stats" and "kvpcie-inject-stats"; an element adds its own fields after these.
GstStructure* CaptureStatsStructure(const KvCaptureStatistics& stats);
GstStructure* InjectStatsStructure(const KvInjectStatistics& stats);

}  // namespace kvpcie::gst
