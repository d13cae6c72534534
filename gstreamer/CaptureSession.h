// One run of kvpciesrc's capture channel, from its caps to its stop: the frame format, the
// library's DMA target, the pool the frames are copied into, the queue to the streaming thread,
// and the frames' numbering and losses. The element keeps its properties and caps negotiation,
// as GStreamer's v4l2 elements keep theirs beside their device object and buffer pool.
#pragma once

#include "CaptureQueue.h"
#include "ElementChannel.h"

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <gst/gst.h>
#include <gst/video/video.h>

#include <atomic>
#include <string>
#include <vector>

namespace kvpcie::gst {

// Prepare, Start, Stop and Reset run on the streaming and state-change threads, never together;
// Take on the streaming thread; the frame callback on the library's polling thread.
class CaptureSession {
public:
    // `element` and `card` must outlive the session; the card is open while a run goes on.
    CaptureSession(GstElement* element, ElementChannel& card) : element_(element), card_(card) {}
    ~CaptureSession();
    CaptureSession(const CaptureSession&) = delete;
    CaptureSession& operator=(const CaptureSession&) = delete;

    // At the element's start: the counts of pushed and lost frames begin again.
    void Reset();
    // Frames of `info` from now on: a pool for them, the numbering from 0. False when no pool
    // could be made.
    bool Prepare(GstCaps* caps, const GstVideoInfo& info, ePixelType pixelType);
    // Starts the channel for the prepared frames, and its recording when `record` (which may
    // fail alone: `recording` says). False when the channel did not start; `why` says why.
    bool Start(bool cardTiming, bool record, bool& recording, std::string& why);
    // Stops the channel if it runs, drops the frames waiting and lets the pool go.
    void Stop();

    // The latency of a running channel: a frame is complete one period after it began, then it
    // may wait in the queue. False while none runs.
    bool Latency(GstClockTime& minimum, GstClockTime& maximum) const;

    // The next frame, its buffer numbered and flagged (duration, DISCONT) and its losses
    // counted; false once flushing, or (with `lost` set) once the card is gone.
    bool Take(CapturedFrame& frame, bool& lost);
    // The card is gone: Take gives the frames that came before, then says so. Any thread.
    void CardLost() { queue_.SetCardLost(true); }
    // The frame that Take gave went downstream.
    void CountPushed() { ++buffersPushed_; }
    guint64 BuffersPushed() const { return buffersPushed_; }
    guint64 FramesLost() const { return framesLost_; }
    GstClockTime FramePeriod() const;
    void SetFlushing(bool flushing) { queue_.SetFlushing(flushing); }
    // Any thread.
    guint64 DroppedForNoBuffer() const { return droppedForNoBuffer_.load(); }

private:
    static void OnFrame(int channel, const char* frame, void* context);
    void Deliver(int channel, const char* frame);

    GstElement* const element_;
    ElementChannel& card_;

    bool capturing_ = false;
    bool recording_ = false;
    bool cardTimingInUse_ = true;
    GstVideoInfo info_{};
    ePixelType pixelType_ = Y8;
    gsize rowBytes_ = 0;
    std::vector<char> frameBuffer_;  // the library's DMA target: one frame
    GstBufferPool* pool_ = nullptr;
    CaptureQueue queue_;
    guint64 buffersPushed_ = 0;
    guint64 framesLost_ = 0;
    bool discontNext_ = true;

    // The library's polling thread's, from a start of the channel to its stop.
    guint64 nextSequence_ = 0;
    guint64 failedSeen_ = 0;
    guint64 lostPending_ = 0;
    std::atomic<guint64> droppedForNoBuffer_{0};
};

}  // namespace kvpcie::gst
