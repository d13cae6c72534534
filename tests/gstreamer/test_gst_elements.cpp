// kvpciesrc and kvpciesink on the in-process simulated card: negotiation, buffers and their
// metadata, lost frames, sharing cards, injection, and bounded state changes.
#include "GstTestSupport.h"

#include "../capture/CaptureTestSupport.h"

#include <KvPCIeInjectSdk/KvPCIeSharedCard.h>
#include <KvPCIeInjectSdk/KvPCIeStatisticsFields.h>

#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace kvpcie::testing {
namespace {

int TestCard() { return KvPCIeSim::XdmaCardNumbers().at(0); }

std::uint64_t CardRestarts() {
    KvPCIeSim::CardCounters counters{};
    KvPCIeSim::ReadCounters(TestCard(), counters);
    return counters.restarts;
}

// Milliseconds that taking the pipeline to NULL took.
double MillisecondsToNull(TestPipeline& pipeline) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(pipeline.SetState(GST_STATE_NULL));
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

guint64 StatsField(GstElement* element, const char* field) {
    GstStructure* stats = nullptr;
    g_object_get(element, "stats", &stats, nullptr);
    guint64 value = 0;
    if (stats == nullptr || !gst_structure_get_uint64(stats, field, &value)) {
        ADD_FAILURE() << "no " << field << " in the stats";
    }
    if (stats != nullptr) {
        gst_structure_free(stats);
    }
    return value;
}

// Every field of the library's table is in `stats`, with dashes; the card is not lost.
void ExpectEveryTableField(GstElement* element, const std::vector<std::string>& names) {
    GstStructure* stats = nullptr;
    g_object_get(element, "stats", &stats, nullptr);
    ASSERT_NE(stats, nullptr);
    for (std::string name : names) {
        std::replace(name.begin(), name.end(), '_', '-');
        EXPECT_TRUE(gst_structure_has_field(stats, name.c_str())) << name;
    }
    gboolean lost = TRUE;
    EXPECT_TRUE(gst_structure_get_boolean(stats, "card-lost", &lost));
    EXPECT_FALSE(lost);
    gint64 lostAt = -1;
    EXPECT_TRUE(gst_structure_get_int64(stats, "card-lost-at-ms", &lostAt));
    EXPECT_EQ(lostAt, 0);
    gst_structure_free(stats);
}

#define KVPCIE_TABLE_NAME(member, name, label, text) #name,
const std::vector<std::string> kCaptureTable = {
    KVPCIE_CAPTURE_STATISTICS_FIELDS(KVPCIE_TABLE_NAME)};
const std::vector<std::string> kInjectTable = {KVPCIE_INJECT_STATISTICS_FIELDS(KVPCIE_TABLE_NAME)};
#undef KVPCIE_TABLE_NAME

// The first QoS message on the bus within `timeout`: the buffers it counts as dropped, or -1.
gint64 QosDropped(TestPipeline& pipeline, GstClockTime timeout) {
    GstMessage* message = pipeline.WaitFor(GST_MESSAGE_QOS, timeout);
    if (message == nullptr) {
        return -1;
    }
    GstFormat format = GST_FORMAT_UNDEFINED;
    guint64 processed = 0;
    guint64 dropped = 0;
    gst_message_parse_qos_stats(message, &format, &processed, &dropped);
    gst_message_unref(message);
    return format == GST_FORMAT_BUFFERS ? gint64(dropped) : -1;
}

// The next sample of an appsink, copied out; false at its end of stream or after 5 s.
struct Pulled {
    std::vector<guint8> bytes;
    guint64 offset = 0;
    bool discont = false;
};

bool Pull(GstElement* appsink, Pulled& pulled) {
    GstSample* sample = PullSample(appsink);
    if (sample == nullptr) {
        return false;
    }
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    GstMapInfo map;
    pulled.bytes.clear();
    if (gst_buffer_map(buffer, &map, GST_MAP_READ)) {
        pulled.bytes.assign(map.data, map.data + map.size);
        gst_buffer_unmap(buffer, &map);
    } else {
        ADD_FAILURE() << "a buffer that cannot be mapped";
    }
    pulled.offset = GST_BUFFER_OFFSET(buffer);
    pulled.discont = GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT);
    DropSample(sample);
    return true;
}

// Samples until the end of the stream, each the card's frame of `channel` that its offset says.
int CountPatternSamples(TestPipeline& pipeline, const std::string& appsink, int channel) {
    int count = 0;
    for (Pulled pulled; Pull(pipeline.Element(appsink.c_str()), pulled); ++count) {
        EXPECT_TRUE(IsPatternFrame(reinterpret_cast<const char*>(pulled.bytes.data()),
                                   pulled.bytes.size(), channel, std::uint32_t(pulled.offset)))
            << appsink << ", offset " << pulled.offset;
    }
    return count;
}

struct Format {
    const char* name;
    int bytesPerPixel;
};

TEST(KvPcieSrc, EveryFormatNegotiatesAndEveryBufferIsTheCardsFrame) {
    ASSERT_TRUE(PrepareTestCard());
    for (const Format format : {Format{"UYVY", 2}, Format{"GRAY8", 1}, Format{"GRAY16_LE", 2},
                                Format{"BGR", 3}, Format{"BGRx", 4}}) {
        SCOPED_TRACE(format.name);
        GstHarness* harness = SourceHarness("kvpciesrc");
        gst_harness_set_sink_caps_str(
            harness, (std::string("video/x-raw,format=") + format.name + ",width=64,height=32")
                         .c_str());
        gst_harness_play(harness);
        for (int i = 0; i < 3; ++i) {
            GstBuffer* buffer = PullBuffer(harness);
            ASSERT_NE(buffer, nullptr);
            GstMapInfo map;
            ASSERT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
            EXPECT_EQ(map.size, gsize(64 * 32 * format.bytesPerPixel));
            // No frame is lost here, so the offset is the card's own frame number.
            EXPECT_TRUE(IsPatternFrame(reinterpret_cast<const char*>(map.data), map.size, 0,
                                       std::uint32_t(GST_BUFFER_OFFSET(buffer))))
                << "frame " << FrameNumberOf(reinterpret_cast<const char*>(map.data))
                << " at offset " << GST_BUFFER_OFFSET(buffer);
            gst_buffer_unmap(buffer, &map);
            DropBuffer(buffer);
        }
        GstCaps* caps = gst_pad_get_current_caps(harness->sinkpad);
        ASSERT_NE(caps, nullptr);
        EXPECT_STREQ(gst_structure_get_string(gst_caps_get_structure(caps, 0), "format"),
                     format.name);
        gst_caps_unref(caps);
        gst_harness_teardown(harness);
    }
}

TEST(KvPcieSrc, RowsOfAnUnpackedWidthLieAtGStreamersStride) {
    ASSERT_TRUE(PrepareTestCard());
    GstHarness* harness = SourceHarness("kvpciesrc");
    gst_harness_set_sink_caps_str(harness, "video/x-raw,format=GRAY8,width=30,height=8");
    gst_harness_play(harness);
    GstBuffer* buffer = PullBuffer(harness);
    ASSERT_NE(buffer, nullptr);
    GstVideoInfo info;
    GstCaps* caps = gst_pad_get_current_caps(harness->sinkpad);
    ASSERT_TRUE(gst_video_info_from_caps(&info, caps));
    gst_caps_unref(caps);
    GstVideoFrame frame;
    ASSERT_TRUE(gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ));
    const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
    EXPECT_EQ(stride, 32);
    std::vector<char> packed;
    for (int row = 0; row < 8; ++row) {
        const auto* line = static_cast<const char*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0)) +
                           row * stride;
        packed.insert(packed.end(), line, line + 30);
    }
    EXPECT_TRUE(IsPatternFrame(packed.data(), packed.size(), 0, FrameNumberOf(packed.data())));
    gst_video_frame_unmap(&frame);
    DropBuffer(buffer);
    gst_harness_teardown(harness);
}

TEST(KvPcieSrc, DefaultsTo640x480Gray8At25WhenDownstreamLeavesItOpen) {
    ASSERT_TRUE(PrepareTestCard());
    GstHarness* harness = SourceHarness("kvpciesrc");
    gst_harness_play(harness);
    GstBuffer* buffer = PullBuffer(harness);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(gst_buffer_get_size(buffer), gsize(640 * 480));
    DropBuffer(buffer);
    GstCaps* caps = gst_pad_get_current_caps(harness->sinkpad);
    ASSERT_NE(caps, nullptr);
    GstVideoInfo info;
    ASSERT_TRUE(gst_video_info_from_caps(&info, caps));
    EXPECT_EQ(GST_VIDEO_INFO_FORMAT(&info), GST_VIDEO_FORMAT_GRAY8);
    EXPECT_EQ(GST_VIDEO_INFO_WIDTH(&info), 640);
    EXPECT_EQ(GST_VIDEO_INFO_HEIGHT(&info), 480);
    EXPECT_EQ(GST_VIDEO_INFO_FPS_N(&info), 25);
    gst_caps_unref(caps);
    gst_harness_teardown(harness);
}

TEST(KvPcieSrc, WhatTheCardCannotDoIsRefusedSayingWhy) {
    ASSERT_TRUE(PrepareTestCard());
    const struct {
        const char* line;
        std::vector<const char*> says;
    } cases[] = {
        // Linked below without a check, as a downstream that changes its mind would be: the
        // refusal comes when the caps are negotiated.
        {"kvpciesrc name=src appsink name=out caps=video/x-raw,format=NV12",
         {"UYVY, GRAY8, GRAY16_LE, BGR or BGRx", "Y16&Y8 has no GStreamer format"}},
        {"kvpciesrc ! video/x-raw,format=BGRx,width=4096,height=2048 ! fakesink",
         {"would not start capturing 4096x2048"}},
        // A channel serves one element of each direction.
        {"kvpciesrc channel=3 ! fakesink kvpciesrc channel=3 ! fakesink",
         {"capture channel 3 of sim:xdma0 is taken by another element"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        TestPipeline pipeline(c.line);
        ASSERT_TRUE(pipeline.Valid());
        if (GstElement* out = pipeline.Element("out")) {
            ASSERT_TRUE(gst_element_link_pads_full(pipeline.Element("src"), "src", out, "sink",
                                                   GST_PAD_LINK_CHECK_NOTHING));
        }
        gst_element_set_state(pipeline.Get(), GST_STATE_PLAYING);
        const std::string error = pipeline.ErrorText();
        for (const char* text : c.says) {
            EXPECT_NE(error.find(text), std::string::npos) << error;
        }
    }
}

TEST(KvPcieSrc, NumBuffersEndsInEosAfterExactlyThatManyWithTimestampsAndOffsets) {
    ASSERT_TRUE(PrepareTestCard());
    for (const bool doTimestamp : {false, true}) {
        SCOPED_TRACE(doTimestamp ? "do-timestamp" : "arrival time");
        TestPipeline pipeline(std::string("kvpciesrc num-buffers=7 do-timestamp=") +
                              (doTimestamp ? "true" : "false") +
                              " ! video/x-raw,format=GRAY8,width=64,height=32 ! "
                              "appsink name=out sync=false");
        ASSERT_TRUE(pipeline.Valid());
        ASSERT_TRUE(pipeline.SetState(GST_STATE_PLAYING));
        int count = 0;
        GstClockTime previous = GST_CLOCK_TIME_NONE;
        while (GstSample* sample = PullSample(pipeline.Element("out"))) {
            GstBuffer* buffer = gst_sample_get_buffer(sample);
            EXPECT_EQ(GST_BUFFER_OFFSET(buffer), guint64(count));
            EXPECT_EQ(GST_BUFFER_DURATION(buffer), GST_SECOND / 25);
            EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT), count == 0);
            const GstClockTime time = GST_BUFFER_PTS(buffer);
            ASSERT_TRUE(GST_CLOCK_TIME_IS_VALID(time));
            if (doTimestamp) {
                EXPECT_TRUE(GST_CLOCK_TIME_IS_VALID(GST_BUFFER_DTS(buffer)));
            }
            if (GST_CLOCK_TIME_IS_VALID(previous)) {
                EXPECT_GT(time, previous);
            }
            previous = time;
            ++count;
            DropSample(sample);
        }
        EXPECT_EQ(count, 7);
        EXPECT_TRUE(pipeline.EndsInEos());
    }
}

TEST(KvPcieSrc, FramesTheCardFailedToDeliverMarkADiscontinuityAndAQosMessage) {
    ASSERT_TRUE(PrepareTestCard());
    TestPipeline pipeline(
        "kvpciesrc name=src channel=1 ! video/x-raw,format=GRAY8,width=64,height=32 ! "
        "appsink name=out sync=false");
    ASSERT_TRUE(pipeline.SetState(GST_STATE_PLAYING));
    Pulled pulled;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(Pull(pipeline.Element("out"), pulled));
    }
    guint64 lastOffset = pulled.offset;
    // The next two reads of the channel's card memory fail.
    ASSERT_TRUE(KvPCIeSim::PokeRegister(TestCard(), ControlBlock(1) + 0x24, 2));
    bool gapSeen = false;
    for (int i = 0; i < 10 && !gapSeen; ++i) {
        ASSERT_TRUE(Pull(pipeline.Element("out"), pulled));
        EXPECT_EQ(pulled.discont, pulled.offset != lastOffset + 1)
            << pulled.offset << " after " << lastOffset;
        if (pulled.offset != lastOffset + 1) {
            EXPECT_EQ(pulled.offset, lastOffset + 3);
            gapSeen = true;
        }
        lastOffset = pulled.offset;
    }
    EXPECT_TRUE(gapSeen);
    EXPECT_EQ(QosDropped(pipeline, GST_SECOND), 2);
    EXPECT_EQ(StatsField(pipeline.Element("src"), "frames-failed"), 2u);
    ExpectEveryTableField(pipeline.Element("src"), kCaptureTable);
}

TEST(KvPcieSrc, FramesWithNoFreeBufferAreCountedAsLostNotQueuedForever) {
    ASSERT_TRUE(PrepareTestCard());
    TestPipeline pipeline(
        "kvpciesrc name=src ! video/x-raw,format=GRAY8,width=64,height=32 ! "
        "appsink name=out sync=false max-buffers=1 drop=false");
    ASSERT_TRUE(pipeline.SetState(GST_STATE_PLAYING));
    // Nobody pulls for 60 frame periods: the pool's buffers run out, later frames are lost.
    g_usleep(2400 * 1000);
    EXPECT_GT(StatsField(pipeline.Element("src"), "frames-dropped-no-buffer"), 0u);
    Pulled pulled;
    guint64 previous = 0;
    bool gapSeen = false;
    for (int i = 0; i < 60 && !gapSeen; ++i) {
        ASSERT_TRUE(Pull(pipeline.Element("out"), pulled));
        if (i > 0 && pulled.offset != previous + 1) {
            EXPECT_TRUE(pulled.discont);
            gapSeen = true;
        }
        previous = pulled.offset;
    }
    EXPECT_TRUE(gapSeen);
    EXPECT_GT(QosDropped(pipeline, GST_SECOND), 0);
}

TEST(KvPcieSrc, FourSourcesCaptureFourChannelsOfOneOpenCard) {
    ASSERT_TRUE(PrepareTestCard());
    std::string line;
    for (int c = 0; c < 4; ++c) {
        line += "kvpciesrc channel=" + std::to_string(c) +
                " num-buffers=10 ! video/x-raw,format=GRAY8,width=64,height=32 ! appsink "
                "sync=false name=out" + std::to_string(c) + " ";
    }
    const std::uint64_t restarts = CardRestarts();
    TestPipeline pipeline(line);
    ASSERT_TRUE(pipeline.SetState(GST_STATE_PLAYING));
    EXPECT_EQ(CardRestarts(), restarts + 1);  // opened once for the four
    for (int c = 0; c < 4; ++c) {
        EXPECT_EQ(CountPatternSamples(pipeline, "out" + std::to_string(c), c), 10);
    }
}

// Two sources on two cards in one pipeline: each opens its own card and gets that card's frames.
TEST(KvPcieSrc, TwoSourcesOnTwoCardsInOnePipelineEachCaptureTheirOwn) {
    UnsetEnvironment("KVPCIE_SIM");
    ASSERT_TRUE(KvPCIeSim::Configure("xdma:2"));
    std::string line;
    for (int card = 0; card < 2; ++card) {
        line += "kvpciesrc device=sim:xdma" + std::to_string(card) +
                " channel=1 num-buffers=10 ! video/x-raw,format=GRAY8,width=64,height=32 ! "
                "appsink sync=false name=out" + std::to_string(card) + " ";
    }
    TestPipeline pipeline(line);
    ASSERT_TRUE(pipeline.SetState(GST_STATE_PLAYING));
    for (int card = 0; card < 2; ++card) {
        KvPCIeSim::CardCounters counters{};
        ASSERT_TRUE(KvPCIeSim::ReadCounters(card, counters));
        EXPECT_GE(counters.openFiles, 4u) << "card " << card << " was opened by its own source";
        EXPECT_EQ(CountPatternSamples(pipeline, "out" + std::to_string(card), 1), 10);
    }
}

// A card that goes away mid-stream ends the stream with an error on the bus that says so.
TEST(KvPcieSrc, ACardThatGoesAwayPostsAnErrorThatSaysSo) {
    ASSERT_TRUE(PrepareTestCard());
    TestPipeline pipeline(
        "kvpciesrc ! video/x-raw,format=GRAY8,width=64,height=32 ! appsink sync=false name=out");
    ASSERT_TRUE(pipeline.SetState(GST_STATE_PLAYING));
    Pulled pulled;
    for (int k = 0; k < 3; ++k) {
        ASSERT_TRUE(Pull(pipeline.Element("out"), pulled));
    }
    ASSERT_TRUE(KvPCIeSim::SetSurpriseRemoved(TestCard(), true));
    const std::string error = pipeline.ErrorText(5 * GST_SECOND);
    EXPECT_NE(error.find("is gone"), std::string::npos) << error;
    EXPECT_LT(MillisecondsToNull(pipeline), 5000.0);
    ASSERT_TRUE(KvPCIeSim::SetSurpriseRemoved(TestCard(), false));
}

// A host's lease and a source in the plugin meet the library's one card registry.
TEST(KvPcieElements, AnElementJoinsTheCardThatTheHostHoldsOpenWithChannelsRunning) {
    ASSERT_TRUE(PrepareTestCard());
    std::string why;
    std::unique_ptr<KvPCIe::SharedCard> host = KvPCIe::SharedCard::Acquire("", why);
    ASSERT_NE(host, nullptr) << why;
    ASSERT_TRUE(host->Claim(KvPCIe::SharedCard::Direction::Capture, 0));
    std::vector<char> frame(64 * 32);
    std::atomic<int> hostFrames{0};
    bool started = false;
    host->Run([&](PCIeDataManager& manager) {
        eErrorCode error = ERR_NONE;
        started = manager.StartCapture(
            0, false, 64, 32, Y8, error,
            [](int, const char*, void* count) { ++*static_cast<std::atomic<int>*>(count); },
            &hostFrames, frame.data());
        why = manager.LastErrorText();
    });
    ASSERT_TRUE(started) << why;
    {
        TestPipeline pipeline("kvpciesrc device=" + host->Path() +
                              " channel=0 ! fakesink kvpciesrc device=" + host->Path() +
                              " channel=1 num-buffers=5 ! video/x-raw,format=GRAY8,width=64,"
                              "height=32 ! appsink sync=false name=out");
        // Channel 0 is the host's: the first source is refused, saying so.
        ASSERT_TRUE(pipeline.Valid());
        gst_element_set_state(pipeline.Get(), GST_STATE_PLAYING);
        const std::string error = pipeline.ErrorText();
        EXPECT_NE(error.find("capture channel 0 of " + host->Path() + " is taken"),
                  std::string::npos)
            << error;
    }
    TestPipeline pipeline("kvpciesrc device=" + host->Path() +
                          " channel=1 num-buffers=5 ! video/x-raw,format=GRAY8,width=64,"
                          "height=32 ! appsink sync=false name=out");
    ASSERT_TRUE(pipeline.SetState(GST_STATE_PLAYING)) << pipeline.ErrorText();
    int count = 0;
    for (Pulled pulled; Pull(pipeline.Element("out"), pulled);) {
        ++count;
    }
    EXPECT_EQ(count, 5);
    host->Run([](PCIeDataManager& manager) { manager.StopCapture(0); });
    host->Unclaim(KvPCIe::SharedCard::Direction::Capture, 0);
    EXPECT_GT(hostFrames.load(), 0);
}

// A source of 64x32 GRAY16_LE frames whose every byte says which frame it is.
std::vector<std::vector<guint8>> NumberedFrames(int count) {
    std::vector<std::vector<guint8>> frames(count, std::vector<guint8>(64 * 32 * 2));
    for (int f = 0; f < count; ++f) {
        for (std::size_t k = 0; k < frames[f].size(); ++k) {
            frames[f][k] = guint8((k * 7 + std::size_t(f) * 31 + 1) % 251);
        }
    }
    return frames;
}

void PushFrames(GstElement* appsrc, const std::vector<std::vector<guint8>>& frames) {
    for (const auto& frame : frames) {
        GstBuffer* buffer = gst_buffer_new_memdup(frame.data(), frame.size());
        HandOver(buffer);
        ASSERT_EQ(gst_app_src_push_buffer(GST_APP_SRC(appsrc), buffer), GST_FLOW_OK);
    }
    ASSERT_EQ(gst_app_src_end_of_stream(GST_APP_SRC(appsrc)), GST_FLOW_OK);
}

std::uint32_t Played(int channel) {
    std::uint32_t played = 0;
    EXPECT_TRUE(KvPCIeSim::PeekRegister(TestCard(), ControlBlock(channel) + 0x10, played));
    return played;
}

// appsrc "in" feeding kvpciesink "sink", which plays the frames at `frameRate`.
std::string InjectLine(int frameRate, int channel) {
    return "appsrc name=in format=time caps=video/x-raw,format=GRAY16_LE,width=64,height=32,"
           "framerate=" + std::to_string(frameRate) + "/1 ! kvpciesink name=sink channel=" +
           std::to_string(channel);
}

TEST(KvPcieElements, LoopbackThroughTheCardIsByteExactApartFromTheCounterStamp) {
    ASSERT_TRUE(PrepareTestCard());
    constexpr int kChannel = 2;
    constexpr int kFrames = 40;
    // The card's capture channel 2 shows what inject channel 2 plays.
    ASSERT_TRUE(KvPCIeSim::PokeRegister(TestCard(), ControlBlock(kChannel), 1));
    const std::uint64_t restarts = CardRestarts();
    TestPipeline capture(
        "kvpciesrc channel=2 ! video/x-raw,format=GRAY16_LE,width=64,height=32 ! "
        "appsink name=out sync=false");
    TestPipeline inject(InjectLine(50, kChannel));
    ASSERT_TRUE(capture.SetState(GST_STATE_PLAYING));
    ASSERT_TRUE(inject.Play());
    EXPECT_EQ(CardRestarts(), restarts + 1);  // one card for both pipelines
    const auto frames = NumberedFrames(kFrames);
    PushFrames(inject.Element("in"), frames);
    int matched = 0;
    // Capture goes on after the injection's end, showing the last frame played: read up to it.
    bool lastSeen = false;
    Pulled pulled;
    for (int n = 0; n < 200 && !lastSeen; ++n) {
        ASSERT_TRUE(Pull(capture.Element("out"), pulled));
        const std::vector<guint8>& bytes = pulled.bytes;
        if (std::all_of(bytes.begin(), bytes.end(), [](guint8 b) { return b == 0; })) {
            continue;  // captured before the first injected frame was played
        }
        // The first pixel (2 bytes for GRAY16_LE) carries the frame's number from the start.
        const unsigned number = bytes[0] | (unsigned(bytes[1]) << 8);
        ASSERT_LT(number, unsigned(kFrames));
        lastSeen = number == kFrames - 1;
        EXPECT_TRUE(std::equal(bytes.begin() + 2, bytes.end(), frames[number].begin() + 2))
            << "captured frame " << number << " differs from the injected one";
        ++matched;
    }
    EXPECT_TRUE(inject.EndsInEos());
    EXPECT_TRUE(lastSeen);
    EXPECT_GE(matched, 10);
}

TEST(KvPcieSink, EndOfStreamWaitsUntilEveryQueuedFrameWasPlayed) {
    ASSERT_TRUE(PrepareTestCard());
    TestPipeline inject(InjectLine(100, 1));
    ASSERT_TRUE(inject.Play());
    PushFrames(inject.Element("in"), NumberedFrames(30));
    EXPECT_TRUE(inject.EndsInEos());
    GstElement* sink = inject.Element("sink");
    EXPECT_EQ(StatsField(sink, "frames-queued"), 30u);
    EXPECT_EQ(StatsField(sink, "frames-to-card"), 30u);
    EXPECT_EQ(StatsField(sink, "frames-dropped-at-stop"), 0u);
    ExpectEveryTableField(sink, kInjectTable);
    EXPECT_GE(Played(1), 30u);
}

// Pushes `count` 64x32 GRAY8 frames filled with `fill` into the sink of a harness.
void PushFilled(GstHarness* harness, guint8 fill, int count) {
    for (int n = 0; n < count; ++n) {
        const std::vector<guint8> frame(64 * 32, fill);
        GstBuffer* buffer = gst_buffer_new_memdup(frame.data(), frame.size());
        HandOver(buffer);
        ASSERT_EQ(gst_harness_push(harness, buffer), GST_FLOW_OK);
    }
}

TEST(KvPcieSink, AFlushPlaysNothingOfWhatCameBeforeIt) {
    ASSERT_TRUE(PrepareTestCard());
    constexpr int kChannel = 3;
    ASSERT_TRUE(KvPCIeSim::PokeRegister(TestCard(), ControlBlock(kChannel), 1));  // loopback
    TestPipeline capture("kvpciesrc channel=3 ! video/x-raw,format=GRAY8,width=64,height=32 ! "
                         "appsink name=out sync=false");
    ASSERT_TRUE(capture.SetState(GST_STATE_PLAYING));
    GstHarness* harness = gst_harness_new_parse("kvpciesink channel=3 sync=false");
    gst_harness_set_src_caps_str(harness,
                                 "video/x-raw,format=GRAY8,width=64,height=32,framerate=50/1");
    PushFilled(harness, 0xA0, 16);
    ASSERT_TRUE(WaitFor([] { return Played(kChannel) >= 16; }));
    // The flush; the stream goes on with a new segment and one new frame, then a whole ring's
    // worth of periods with nothing new, then more.
    ASSERT_TRUE(gst_harness_push_event(harness, gst_event_new_flush_start()));
    ASSERT_TRUE(gst_harness_push_event(harness, gst_event_new_flush_stop(TRUE)));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    ASSERT_TRUE(gst_harness_push_event(harness, gst_event_new_segment(&segment)));
    PushFilled(harness, 0xB0, 1);
    ASSERT_TRUE(WaitFor([] { return Played(kChannel) >= 10; }));
    PushFilled(harness, 0xB0, 10);
    // What the capture shows from the first frame of the new stream on.
    std::vector<int> shown;
    bool newSeen = false;
    Pulled pulled;
    for (int n = 0; n < 300 && shown.size() < 20; ++n) {
        ASSERT_TRUE(Pull(capture.Element("out"), pulled));
        const int fill = pulled.bytes.at(8);  // past the counter stamp
        newSeen = newSeen || fill == 0xB0;
        if (newSeen) {
            shown.push_back(fill);
        }
    }
    gst_harness_teardown(harness);
    ASSERT_FALSE(shown.empty());
    EXPECT_TRUE(std::all_of(shown.begin(), shown.end(), [](int fill) { return fill == 0xB0; }))
        << ::testing::PrintToString(shown);
}

TEST(KvPcieSink, AFullQueueHoldsTheStreamUntilAStateChangeInterruptsIt) {
    ASSERT_TRUE(PrepareTestCard());
    // 5 frames per second: 15 queued and 8 in the card's buffers, then render waits.
    TestPipeline inject(InjectLine(5, 0));
    ASSERT_TRUE(inject.Play());
    PushFrames(inject.Element("in"), NumberedFrames(40));
    GstElement* sink = inject.Element("sink");
    for (int i = 0; i < 200 && StatsField(sink, "frames-refused") == 0; ++i) {
        g_usleep(10 * 1000);
    }
    EXPECT_GT(StatsField(sink, "frames-refused"), 0u);
    EXPECT_LT(StatsField(sink, "frames-queued"), 40u);
    const double ms = MillisecondsToNull(inject);
    std::printf("PLAYING -> NULL with render waiting for room: %.1f ms\n", ms);
    EXPECT_LT(ms, 1000.0);
}

// Unlocking and stopping must not wait for a frame: a frame period (40 ms) and 100 ms.
TEST(KvPcieSrc, PlayingToNullIsBoundedWhetherFramesFlowOrNot) {
    ASSERT_TRUE(PrepareTestCard());
    {
        TestPipeline flowing("kvpciesrc ! video/x-raw,width=320,height=240 ! fakesink");
        ASSERT_TRUE(flowing.SetState(GST_STATE_PLAYING));
        g_usleep(300 * 1000);
        const double ms = MillisecondsToNull(flowing);
        std::printf("PLAYING -> NULL while frames flow: %.1f ms\n", ms);
        EXPECT_LT(ms, 140.0);
    }
    {
        // The channel's outside source sends nothing.
        ASSERT_TRUE(KvPCIeSim::PokeRegister(TestCard(), ControlBlock(0) + 0x04, 0));
        TestPipeline silent("kvpciesrc name=src card-timing=false ! fakesink");
        // The sink completes PLAYING with the first frame, which never comes.
        ASSERT_NE(gst_element_set_state(silent.Get(), GST_STATE_PLAYING),
                  GST_STATE_CHANGE_FAILURE);
        g_usleep(300 * 1000);
        EXPECT_EQ(StatsField(silent.Element("src"), "frames-delivered"), 0u);
        const double ms = MillisecondsToNull(silent);
        std::printf("PLAYING -> NULL with no frame coming: %.1f ms\n", ms);
        EXPECT_LT(ms, 140.0);
    }
}

}  // namespace
}  // namespace kvpcie::testing

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    gst_init(&argc, &argv);
    GError* error = nullptr;
    GstPlugin* plugin = gst_plugin_load_file(KVPCIE_GST_PLUGIN, &error);
    if (plugin == nullptr) {
        std::fprintf(stderr, "cannot load %s: %s\n", KVPCIE_GST_PLUGIN,
                     error != nullptr ? error->message : "?");
        return 1;
    }
    gst_object_unref(plugin);
    const int result = RUN_ALL_TESTS();
    gst_deinit();
    return result;
}
