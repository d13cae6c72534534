// kvpciesrc: caps negotiation, the capture channel's start and stop, and buffers for each frame.
#include "KvPcieSrc.h"

#include "CaptureQueue.h"
#include "ElementChannel.h"
#include "ThreadSanitizer.h"
#include "VideoFormats.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <gst/video/video.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using kvpcie::gst::CapturedFrame;
using kvpcie::gst::CaptureQueue;
using kvpcie::gst::ElementChannel;
using KvPCIe::SharedCard;

GST_DEBUG_CATEGORY_STATIC(kvpcie_src_debug);
#define GST_CAT_DEFAULT kvpcie_src_debug

namespace {

constexpr GstClockTime kCardFramePeriod = GST_SECOND / 25;  // the card's own frame timing
constexpr guint kPoolBuffersAtStart = 8;

enum Property : guint {
    PROP_CARD_TIMING = kvpcie::gst::kFirstElementProperty,
    PROP_RECORD,
    PROP_STATS,
};

}  // namespace

struct KvPcieSrcState {
    // Properties, under the object lock; they take effect at the next start.
    ElementChannel card{SharedCard::Direction::Capture};  // and from start to stop, the card
    bool cardTiming = true;
    bool record = false;

    // From start to stop, on the streaming and state-change threads.
    bool errorPosted = false;  // set_caps said why the channel did not start
    bool capturing = false;
    bool recording = false;
    bool cardTimingInUse = true;
    GstVideoInfo info{};
    gsize rowBytes = 0;
    std::vector<char> frameBuffer;  // the library's DMA target: one frame
    GstBufferPool* pool = nullptr;
    CaptureQueue queue;
    guint64 buffersPushed = 0;
    guint64 framesLost = 0;
    bool discontNext = true;

    // The library's polling thread's, from a start of the channel to its stop.
    guint64 nextSequence = 0;
    guint64 failedSeen = 0;
    guint64 lostPending = 0;
    std::atomic<guint64> droppedForNoBuffer{0};
};

#define gst_kvpcie_src_parent_class parent_class
G_DEFINE_TYPE(GstKvPcieSrc, gst_kvpcie_src, GST_TYPE_PUSH_SRC)

static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(KVPCIE_GST_SRC_CAPS));

namespace {

KvPcieSrcState& StateOf(gpointer element) { return *GST_KVPCIE_SRC(element)->state; }

// Running time of the element's clock now; NONE without a clock (not playing).
GstClockTime RunningTimeNow(GstElement* element) {
    GST_OBJECT_LOCK(element);
    GstClock* clock = GST_ELEMENT_CLOCK(element);
    if (clock == nullptr) {
        GST_OBJECT_UNLOCK(element);
        return GST_CLOCK_TIME_NONE;
    }
    gst_object_ref(clock);
    const GstClockTime base = element->base_time;
    GST_OBJECT_UNLOCK(element);
    const GstClockTime now = gst_clock_get_time(clock);
    gst_object_unref(clock);
    return now > base ? now - base : 0;
}

// On the library's polling thread, once per frame: the one copy, into a pool buffer. It never
// waits for the streaming thread; a frame with no free buffer is counted as lost.
void OnFrame(int channel, const char* frame, void* context) {
    auto* self = static_cast<GstKvPcieSrc*>(context);
    KvPcieSrcState& s = *self->state;
    guint64 lost = 0;
    KvCaptureStatistics stats;
    if (s.card.Card().AnyThreadManager().GetCaptureStatistics(channel, stats) &&
        stats.framesFailed > s.failedSeen) {
        lost = stats.framesFailed - s.failedSeen;  // read from the card without success
        s.failedSeen = stats.framesFailed;
    }
    CapturedFrame captured;
    captured.arrival = RunningTimeNow(GST_ELEMENT(self));  // before the copy: when it came
    captured.sequence = s.nextSequence + lost;
    s.nextSequence = captured.sequence + 1;

    GstBufferPoolAcquireParams params{};
    params.flags = GST_BUFFER_POOL_ACQUIRE_FLAG_DONTWAIT;
    if (gst_buffer_pool_acquire_buffer(s.pool, &captured.buffer, &params) != GST_FLOW_OK) {
        s.lostPending += lost + 1;
        s.droppedForNoBuffer.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    kvpcie::gst::ReceivedThroughGStreamer(captured.buffer);  // from the pool
    GstMapInfo map;
    if (!gst_buffer_map(captured.buffer, &map, GST_MAP_WRITE)) {
        gst_buffer_unref(captured.buffer);
        s.lostPending += lost + 1;
        return;
    }
    kvpcie::gst::CopyRows(reinterpret_cast<const guint8*>(frame), s.rowBytes, map.data,
                          GST_VIDEO_INFO_PLANE_STRIDE(&s.info, 0), s.rowBytes,
                          GST_VIDEO_INFO_HEIGHT(&s.info));
    gst_buffer_unmap(captured.buffer, &map);
    captured.lostBefore = s.lostPending + lost;
    if (s.queue.Push(captured)) {
        s.lostPending = 0;
    } else {
        gst_buffer_unref(captured.buffer);
        s.lostPending += lost + 1;
    }
}

void StopCapturing(GstKvPcieSrc* self) {
    KvPcieSrcState& s = *self->state;
    if (s.capturing) {
        const int channel = static_cast<int>(s.card.Channel());
        const bool recording = s.recording;
        s.card.Card().Run([&](PCIeDataManager& manager) {
            if (recording) {
                manager.StopRecord(channel);
            }
            manager.StopCapture(channel);  // no callback runs once it returns
        });
        s.capturing = false;
        s.recording = false;
    }
    s.queue.Clear();
    if (s.pool != nullptr) {
        gst_buffer_pool_set_active(s.pool, FALSE);
        gst_object_unref(s.pool);
        s.pool = nullptr;
    }
}

GstBufferPool* NewPool(GstCaps* caps, gsize frameBytes) {
    GstBufferPool* pool = gst_buffer_pool_new();
    GstStructure* config = gst_buffer_pool_get_config(pool);
    // Eight made at the start; more only while downstream holds that many (a queue, an
    // appsink that is read late), and those are reused from then on.
    gst_buffer_pool_config_set_params(config, caps, static_cast<guint>(frameBytes),
                                      kPoolBuffersAtStart, CaptureQueue::kCapacity);
    if (!gst_buffer_pool_set_config(pool, config) || !gst_buffer_pool_set_active(pool, TRUE)) {
        gst_object_unref(pool);
        return nullptr;
    }
    return pool;
}

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
    StopCapturing(self);
    const guint channel = s.card.Channel();  // the one claimed at the start
    GST_OBJECT_LOCK(self);
    const bool cardTiming = s.cardTiming;
    const bool record = s.record;
    GST_OBJECT_UNLOCK(self);

    s.info = info;
    const int width = GST_VIDEO_INFO_WIDTH(&info);
    const int height = GST_VIDEO_INFO_HEIGHT(&info);
    s.rowBytes = gsize(KvBytesPerPixel(pixelType)) * gsize(width);
    s.frameBuffer.assign(KvFrameSizeBytes(pixelType, width, height), 0);
    s.pool = NewPool(caps, GST_VIDEO_INFO_SIZE(&info));
    if (s.pool == nullptr) {
        GST_ELEMENT_ERROR(self, RESOURCE, NO_SPACE_LEFT,
                          ("no buffers of %" G_GSIZE_FORMAT " bytes for the frames",
                           GST_VIDEO_INFO_SIZE(&info)), (nullptr));
        s.errorPosted = true;
        return FALSE;
    }
    s.nextSequence = 0;
    s.failedSeen = 0;
    s.lostPending = 0;
    s.discontNext = true;

    bool started = false;
    bool recording = false;
    std::string why;
    s.card.Card().Run([&](PCIeDataManager& manager) {
        eErrorCode error = ERR_NONE;
        started = manager.StartCapture(channel, cardTiming, width, height, pixelType, error,
                                       OnFrame, self, s.frameBuffer.data());
        if (!started) {
            why = manager.LastErrorText();
            return;
        }
        if (record) {
            recording = manager.StartRecord(static_cast<int>(channel));
            if (!recording) {
                why = manager.LastErrorText();
            }
        }
    });
    if (!started) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS,
                          ("channel %u of %s would not start capturing %dx%d %s: %s", channel,
                           s.card.Card().Path().c_str(), width, height,
                           GST_VIDEO_INFO_NAME(&info), why.c_str()),
                          (nullptr));
        StopCapturing(self);
        s.errorPosted = true;
        return FALSE;
    }
    if (record && !recording) {
        GST_ELEMENT_WARNING(self, RESOURCE, WRITE,
                            ("channel %u is captured but not recorded: %s", channel, why.c_str()),
                            (nullptr));
    }
    s.capturing = true;
    s.recording = recording;
    s.cardTimingInUse = cardTiming;
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
    if (!s.card.Open(GST_ELEMENT(base))) {
        return FALSE;
    }
    s.errorPosted = false;
    s.buffersPushed = 0;
    s.framesLost = 0;
    s.droppedForNoBuffer = 0;
    s.queue.SetFlushing(false);
    return TRUE;
}

gboolean Stop(GstBaseSrc* base) {
    StopCapturing(GST_KVPCIE_SRC(base));
    StateOf(base).card.Close();
    return TRUE;
}

gboolean Unlock(GstBaseSrc* base) {
    StateOf(base).queue.SetFlushing(true);
    return TRUE;
}

gboolean UnlockStop(GstBaseSrc* base) {
    StateOf(base).queue.SetFlushing(false);
    return TRUE;
}

GstClockTime FramePeriod(const KvPcieSrcState& s) {
    if (s.cardTimingInUse) {
        return kCardFramePeriod;
    }
    if (GST_VIDEO_INFO_FPS_N(&s.info) > 0) {
        return gst_util_uint64_scale_int(GST_SECOND, GST_VIDEO_INFO_FPS_D(&s.info),
                                         GST_VIDEO_INFO_FPS_N(&s.info));
    }
    return GST_CLOCK_TIME_NONE;
}

gboolean Query(GstBaseSrc* base, GstQuery* query) {
    KvPcieSrcState& s = StateOf(base);
    if (GST_QUERY_TYPE(query) == GST_QUERY_LATENCY && s.capturing) {
        // A frame is complete one period after it began; then it may wait in the queue.
        GstClockTime period = FramePeriod(s);
        if (!GST_CLOCK_TIME_IS_VALID(period)) {
            period = kCardFramePeriod;
        }
        gst_query_set_latency(query, TRUE, period, period * CaptureQueue::kCapacity);
        return TRUE;
    }
    return GST_BASE_SRC_CLASS(parent_class)->query(base, query);
}

GstFlowReturn Create(GstPushSrc* push, GstBuffer** out) {
    auto* self = GST_KVPCIE_SRC(push);
    KvPcieSrcState& s = *self->state;
    CapturedFrame frame;
    if (!s.queue.Pop(frame)) {
        return GST_FLOW_FLUSHING;
    }
    GstBuffer* buffer = frame.buffer;
    GST_BUFFER_OFFSET(buffer) = frame.sequence;
    GST_BUFFER_OFFSET_END(buffer) = frame.sequence + 1;
    const GstClockTime period = FramePeriod(s);
    GST_BUFFER_DURATION(buffer) = s.cardTimingInUse ? period : GST_CLOCK_TIME_NONE;
    if (!gst_base_src_get_do_timestamp(GST_BASE_SRC(push))) {
        GST_BUFFER_PTS(buffer) = frame.arrival;
    }
    if (frame.lostBefore > 0 || s.discontNext) {
        GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
        s.discontNext = false;
    }
    if (frame.lostBefore > 0) {
        s.framesLost += frame.lostBefore;
        GST_WARNING_OBJECT(self, "%" G_GUINT64_FORMAT " frames lost before frame %" G_GUINT64_FORMAT,
                           frame.lostBefore, frame.sequence);
        GstMessage* qos = gst_message_new_qos(GST_OBJECT(self), TRUE, frame.arrival,
                                              GST_CLOCK_TIME_NONE, frame.arrival, period);
        gst_message_set_qos_stats(qos, GST_FORMAT_BUFFERS, s.buffersPushed, s.framesLost);
        gst_element_post_message(GST_ELEMENT(self), qos);
    }
    ++s.buffersPushed;
    *out = buffer;
    return GST_FLOW_OK;
}

GstStructure* StatsOf(GstKvPcieSrc* self) {
    KvPcieSrcState& s = *self->state;
    KvCaptureStatistics stats;
    // Zeros before the first start.
    s.card.ReadWhileOpen([&](PCIeDataManager& manager, int channel) {
        manager.GetCaptureStatistics(channel, stats);
    });
    return gst_structure_new(
        "kvpcie-capture-stats",
        "frames-delivered", G_TYPE_UINT64, guint64(stats.framesDelivered),
        "frames-failed", G_TYPE_UINT64, guint64(stats.framesFailed),
        "error-frames", G_TYPE_UINT64, guint64(stats.errorFrames),
        "frames-recorded", G_TYPE_UINT64, guint64(stats.framesRecorded),
        "bytes-recorded", G_TYPE_UINT64, guint64(stats.bytesRecorded),
        "frames-not-recorded", G_TYPE_UINT64, guint64(stats.framesNotRecorded),
        "frames-per-second", G_TYPE_DOUBLE, stats.framesPerSecond,
        "callback-micros-max", G_TYPE_UINT64, guint64(stats.callbackMicrosMax),
        "last-card-buffer", G_TYPE_INT, gint(stats.lastCardBuffer),
        "status-bytes-delivered", G_TYPE_UINT64, guint64(stats.statusBytesDelivered),
        "status-bytes-dropped", G_TYPE_UINT64, guint64(stats.statusBytesDropped),
        "frames-dropped-no-buffer", G_TYPE_UINT64, guint64(s.droppedForNoBuffer.load()),
        nullptr);
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* param) {
    KvPcieSrcState& s = StateOf(object);
    GST_OBJECT_LOCK(object);
    switch (id) {
        case PROP_CARD_TIMING:
            s.cardTiming = g_value_get_boolean(value);
            break;
        case PROP_RECORD:
            s.record = g_value_get_boolean(value);
            break;
        default:
            if (!s.card.SetProperty(id, value)) {
                G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, param);
            }
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
    switch (id) {
        case PROP_CARD_TIMING:
            g_value_set_boolean(value, s.cardTiming);
            break;
        case PROP_RECORD:
            g_value_set_boolean(value, s.record);
            break;
        default:
            if (!s.card.GetProperty(id, value)) {
                G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, param);
            }
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
    g_object_class_install_property(
        object, PROP_CARD_TIMING,
        g_param_spec_boolean("card-timing", "Card timing",
                             "The card times the frames (25 per second); false: the source "
                             "connected to the channel does",
                             TRUE, kvpcie::gst::kReadAtStart));
    g_object_class_install_property(
        object, PROP_RECORD,
        g_param_spec_boolean("record", "Record",
                             "The library also records the channel's frames to raw files below "
                             "VideoRecord/Capture<channel + 1>/ of the application folder (the current "
                             "folder without a Qt application)",
                             FALSE, kvpcie::gst::kReadAtStart));
    g_object_class_install_property(
        object, PROP_STATS,
        g_param_spec_boxed("stats", "Statistics",
                           "The channel's capture statistics since its start, and the frames "
                           "lost here for want of a free buffer",
                           GST_TYPE_STRUCTURE,
                           GParamFlags(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));

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
    self->state = new KvPcieSrcState;
    gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
    gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
}
