// Pipelines from a launch line, read through appsinks and the bus, always taken down to NULL.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/check/gstharness.h>
#include <gst/gst.h>

#include <gtest/gtest.h>

#include <string>

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#endif

namespace kvpcie::testing {

// GLib's queues synchronise through futex calls that ThreadSanitizer does not see: the probe and
// the pull tell it of the hand-over (elsewhere they do nothing).
inline GstPadProbeReturn HandOverBuffer(GstPad*, GstPadProbeInfo* info, gpointer) {
#if defined(__SANITIZE_THREAD__)
    __tsan_release(GST_PAD_PROBE_INFO_BUFFER(info));
#else
    (void)info;
#endif
    return GST_PAD_PROBE_OK;
}
inline void TakeOverBuffer(GstBuffer* buffer) {
#if defined(__SANITIZE_THREAD__)
    if (buffer != nullptr) {
        __tsan_acquire(buffer);
    }
#else
    (void)buffer;
#endif
}
// Before a buffer made here is pushed into a pipeline.
inline void HandOver(GstBuffer* buffer) {
#if defined(__SANITIZE_THREAD__)
    __tsan_release(buffer);
#else
    (void)buffer;
#endif
}

// Lets go of a pulled buffer or sample after reading it: its pool may hand it out again.
inline void DropBuffer(GstBuffer* buffer) {
#if defined(__SANITIZE_THREAD__)
    __tsan_release(buffer);
#endif
    gst_buffer_unref(buffer);
}
inline void DropSample(GstSample* sample) {
#if defined(__SANITIZE_THREAD__)
    __tsan_release(gst_sample_get_buffer(sample));
#endif
    gst_sample_unref(sample);
}
inline void ProbeHandOver(GstPad* pad) {
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, HandOverBuffer, nullptr, nullptr);
}

// The harness of a source element, whose buffers PullBuffer takes.
inline GstHarness* SourceHarness(const char* factory) {
    GstHarness* harness = gst_harness_new(factory);
    GstPad* pad = gst_element_get_static_pad(harness->element, "src");
    ProbeHandOver(pad);
    gst_object_unref(pad);
    return harness;
}
inline GstBuffer* PullBuffer(GstHarness* harness) {
    GstBuffer* buffer = gst_harness_pull(harness);
    TakeOverBuffer(buffer);
    return buffer;
}

class TestPipeline {
public:
    explicit TestPipeline(const std::string& launchLine) {
        GError* error = nullptr;
        pipeline_ = gst_parse_launch(launchLine.c_str(), &error);
        if (error != nullptr) {
            ADD_FAILURE() << launchLine << ": " << error->message;
            g_error_free(error);
        }
        if (pipeline_ == nullptr) {
            return;
        }
        GstIterator* sinks =
            gst_bin_iterate_all_by_element_factory_name(GST_BIN(pipeline_), "appsink");
        gst_iterator_foreach(
            sinks,
            [](const GValue* item, gpointer) {
                GstPad* pad = gst_element_get_static_pad(GST_ELEMENT(g_value_get_object(item)),
                                                         "sink");
                ProbeHandOver(pad);
                gst_object_unref(pad);
            },
            nullptr);
        gst_iterator_free(sinks);
    }
    ~TestPipeline() {
        if (pipeline_ != nullptr) {
            gst_element_set_state(pipeline_, GST_STATE_NULL);
            gst_object_unref(pipeline_);
        }
    }
    TestPipeline(const TestPipeline&) = delete;
    TestPipeline& operator=(const TestPipeline&) = delete;

    GstElement* Get() const { return pipeline_; }
    bool Valid() const { return pipeline_ != nullptr; }

    // The named element, held until the pipeline goes.
    GstElement* Element(const char* name) {
        GstElement* element = gst_bin_get_by_name(GST_BIN(pipeline_), name);
        if (element != nullptr) {
            gst_object_unref(element);  // the bin keeps it
        }
        return element;
    }

    // Sets the state and waits up to 10 s for it; true when it got there.
    bool SetState(GstState state) {
        if (gst_element_set_state(pipeline_, state) == GST_STATE_CHANGE_FAILURE) {
            return false;
        }
        GstState now = GST_STATE_VOID_PENDING;
        return gst_element_get_state(pipeline_, &now, nullptr, 10 * GST_SECOND) !=
                   GST_STATE_CHANGE_FAILURE &&
               now == state;
    }

    // Asks for PLAYING without waiting: a sink fed by a non-live source completes it only
    // with its first buffer.
    bool Play() {
        return gst_element_set_state(pipeline_, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
    }

    // The next message of one of `types` within `timeout`; null on time-out. Unref it.
    GstMessage* WaitFor(GstMessageType types, GstClockTime timeout = 10 * GST_SECOND) {
        GstBus* bus = gst_element_get_bus(pipeline_);
        GstMessage* message = gst_bus_timed_pop_filtered(bus, timeout, types);
        gst_object_unref(bus);
        return message;
    }

    // True when the stream's end, and not an error, comes next on the bus.
    bool EndsInEos() {
        GstMessage* message = WaitFor(GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
        const bool eos = message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
        if (message != nullptr) {
            gst_message_unref(message);
        }
        return eos;
    }

    // The text of the first error on the bus within `timeout`; "" when none came.
    std::string ErrorText(GstClockTime timeout = 10 * GST_SECOND) {
        GstMessage* message = WaitFor(GST_MESSAGE_ERROR, timeout);
        if (message == nullptr) {
            return "";
        }
        GError* error = nullptr;
        gchar* debug = nullptr;
        gst_message_parse_error(message, &error, &debug);
        std::string text = error != nullptr ? error->message : "";
        g_clear_error(&error);
        g_free(debug);
        gst_message_unref(message);
        return text;
    }

private:
    GstElement* pipeline_ = nullptr;
};

// A sample pulled from an appsink within `timeout`; null at its end of stream or time-out.
inline GstSample* PullSample(GstElement* appsink, GstClockTime timeout = 5 * GST_SECOND) {
    GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(appsink), timeout);
    if (sample != nullptr) {
        TakeOverBuffer(gst_sample_get_buffer(sample));
    }
    return sample;
}

}  // namespace kvpcie::testing
