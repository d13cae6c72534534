// kvpciesrc: a live source of one capture channel of a card.
#pragma once

#include <gst/base/gstpushsrc.h>

G_BEGIN_DECLS

#define GST_TYPE_KVPCIE_SRC (gst_kvpcie_src_get_type())
#define GST_KVPCIE_SRC(obj) (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_KVPCIE_SRC, GstKvPcieSrc))

struct KvPcieSrcState;

struct GstKvPcieSrc {
    GstPushSrc parent;
    KvPcieSrcState* state;
};

struct GstKvPcieSrcClass {
    GstPushSrcClass parent_class;
};

GType gst_kvpcie_src_get_type(void);

G_END_DECLS
