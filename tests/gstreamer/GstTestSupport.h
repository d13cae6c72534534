// Pipelines for the plugin's suites: built from a launch line, run on the in-process simulated
// card, read through appsinks and the bus, always taken down to NULL.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <gtest/gtest.h>

#include <string>

namespace kvpcie::testing {

class TestPipeline {
public:
    explicit TestPipeline(const std::string& launchLine) {
        GError* error = nullptr;
        pipeline_ = gst_parse_launch(launchLine.c_str(), &error);
        if (error != nullptr) {
            ADD_FAILURE() << launchLine << ": " << error->message;
            g_error_free(error);
        }
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
    return gst_app_sink_try_pull_sample(GST_APP_SINK(appsink), timeout);
}

}  // namespace kvpcie::testing
