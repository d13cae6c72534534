// The kvpcie GStreamer plugin: kvpciesrc and kvpciesink.
#include "KvPcieSink.h"
#include "KvPcieSrc.h"

#include <KvPCIeInjectSdk/KvPCIeInjectSdkVersion.h>

#include <gst/gst.h>

// GST_PLUGIN_DEFINE names the package through this macro.
#define PACKAGE "KvPCIeInjectSdk"

static gboolean plugin_init(GstPlugin* plugin) {
    // A pipeline may write its frames to standard output (fdsink): the library's lines about
    // the device files it opens go to standard error.
    g_setenv("KVPCIE_CONSOLE", "stderr", FALSE);
    return gst_element_register(plugin, "kvpciesrc", GST_RANK_NONE, GST_TYPE_KVPCIE_SRC) &&
           gst_element_register(plugin, "kvpciesink", GST_RANK_NONE, GST_TYPE_KVPCIE_SINK);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, kvpcie,
                  "Capture from and inject into FPGA PCI Express frame cards", plugin_init,
                  KVPCIE_VERSION_STRING, "Proprietary", "KvPCIeInjectSdk", "KvPCIeInjectSdk")
