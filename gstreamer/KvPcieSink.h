// kvpciesink: hands each buffer to one inject channel of a card for playout.
#pragma once

#include <gst/base/gstbasesink.h>

G_BEGIN_DECLS

#define GST_TYPE_KVPCIE_SINK (gst_kvpcie_sink_get_type())
#define GST_KVPCIE_SINK(obj) \
    (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_KVPCIE_SINK, GstKvPcieSink))

struct KvPcieSinkState;

struct GstKvPcieSink {
    GstBaseSink parent;
    KvPcieSinkState* state;
};

struct GstKvPcieSinkClass {
    GstBaseSinkClass parent_class;
};

GType gst_kvpcie_sink_get_type(void);

G_END_DECLS
