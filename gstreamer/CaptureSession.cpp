// One run of kvpciesrc's capture channel: its start and stop, and each frame from the library's
// polling thread to a buffer on the streaming thread.
#include "CaptureSession.h"

#include "ThreadSanitizer.h"
#include "VideoFormats.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

namespace kvpcie::gst {
namespace {

constexpr GstClockTime kCardFramePeriod = GST_SECOND / 25;  // the card's own frame timing
constexpr guint kPoolBuffersAtStart = 8;

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

}  // namespace

CaptureSession::~CaptureSession() {
    queue_.Clear();
    if (pool_ != nullptr) {
        gst_buffer_pool_set_active(pool_, FALSE);
        gst_object_unref(pool_);
    }
}

void CaptureSession::Reset() {
    queue_.SetCardLost(false);
    buffersPushed_ = 0;
    framesLost_ = 0;
    droppedForNoBuffer_ = 0;
}

bool CaptureSession::Prepare(GstCaps* caps, const GstVideoInfo& info, ePixelType pixelType) {
    info_ = info;
    pixelType_ = pixelType;
    const int width = GST_VIDEO_INFO_WIDTH(&info);
    const int height = GST_VIDEO_INFO_HEIGHT(&info);
    rowBytes_ = gsize(KvBytesPerPixel(pixelType)) * gsize(width);
    frameBuffer_.assign(KvFrameSizeBytes(pixelType, width, height), 0);
    pool_ = NewPool(caps, GST_VIDEO_INFO_SIZE(&info));
    if (pool_ == nullptr) {
        return false;
    }
    nextSequence_ = 0;
    failedSeen_ = 0;
    lostPending_ = 0;
    discontNext_ = true;
    return true;
}

bool CaptureSession::Start(bool cardTiming, bool record, bool& recording, std::string& why) {
    const guint channel = card_.Channel();  // the one claimed at the element's start
    bool started = false;
    recording = false;
    card_.Card().Run([&](PCIeDataManager& manager) {
        eErrorCode error = ERR_NONE;
        started = manager.StartCapture(channel, cardTiming, GST_VIDEO_INFO_WIDTH(&info_),
                                       GST_VIDEO_INFO_HEIGHT(&info_), pixelType_, error, OnFrame,
                                       this, frameBuffer_.data());
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
    if (started) {
        capturing_ = true;
        recording_ = recording;
        cardTimingInUse_ = cardTiming;
    }
    return started;
}

void CaptureSession::Stop() {
    if (capturing_) {
        const int channel = static_cast<int>(card_.Channel());
        const bool recording = recording_;
        card_.Card().Run([&](PCIeDataManager& manager) {
            if (recording) {
                manager.StopRecord(channel);
            }
            manager.StopCapture(channel);  // no callback runs once it returns
        });
        capturing_ = false;
        recording_ = false;
    }
    queue_.Clear();
    if (pool_ != nullptr) {
        gst_buffer_pool_set_active(pool_, FALSE);
        gst_object_unref(pool_);
        pool_ = nullptr;
    }
}

GstClockTime CaptureSession::FramePeriod() const {
    if (cardTimingInUse_) {
        return kCardFramePeriod;
    }
    if (GST_VIDEO_INFO_FPS_N(&info_) > 0) {
        return gst_util_uint64_scale_int(GST_SECOND, GST_VIDEO_INFO_FPS_D(&info_),
                                         GST_VIDEO_INFO_FPS_N(&info_));
    }
    return GST_CLOCK_TIME_NONE;
}

bool CaptureSession::Latency(GstClockTime& minimum, GstClockTime& maximum) const {
    if (!capturing_) {
        return false;
    }
    GstClockTime period = FramePeriod();
    if (!GST_CLOCK_TIME_IS_VALID(period)) {
        period = kCardFramePeriod;
    }
    minimum = period;
    maximum = period * CaptureQueue::kCapacity;
    return true;
}

bool CaptureSession::Take(CapturedFrame& frame, bool& lost) {
    if (!queue_.Pop(frame, lost)) {
        return false;
    }
    GstBuffer* buffer = frame.buffer;
    GST_BUFFER_OFFSET(buffer) = frame.sequence;
    GST_BUFFER_OFFSET_END(buffer) = frame.sequence + 1;
    GST_BUFFER_DURATION(buffer) = cardTimingInUse_ ? FramePeriod() : GST_CLOCK_TIME_NONE;
    if (frame.lostBefore > 0 || discontNext_) {
        GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
        discontNext_ = false;
    }
    framesLost_ += frame.lostBefore;
    return true;
}

void CaptureSession::OnFrame(int channel, const char* frame, void* context) {
    static_cast<CaptureSession*>(context)->Deliver(channel, frame);
}

// Once per frame: the one copy, into a pool buffer. It never waits for the streaming thread; a
// frame with no free buffer is counted as lost.
void CaptureSession::Deliver(int channel, const char* frame) {
    guint64 lost = 0;
    KvCaptureStatistics stats;
    if (card_.Card().AnyThreadManager().GetCaptureStatistics(channel, stats) &&
        stats.framesFailed > failedSeen_) {
        lost = stats.framesFailed - failedSeen_;  // read from the card without success
        failedSeen_ = stats.framesFailed;
    }
    CapturedFrame captured;
    captured.arrival = RunningTimeNow(element_);  // before the copy: when it came
    captured.sequence = nextSequence_ + lost;
    nextSequence_ = captured.sequence + 1;

    GstBufferPoolAcquireParams params{};
    params.flags = GST_BUFFER_POOL_ACQUIRE_FLAG_DONTWAIT;
    if (gst_buffer_pool_acquire_buffer(pool_, &captured.buffer, &params) != GST_FLOW_OK) {
        lostPending_ += lost + 1;
        droppedForNoBuffer_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    ReceivedThroughGStreamer(captured.buffer);  // from the pool
    GstMapInfo map;
    if (!gst_buffer_map(captured.buffer, &map, GST_MAP_WRITE)) {
        gst_buffer_unref(captured.buffer);
        lostPending_ += lost + 1;
        return;
    }
    CopyRows(reinterpret_cast<const guint8*>(frame), rowBytes_, map.data,
             GST_VIDEO_INFO_PLANE_STRIDE(&info_, 0), rowBytes_, GST_VIDEO_INFO_HEIGHT(&info_));
    gst_buffer_unmap(captured.buffer, &map);
    captured.lostBefore = lostPending_ + lost;
    if (queue_.Push(captured)) {
        lostPending_ = 0;
    } else {
        gst_buffer_unref(captured.buffer);
        lostPending_ += lost + 1;
    }
}

}  // namespace kvpcie::gst
