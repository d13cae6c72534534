// kvpciesrc: properties, caps negotiation and the base class's calls; CaptureSession captures.
#include "KvPcieSrc.h"

#include "CaptureSession.h"
#include "ElementChannel.h"
#include "PropertyTable.h"
#include "StatisticsTables.h"
#include "VideoFormats.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <gst/video/video.h>

#include <string>

using kvpcie::gst::CapturedFrame;
using kvpcie::gst::CaptureSession;
using kvpcie::gst::ElementChannel;
using KvPCIe::SharedCard;

GST_DEBUG_CATEGORY_STATIC(kvpcie_src_debug);
#define GST_CAT_DEFAULT kvpcie_src_debug

namespace {

enum Property : guint {
    PROP_CARD_TIMING = kvpcie::gst::kFirstElementProperty,
    PROP_RECORD,
    PROP_STATS,
};

}  // namespace

struct KvPcieSrcState {
    explicit KvPcieSrcState(GstElement* element) : session(element, card) {}

    // Properties, under the object lock; they take effect at the next start.
    ElementChannel card{SharedCard::Direction::Capture};  // and from start to stop, the card
    bool cardTiming = true;
    bool record = false;

    // From start to stop, on the streaming and state-change threads.
    bool errorPosted = false;  // set_caps said why the channel did not start
    CaptureSession session;
};

namespace {

const kvpcie::gst::PropertyRow<KvPcieSrcState> kProperties[] = {
    {PROP_CARD_TIMING, "card-timing", "Card timing",
     "The card times the frames (25 per second); false: the source connected to the channel "
     "does",
     &KvPcieSrcState::cardTiming, TRUE},
    {PROP_RECORD, "record", "Record",
     "The library also records the channel's frames to raw files below "
     "VideoRecord/Capture<channel + 1>/ of the application folder (the current folder without "
     "a Qt application), or below the process's record root; without it nothing is written",
     &KvPcieSrcState::record, FALSE},
};

}  // namespace

#define gst_kvpcie_src_parent_class parent_class
G_DEFINE_TYPE(GstKvPcieSrc, gst_kvpcie_src, GST_TYPE_PUSH_SRC)

static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(KVPCIE_GST_SRC_CAPS));

namespace {

KvPcieSrcState& StateOf(gpointer element) { return *GST_KVPCIE_SRC(element)->state; }

gboolean SetCaps(GstBaseSrc* base, GstCaps* caps) {
    auto* self = GST_KVPCIE_SRC(base);
    KvPcieSrcState& s = *self->state;
    GstVideoInfo info;
    ePixelType pixelType = Y8;
    if (!gst_video_info_from_caps(&info, caps) ||
        !kvpcie::gst::PixelTypeOf(GST_VIDEO_INFO_FORMAT(&info), pixelType)) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
                          ("kvpciesrc cannot produce %s", kvpcie::gst::CapsText(caps).c_str()), (nullptr));
        s.errorPosted = true;
        return FALSE;
    }
    s.session.Stop();
    const guint channel = s.card.Channel();  // the one claimed at the start
    GST_OBJECT_LOCK(self);
    const bool cardTiming = s.cardTiming;
    const bool record = s.record;
    GST_OBJECT_UNLOCK(self);

    if (!s.session.Prepare(caps, info, pixelType)) {
        GST_ELEMENT_ERROR(self, RESOURCE, NO_SPACE_LEFT,
                          ("no buffers of %" G_GSIZE_FORMAT " bytes for the frames",
                           GST_VIDEO_INFO_SIZE(&info)), (nullptr));
        s.errorPosted = true;
        return FALSE;
    }
    bool recording = false;
    std::string why;
    if (!s.session.Start(cardTiming, record, recording, why)) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS,
                          ("channel %u of %s would not start capturing %dx%d %s: %s", channel,
                           s.card.Card().Path().c_str(), GST_VIDEO_INFO_WIDTH(&info),
                           GST_VIDEO_INFO_HEIGHT(&info), GST_VIDEO_INFO_NAME(&info), why.c_str()),
                          (nullptr));
        s.session.Stop();
        s.errorPosted = true;
        return FALSE;
    }
    if (record && !recording) {
        GST_ELEMENT_WARNING(self, RESOURCE, WRITE,
                            ("channel %u is captured but not recorded: %s", channel, why.c_str()),
                            (nullptr));
    }
    GST_INFO_OBJECT(self, "capturing channel %u of %s: %" GST_PTR_FORMAT, channel,
                    s.card.Card().Path().c_str(), static_cast<void*>(caps));
    return TRUE;
}

GstCaps* GetCaps(GstBaseSrc* base, GstCaps* filter) {
    GST_OBJECT_LOCK(base);
    const bool cardTiming = StateOf(base).cardTiming;
    GST_OBJECT_UNLOCK(base);
    GstCaps* caps = gst_caps_make_writable(gst_pad_get_pad_template_caps(GST_BASE_SRC_PAD(base)));
    // The card times its frames at 25 per second; an outside source's rate is not known here.
    for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
        gst_structure_set(gst_caps_get_structure(caps, i), "framerate", GST_TYPE_FRACTION,
                          cardTiming ? 25 : 0, 1, nullptr);
    }
    if (filter != nullptr) {
        GstCaps* both = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
        gst_caps_unref(caps);
        caps = both;
    }
    return caps;
}

GstCaps* Fixate(GstBaseSrc* base, GstCaps* caps) {
    caps = gst_caps_make_writable(caps);
    caps = gst_caps_truncate(caps);
    GstStructure* structure = gst_caps_get_structure(caps, 0);
    gst_structure_fixate_field_nearest_int(structure, "width", 640);
    gst_structure_fixate_field_nearest_int(structure, "height", 480);
    gst_structure_fixate_field_string(structure, "format", "GRAY8");
    return GST_BASE_SRC_CLASS(parent_class)->fixate(base, caps);
}

gboolean Negotiate(GstBaseSrc* base) {
    if (GST_BASE_SRC_CLASS(parent_class)->negotiate(base)) {
        return TRUE;
    }
    if (StateOf(base).errorPosted) {
        StateOf(base).errorPosted = false;
        return FALSE;
    }
    // Say what the card can give, unless starting the channel failed and said so already.
    GstCaps* peer = gst_pad_peer_query_caps(GST_BASE_SRC_PAD(base), nullptr);
    GST_ELEMENT_ERROR(base, CORE, NEGOTIATION,
                      ("kvpciesrc produces video/x-raw in UYVY, GRAY8, GRAY16_LE, BGR or BGRx, "
                       "1 to 65535 pixels wide and high (the card's Y16&Y8 has no GStreamer "
                       "format); downstream takes %s",
                       kvpcie::gst::CapsText(peer).c_str()),
                      (nullptr));
    if (peer != nullptr) {
        gst_caps_unref(peer);
    }
    return FALSE;
}

gboolean Start(GstBaseSrc* base) {
    KvPcieSrcState& s = StateOf(base);
    // The state outlives the card's lease, whose callback goes with it.
    if (!s.card.Open(GST_ELEMENT(base), [&s] { s.session.CardLost(); })) {
        return FALSE;
    }
    s.errorPosted = false;
    s.session.Reset();
    s.session.SetFlushing(false);
    return TRUE;
}

gboolean Stop(GstBaseSrc* base) {
    StateOf(base).session.Stop();
    StateOf(base).card.Close();
    return TRUE;
}

gboolean Unlock(GstBaseSrc* base) {
    StateOf(base).session.SetFlushing(true);
    return TRUE;
}

gboolean UnlockStop(GstBaseSrc* base) {
    StateOf(base).session.SetFlushing(false);
    return TRUE;
}

gboolean Query(GstBaseSrc* base, GstQuery* query) {
    GstClockTime minimum = 0;
    GstClockTime maximum = 0;
    if (GST_QUERY_TYPE(query) == GST_QUERY_LATENCY &&
        StateOf(base).session.Latency(minimum, maximum)) {
        gst_query_set_latency(query, TRUE, minimum, maximum);
        return TRUE;
    }
    return GST_BASE_SRC_CLASS(parent_class)->query(base, query);
}

GstFlowReturn Create(GstPushSrc* push, GstBuffer** out) {
    auto* self = GST_KVPCIE_SRC(push);
    CaptureSession& session = self->state->session;
    CapturedFrame frame;
    bool lost = false;
    if (!session.Take(frame, lost)) {
        if (!lost) {
            return GST_FLOW_FLUSHING;
        }
        GST_ELEMENT_ERROR(self, RESOURCE, NOT_FOUND,
                          ("the card %s is gone (removed, or its driver ended)",
                           self->state->card.Card().Path().c_str()),
                          ("capture channel %u ends here; close the pipeline and start it again "
                           "once the card is back",
                           self->state->card.Channel()));
        return GST_FLOW_ERROR;
    }
    if (!gst_base_src_get_do_timestamp(GST_BASE_SRC(push))) {
        GST_BUFFER_PTS(frame.buffer) = frame.arrival;
    }
    if (frame.lostBefore > 0) {
        GST_WARNING_OBJECT(self, "%" G_GUINT64_FORMAT " frames lost before frame %" G_GUINT64_FORMAT,
                           frame.lostBefore, frame.sequence);
        GstMessage* qos = gst_message_new_qos(GST_OBJECT(self), TRUE, frame.arrival,
                                              GST_CLOCK_TIME_NONE, frame.arrival,
                                              session.FramePeriod());
        gst_message_set_qos_stats(qos, GST_FORMAT_BUFFERS, session.BuffersPushed(),
                                  session.FramesLost());
        gst_element_post_message(GST_ELEMENT(self), qos);
    }
    session.CountPushed();
    *out = frame.buffer;
    return GST_FLOW_OK;
}

GstStructure* StatsOf(GstKvPcieSrc* self) {
    KvPcieSrcState& s = *self->state;
    KvCaptureStatistics stats;
    // Zeros before the first start.
    s.card.ReadWhileOpen([&](PCIeDataManager& manager, int channel) {
        manager.GetCaptureStatistics(channel, stats);
    });
    GstStructure* structure = kvpcie::gst::CaptureStatsStructure(stats);
    gst_structure_set(structure, "frames-dropped-no-buffer", G_TYPE_UINT64,
                      s.session.DroppedForNoBuffer(), nullptr);
    return structure;
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* param) {
    KvPcieSrcState& s = StateOf(object);
    GST_OBJECT_LOCK(object);
    if (!kvpcie::gst::SetFromRow(kProperties, s, id, value) && !s.card.SetProperty(id, value)) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, param);
    }
    GST_OBJECT_UNLOCK(object);
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* param) {
    KvPcieSrcState& s = StateOf(object);
    if (id == PROP_STATS) {
        g_value_take_boxed(value, StatsOf(GST_KVPCIE_SRC(object)));
        return;
    }
    GST_OBJECT_LOCK(object);
    if (!kvpcie::gst::GetFromRow(kProperties, s, id, value) && !s.card.GetProperty(id, value)) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, param);
    }
    GST_OBJECT_UNLOCK(object);
}

void Finalize(GObject* object) {
    delete GST_KVPCIE_SRC(object)->state;
    G_OBJECT_CLASS(parent_class)->finalize(object);
}

}  // namespace

static void gst_kvpcie_src_class_init(GstKvPcieSrcClass* klass) {
    GST_DEBUG_CATEGORY_INIT(kvpcie_src_debug, "kvpciesrc", 0, "KvPCIe card capture source");
    auto* object = G_OBJECT_CLASS(klass);
    auto* element = GST_ELEMENT_CLASS(klass);
    auto* base = GST_BASE_SRC_CLASS(klass);
    auto* push = GST_PUSH_SRC_CLASS(klass);
    object->set_property = SetProperty;
    object->get_property = GetProperty;
    object->finalize = Finalize;

    kvpcie::gst::InstallCardProperties(object, "Capture channel of the card");
    kvpcie::gst::InstallProperties<KvPcieSrcState>(object, kProperties);
    kvpcie::gst::InstallStatsProperty(object, PROP_STATS,
                                      "The channel's capture statistics since its start, and the "
                                      "frames lost here for want of a free buffer");

    gst_element_class_add_static_pad_template(element, &src_template);
    gst_element_class_set_static_metadata(
        element, "KvPCIe capture source", "Source/Video/Hardware",
        "Captures one channel of an FPGA PCI Express frame card (KvPCIeInjectSdk)",
        "KvPCIeInjectSdk developers");

    base->get_caps = GetCaps;
    base->set_caps = SetCaps;
    base->fixate = Fixate;
    base->negotiate = Negotiate;
    base->start = Start;
    base->stop = Stop;
    base->unlock = Unlock;
    base->unlock_stop = UnlockStop;
    base->query = Query;
    push->create = Create;
}

static void gst_kvpcie_src_init(GstKvPcieSrc* self) {
    self->state = new KvPcieSrcState(GST_ELEMENT(self));
    gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
    gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
}
