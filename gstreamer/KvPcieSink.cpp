// kvpciesink: caps negotiation, playout of each buffer on an inject channel, and its statistics.
#include "KvPcieSink.h"

#include "ElementChannel.h"
#include "InjectDrain.h"
#include "PropertyTable.h"
#include "StatisticsTables.h"
#include "ThreadSanitizer.h"
#include "VideoFormats.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <gst/video/video.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using kvpcie::gst::ElementChannel;
using KvPCIe::SharedCard;

GST_DEBUG_CATEGORY_STATIC(kvpcie_sink_debug);
#define GST_CAT_DEFAULT kvpcie_sink_debug

namespace {

constexpr int kDefaultFrameRate = 25;  // for caps whose frame rate is 0/1 (variable)

enum Property : guint { PROP_LINE_PERIOD = kvpcie::gst::kFirstElementProperty, PROP_STATS };

}  // namespace

struct KvPcieSinkState {
    // Properties, under the object lock; they take effect at the next start.
    ElementChannel card{SharedCard::Direction::Inject};  // and from start to stop, the card
    gint linePeriod = 0;

    // From start to stop.
    gint injectLinePeriod = 0;
    bool injecting = false;  // the channel was started and not stopped since
    GstVideoInfo info{};
    ePixelType pixelType = Y8;
    int frameRate = kDefaultFrameRate;
    gsize rowBytes = 0;
    std::vector<char> staging;  // for frames whose rows are not packed

    // unlock() wakes a render or an end of stream that waits for the card.
    std::mutex waitLock;
    std::condition_variable wake;
    bool flushing = false;
};

namespace {

const kvpcie::gst::PropertyRow<KvPcieSinkState> kProperties[] = {
    {PROP_LINE_PERIOD, "line-period", "Line period",
     "The channel's line period, as the card takes it (0: the card's own)",
     &KvPcieSinkState::linePeriod, 0},
};

}  // namespace

#define gst_kvpcie_sink_parent_class parent_class
G_DEFINE_TYPE(GstKvPcieSink, gst_kvpcie_sink, GST_TYPE_BASE_SINK)

static GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(KVPCIE_GST_SINK_CAPS));

namespace {

KvPcieSinkState& StateOf(gpointer element) { return *GST_KVPCIE_SINK(element)->state; }

bool Flushing(KvPcieSinkState& s) {
    std::lock_guard<std::mutex> lock(s.waitLock);
    return s.flushing;
}

// Sleeps up to `time` unless unlock() comes first; false once flushing.
bool WaitUnlessFlushing(KvPcieSinkState& s, std::chrono::milliseconds time) {
    std::unique_lock<std::mutex> lock(s.waitLock);
    s.wake.wait_for(lock, time, [&] { return s.flushing; });
    return !s.flushing;
}

void StopInjecting(KvPcieSinkState& s) {
    if (!s.injecting) {
        return;
    }
    const int channel = static_cast<int>(s.card.Channel());
    s.card.Card().Run([&](PCIeDataManager& manager) { manager.StopInject(channel); });
    s.injecting = false;
}

gboolean SetCaps(GstBaseSink* base, GstCaps* caps) {
    auto* self = GST_KVPCIE_SINK(base);
    KvPcieSinkState& s = *self->state;
    GstVideoInfo info;
    ePixelType pixelType = Y8;
    if (!gst_video_info_from_caps(&info, caps) ||
        !kvpcie::gst::PixelTypeOf(GST_VIDEO_INFO_FORMAT(&info), pixelType) ||
        pixelType == PIXEL32) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
                          ("kvpciesink cannot inject %s", kvpcie::gst::CapsText(caps).c_str()), (nullptr));
        return FALSE;
    }
    int frameRate = kDefaultFrameRate;
    if (GST_VIDEO_INFO_FPS_N(&info) > 0 && GST_VIDEO_INFO_FPS_D(&info) > 0) {
        const double rate = double(GST_VIDEO_INFO_FPS_N(&info)) / GST_VIDEO_INFO_FPS_D(&info);
        frameRate = static_cast<int>(std::clamp(std::lround(rate), 1L, 1000000L));
    }
    // A running channel keeps its first format: a new one needs a new start.
    if (s.injecting && (!gst_video_info_is_equal(&info, &s.info) || frameRate != s.frameRate)) {
        StopInjecting(s);
    }
    s.info = info;
    s.pixelType = pixelType;
    s.frameRate = frameRate;
    s.rowBytes = gsize(KvBytesPerPixel(pixelType)) * gsize(GST_VIDEO_INFO_WIDTH(&info));
    s.staging.clear();
    if (GST_VIDEO_INFO_PLANE_STRIDE(&info, 0) != static_cast<gint>(s.rowBytes)) {
        s.staging.resize(s.rowBytes * GST_VIDEO_INFO_HEIGHT(&info));
    }
    GST_INFO_OBJECT(self, "injecting %" GST_PTR_FORMAT " at %d frames per second",
                    static_cast<void*>(caps),
                    frameRate);
    return TRUE;
}

GstFlowReturn Render(GstBaseSink* base, GstBuffer* buffer) {
    auto* self = GST_KVPCIE_SINK(base);
    KvPcieSinkState& s = *self->state;
    kvpcie::gst::ReceivedThroughGStreamer(buffer);
    GstVideoFrame frame;
    if (!gst_video_frame_map(&frame, &s.info, buffer, GST_MAP_READ)) {
        GST_ELEMENT_ERROR(self, STREAM, FORMAT,
                          ("a buffer of %" G_GSIZE_FORMAT " bytes holds no %dx%d frame",
                           gst_buffer_get_size(buffer), GST_VIDEO_INFO_WIDTH(&s.info),
                           GST_VIDEO_INFO_HEIGHT(&s.info)),
                          (nullptr));
        return GST_FLOW_ERROR;
    }
    const auto* rows = static_cast<const guint8*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
    const gsize stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
    // StartInject copies the frame into its queue and leaves the caller's bytes alone.
    char* data = const_cast<char*>(reinterpret_cast<const char*>(rows));
    if (stride != s.rowBytes) {
        s.staging.resize(s.rowBytes * GST_VIDEO_INFO_HEIGHT(&s.info));
        kvpcie::gst::CopyRows(rows, stride, reinterpret_cast<guint8*>(s.staging.data()),
                              s.rowBytes, s.rowBytes, GST_VIDEO_INFO_HEIGHT(&s.info));
        data = s.staging.data();
    }
    const int channel = static_cast<int>(s.card.Channel());
    const int width = GST_VIDEO_INFO_WIDTH(&s.info);
    const int height = GST_VIDEO_INFO_HEIGHT(&s.info);
    // While the queue is full, ask again a few times per period.
    const auto retry = std::clamp(std::chrono::milliseconds(1000 / s.frameRate / 4),
                                  std::chrono::milliseconds(2), std::chrono::milliseconds(10));
    GstFlowReturn result = GST_FLOW_OK;
    for (;;) {
        bool queued = false;
        eErrorCode error = ERR_NONE;
        std::string why;
        s.card.Card().Run([&](PCIeDataManager& manager) {
            queued = manager.StartInject(static_cast<unsigned>(channel), s.frameRate, width,
                                         height, s.pixelType, s.injectLinePeriod, data, error);
            if (!queued && error != ERR_QUEUE_FULL) {
                why = manager.LastErrorText();
            }
        });
        if (queued) {
            s.injecting = true;
            break;
        }
        if (s.card.Card().IsLost()) {
            GST_ELEMENT_ERROR(self, RESOURCE, NOT_FOUND,
                              ("the card %s is gone (removed, or its driver ended)",
                               s.card.Card().Path().c_str()),
                              ("inject channel %d ends here", channel));
            result = GST_FLOW_ERROR;
            break;
        }
        if (error != ERR_QUEUE_FULL) {
            GST_ELEMENT_ERROR(self, RESOURCE, WRITE,
                              ("inject channel %d of %s refused a %dx%d %s frame: %s", channel,
                               s.card.Card().Path().c_str(), width, height,
                               GST_VIDEO_INFO_NAME(&s.info), why.c_str()),
                              (nullptr));
            result = GST_FLOW_ERROR;
            break;
        }
        s.injecting = true;
        if (!WaitUnlessFlushing(s, retry)) {
            result = GST_FLOW_FLUSHING;
            break;
        }
    }
    gst_video_frame_unmap(&frame);
    return result;
}

gboolean Event(GstBaseSink* base, GstEvent* event) {
    KvPcieSinkState& s = StateOf(base);
    switch (GST_EVENT_TYPE(event)) {
        case GST_EVENT_EOS:
            // The end of the stream is the end of playout: the queued frames are played first.
            if (s.injecting) {
                kvpcie::tools::WaitUntilQueuedFramesPlayed(
                    s.card.Card().AnyThreadManager(), static_cast<int>(s.card.Channel()),
                    s.frameRate,
                    [&] { return Flushing(s); });
                StopInjecting(s);
            }
            break;
        case GST_EVENT_FLUSH_STOP:
            StopInjecting(s);  // frames from before the flush are not played
            break;
        default:
            break;
    }
    return GST_BASE_SINK_CLASS(parent_class)->event(base, event);
}

gboolean Start(GstBaseSink* base) {
    KvPcieSinkState& s = StateOf(base);
    if (!s.card.Open(GST_ELEMENT(base))) {
        return FALSE;
    }
    GST_OBJECT_LOCK(base);
    s.injectLinePeriod = s.linePeriod;
    GST_OBJECT_UNLOCK(base);
    s.injecting = false;
    std::lock_guard<std::mutex> lock(s.waitLock);
    s.flushing = false;
    return TRUE;
}

gboolean Stop(GstBaseSink* base) {
    KvPcieSinkState& s = StateOf(base);
    if (s.card.IsOpen()) {
        StopInjecting(s);
    }
    s.card.Close();
    return TRUE;
}

gboolean Unlock(GstBaseSink* base) {
    KvPcieSinkState& s = StateOf(base);
    {
        std::lock_guard<std::mutex> lock(s.waitLock);
        s.flushing = true;
    }
    s.wake.notify_all();
    return TRUE;
}

gboolean UnlockStop(GstBaseSink* base) {
    KvPcieSinkState& s = StateOf(base);
    std::lock_guard<std::mutex> lock(s.waitLock);
    s.flushing = false;
    return TRUE;
}

GstStructure* StatsOf(GstKvPcieSink* self) {
    KvPcieSinkState& s = *self->state;
    KvInjectStatistics stats;
    // Zeros before the first start.
    s.card.ReadWhileOpen([&](PCIeDataManager& manager, int channel) {
        manager.GetInjectStatistics(channel, stats);
    });
    return kvpcie::gst::InjectStatsStructure(stats);
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* param) {
    KvPcieSinkState& s = StateOf(object);
    GST_OBJECT_LOCK(object);
    if (!kvpcie::gst::SetFromRow(kProperties, s, id, value) && !s.card.SetProperty(id, value)) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, param);
    }
    GST_OBJECT_UNLOCK(object);
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* param) {
    KvPcieSinkState& s = StateOf(object);
    if (id == PROP_STATS) {
        g_value_take_boxed(value, StatsOf(GST_KVPCIE_SINK(object)));
        return;
    }
    GST_OBJECT_LOCK(object);
    if (!kvpcie::gst::GetFromRow(kProperties, s, id, value) && !s.card.GetProperty(id, value)) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, param);
    }
    GST_OBJECT_UNLOCK(object);
}

void Finalize(GObject* object) {
    delete GST_KVPCIE_SINK(object)->state;
    G_OBJECT_CLASS(parent_class)->finalize(object);
}

}  // namespace

static void gst_kvpcie_sink_class_init(GstKvPcieSinkClass* klass) {
    GST_DEBUG_CATEGORY_INIT(kvpcie_sink_debug, "kvpciesink", 0, "KvPCIe card inject sink");
    auto* object = G_OBJECT_CLASS(klass);
    auto* element = GST_ELEMENT_CLASS(klass);
    auto* base = GST_BASE_SINK_CLASS(klass);
    object->set_property = SetProperty;
    object->get_property = GetProperty;
    object->finalize = Finalize;

    kvpcie::gst::InstallCardProperties(object, "Inject channel of the card");
    kvpcie::gst::InstallProperties<KvPcieSinkState>(object, kProperties);
    kvpcie::gst::InstallStatsProperty(object, PROP_STATS,
                                      "The channel's inject statistics since its start");

    gst_element_class_add_static_pad_template(element, &sink_template);
    gst_element_class_set_static_metadata(
        element, "KvPCIe inject sink", "Sink/Video/Hardware",
        "Plays frames out of an inject channel of an FPGA PCI Express frame card at the caps' "
        "frame rate (KvPCIeInjectSdk)",
        "KvPCIeInjectSdk developers");

    base->set_caps = SetCaps;
    base->render = Render;
    base->event = Event;
    base->start = Start;
    base->stop = Stop;
    base->unlock = Unlock;
    base->unlock_stop = UnlockStop;
}

static void gst_kvpcie_sink_init(GstKvPcieSink* self) {
    self->state = new KvPcieSinkState;
    // The card plays one frame per period and the full queue holds the stream back, so the
    // card's clock paces the stream rather than the pipeline's.
    gst_base_sink_set_sync(GST_BASE_SINK(self), FALSE);
}
