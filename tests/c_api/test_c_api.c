/* The C interface from C99 (-pedantic -Werror), linked to the library alone as a C, C# or
   LabVIEW host is, on the simulated card. The exit status counts the failed checks. */
#include "CHostCheck.h"

#include <KvPCIeInjectSdk/kvpcie.h>

#include <stdlib.h>
#include <string.h>

static void Begin(const char* name) {
    currentCase = name;
    printf("case: %s\n", name);
}

/* Registers of the simulated card's control block for channel c. */
static uint32_t Control(int channel, uint32_t offset) {
    return 0x1F1000u + (uint32_t)channel * 0x1000u + offset;
}

/* A card of its own for each case: a fresh simulated card, no other listed. */
static kvpcie_card* FreshCard(void) {
    CHECK(kvpcie_sim_configure("xdma:1,riffa:1") == KVPCIE_OK);
    return kvpcie_open(NULL);
}

/* The channel's statistics, read as any thread may while frames arrive. */
static kvpcie_capture_statistics CaptureCounts(kvpcie_card* card, int channel) {
    kvpcie_capture_statistics statistics;
    memset(&statistics, 0, sizeof statistics);
    statistics.size = sizeof statistics;
    kvpcie_capture_statistics_get(card, channel, &statistics);
    return statistics;
}

/* Up to 5 s until the library counts `frames` frames and `statusBytes` status bytes. */
static int WaitForDeliveries(kvpcie_card* card, int channel, uint64_t frames,
                             uint64_t statusBytes) {
    int waited;
    for (waited = 0; waited < 5000; waited += 10) {
        const kvpcie_capture_statistics counts = CaptureCounts(card, channel);
        if (counts.frames_delivered >= frames && counts.status_bytes_delivered >= statusBytes) {
            return 1;
        }
        SleepMs(10);
    }
    return 0;
}

static void TheVersionAndTheFrameSizes(void) {
    Begin("the version and the frame sizes");
    CHECK(strlen(kvpcie_version()) >= 5);
    CHECK(kvpcie_frame_bytes(KVPCIE_UYVY422, 64, 32) == 64u * 32u * 2u);
    CHECK(kvpcie_frame_bytes(KVPCIE_BGR24, 10, 10) == 300u);
    CHECK(kvpcie_frame_bytes(KVPCIE_PIXEL32 + 1, 10, 10) == 0u);
    CHECK(kvpcie_frame_bytes(KVPCIE_Y8, 0, 10) == 0u);
}

static void NullHandlesAndPointersAreRefused(void) {
    uint32_t value = 0;
    unsigned char buffer[16];
    kvpcie_capture_statistics captureStatistics;
    kvpcie_inject_statistics injectStatistics;
    kvpcie_delay delays[8];
    int32_t count = 0;
    size_t row;
    kvpcie_card* card;
    /* Every function that takes a handle, with a null one. */
    const kvpcie_status nullHandle[] = {
        kvpcie_read_reg(NULL, 0, &value),
        kvpcie_write_reg(NULL, 0, 1),
        kvpcie_read_data(NULL, 0, buffer, sizeof buffer),
        kvpcie_write_data(NULL, 0, buffer, sizeof buffer),
        kvpcie_start_capture(NULL, 0, 0, 64, 32, KVPCIE_Y8, buffer, NULL, NULL),
        kvpcie_stop_capture(NULL, 0),
        kvpcie_start_record(NULL, 0),
        kvpcie_stop_record(NULL, 0),
        kvpcie_snapshot(NULL, 0),
        kvpcie_set_status_callback(NULL, 0, NULL, NULL),
        kvpcie_inject(NULL, 0, 25, 64, 32, KVPCIE_Y8, buffer),
        kvpcie_stop_inject(NULL, 0),
        kvpcie_send_command(NULL, 0, buffer, 1),
        kvpcie_capture_statistics_get(NULL, 0, &captureStatistics),
        kvpcie_inject_statistics_get(NULL, 0, &injectStatistics),
        kvpcie_capture_delays(NULL, 0, delays, 8, &count),
        kvpcie_inject_delays(NULL, 0, delays, 8, &count),
    };
    Begin("null handles and pointers are refused");
    for (row = 0; row < sizeof nullHandle / sizeof nullHandle[0]; ++row) {
        if (nullHandle[row] != KVPCIE_BAD_ARGUMENT) {
            ++failures;
            fprintf(stderr, "FAIL %s: row %u gave %d\n", currentCase, (unsigned)row,
                    (int)nullHandle[row]);
        }
    }
    CHECK(kvpcie_is_capturing(NULL, 0) == 0);
    CHECK(kvpcie_is_injecting(NULL, 0) == 0);
    CHECK(strcmp(kvpcie_card_path(NULL), "") == 0);
    kvpcie_close(NULL);
    CHECK(kvpcie_list_count(NULL) == 0);
    CHECK(kvpcie_list_path(NULL, 0) == NULL);
    kvpcie_list_free(NULL);
    CHECK(kvpcie_list_riffa(NULL, 1, &count) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_list_riffa(NULL, 0, NULL) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_set_record_root(NULL) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_sim_configure(NULL) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_sim_peek_register(0, 0, NULL) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_sim_peek_memory(0, 0, NULL, 4) == KVPCIE_BAD_ARGUMENT);

    /* And every pointer of a call on a good handle. */
    card = FreshCard();
    CHECK(card != NULL);
    CHECK(kvpcie_read_reg(card, 0, NULL) == KVPCIE_BAD_ARGUMENT);
    CHECK(strlen(kvpcie_last_error()) > 0);
    CHECK(kvpcie_read_data(card, 0, NULL, 4) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_write_data(card, 0, NULL, 4) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_start_capture(card, 0, 0, 64, 32, KVPCIE_Y8, NULL, NULL, NULL) ==
          KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_inject(card, 0, 25, 64, 32, KVPCIE_Y8, NULL) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_send_command(card, 0, NULL, 4) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_capture_statistics_get(card, 0, NULL) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_inject_statistics_get(card, 0, NULL) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_capture_delays(card, 0, NULL, 8, &count) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_inject_delays(card, 0, delays, 8, NULL) == KVPCIE_BAD_ARGUMENT);
    kvpcie_close(card);
}

static void BadArgumentsSayWhy(void) {
    kvpcie_card* card = FreshCard();
    unsigned char frame[64 * 32];
    unsigned char command[1025];
    Begin("bad arguments say why");
    CHECK(card != NULL);
    memset(frame, 0, sizeof frame);
    memset(command, 1, sizeof command);
    CHECK(kvpcie_start_capture(card, 7, 0, 64, 32, KVPCIE_Y8, frame, NULL, NULL) ==
          KVPCIE_BAD_ARGUMENT);
    CHECK(strstr(kvpcie_last_error(), "outside 0 to 3") != NULL);
    CHECK(kvpcie_inject(card, -1, 25, 64, 32, KVPCIE_Y8, frame) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_send_command(card, 0, command, sizeof command) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_send_command(card, 0, command, 0) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_start_capture(card, 0, 0, 0, 32, KVPCIE_Y8, frame, NULL, NULL) ==
          KVPCIE_NO_CARD);
    CHECK(strlen(kvpcie_last_error()) > 0);
    CHECK(kvpcie_inject(card, 0, 0, 64, 32, KVPCIE_Y8, frame) != KVPCIE_OK);
    CHECK(kvpcie_start_record(card, 2) == KVPCIE_ERROR); /* not capturing there */
    CHECK(kvpcie_sim_configure("xdma:99") == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_open("sim:xdma9") == NULL);
    CHECK(strlen(kvpcie_last_error()) > 0);
    /* The format is named before the missing buffer (kvpcie_frame_bytes gave 0 for it). */
    CHECK(kvpcie_start_capture(card, 0, 0, 64, 32, 9, NULL, NULL, NULL) == KVPCIE_NO_CARD);
    CHECK(strstr(kvpcie_last_error(), "pixel type 9") != NULL);
    CHECK(kvpcie_start_capture(card, 0, 0, 8000, 8000, KVPCIE_PIXEL32, NULL, NULL, NULL) ==
          KVPCIE_NO_CARD);
    CHECK(strstr(kvpcie_last_error(), "exceeds the 20 MiB card buffer") != NULL);
    CHECK(kvpcie_start_capture(card, 0, 0, 64, 32, KVPCIE_Y8, NULL, NULL, NULL) ==
          KVPCIE_BAD_ARGUMENT);
    CHECK(strstr(kvpcie_last_error(), "buffer is null") != NULL);
    /* A call that succeeds clears the text. */
    CHECK(kvpcie_stop_capture(card, 0) == KVPCIE_OK);
    CHECK(strcmp(kvpcie_last_error(), "") == 0);
    kvpcie_close(card);
}

static void ListingNamesTheSimulatedCards(void) {
    kvpcie_list* list;
    kvpcie_riffa_device devices[2];
    int32_t count = -1;
    Begin("listing names the simulated cards");
    CHECK(kvpcie_sim_configure("xdma:2,riffa:1") == KVPCIE_OK);
    list = kvpcie_list_xdma();
    CHECK(list != NULL);
    CHECK(kvpcie_list_count(list) == 2);
    CHECK(kvpcie_list_path(list, 0) != NULL && strcmp(kvpcie_list_path(list, 0), "sim:xdma0") == 0);
    CHECK(kvpcie_list_path(list, 1) != NULL && strcmp(kvpcie_list_path(list, 1), "sim:xdma1") == 0);
    CHECK(kvpcie_list_path(list, 2) == NULL);
    CHECK(kvpcie_list_path(list, -1) == NULL);
    kvpcie_list_free(list);

    memset(devices, 0x7F, sizeof devices);
    devices[0].size = sizeof devices[0];
    devices[1].size = sizeof devices[1];
    CHECK(kvpcie_list_riffa(devices, 2, &count) == KVPCIE_OK);
    CHECK(count == 1);
    CHECK(strcmp(devices[0].name, "KvSimRiffa") == 0);
    CHECK(devices[0].vendor_id == 0x10EE);
    CHECK(devices[1].id == 0x7F7F7F7F); /* beyond the count, untouched */
}

/* The record of an older version: size, id and channels only. */
typedef struct OlderRiffaDevice {
    uint32_t size;
    int32_t id;
    int32_t channels;
} OlderRiffaDevice;

static void AnOlderShorterRecordIsSteppedByItsOwnSize(void) {
    /* Two older records, then bytes that are not the caller's to write. */
    struct {
        OlderRiffaDevice devices[2];
        unsigned char guard[64];
    } records;
    int32_t count = -1;
    size_t i;
    int guardIntact = 1;
    Begin("an older, shorter RIFFA record is stepped by its own size");
    CHECK(kvpcie_sim_configure("xdma:1,riffa:2") == KVPCIE_OK);
    memset(&records, 0x5A, sizeof records);
    records.devices[0].size = sizeof(OlderRiffaDevice);
    records.devices[1].size = sizeof(OlderRiffaDevice);
    CHECK(kvpcie_list_riffa((kvpcie_riffa_device*)(void*)records.devices, 2, &count) ==
          KVPCIE_OK);
    CHECK(count == 2);
    CHECK(records.devices[0].size == sizeof(OlderRiffaDevice) && records.devices[0].id == 0);
    CHECK(records.devices[1].size == sizeof(OlderRiffaDevice) && records.devices[1].id == 1);
    CHECK(records.devices[0].channels > 0 && records.devices[1].channels > 0);
    for (i = 0; i < sizeof records.guard; ++i) {
        guardIntact = guardIntact && records.guard[i] == 0x5A;
    }
    CHECK(guardIntact);
    /* Records of different sizes in one array cannot be stepped through. */
    records.devices[1].size = 4;
    CHECK(kvpcie_list_riffa((kvpcie_riffa_device*)(void*)records.devices, 2, &count) ==
          KVPCIE_BAD_ARGUMENT);
}

static void RegistersAndMemoryOfXdmaAndRiffa(void) {
    kvpcie_card* card = FreshCard();
    kvpcie_card* riffa;
    uint32_t value = 0;
    unsigned char out[256];
    unsigned char back[256];
    int i;
    Begin("registers and memory of XDMA and RIFFA");
    CHECK(card != NULL);
    CHECK(strcmp(kvpcie_card_path(card), "sim:xdma0") == 0);
    CHECK(kvpcie_read_reg(card, 0x1F0000, &value) == KVPCIE_OK && value == 0x53494D31u);
    CHECK(kvpcie_write_reg(card, Control(1, 0x04), 40) == KVPCIE_OK);
    CHECK(kvpcie_read_reg(card, Control(1, 0x04), &value) == KVPCIE_OK && value == 40u);
    for (i = 0; i < 256; ++i) {
        out[i] = (unsigned char)(i * 7 + 3);
    }
    CHECK(kvpcie_write_data(card, 0x50000000u, out, sizeof out) == KVPCIE_OK);
    CHECK(kvpcie_read_data(card, 0x50000000u, back, sizeof back) == KVPCIE_OK);
    CHECK(memcmp(out, back, sizeof out) == 0);
    CHECK(kvpcie_sim_peek_memory(0, 0x50000000u, back, sizeof back) == KVPCIE_OK);
    CHECK(memcmp(out, back, sizeof out) == 0);
    CHECK(kvpcie_read_data(card, 0x80000000u, back, 4) == KVPCIE_ERROR);

    riffa = kvpcie_open_riffa(0);
    CHECK(riffa != NULL);
    CHECK(kvpcie_read_reg(riffa, 0x1F0000, &value) == KVPCIE_OK && value == 0x53494D31u);
    CHECK(kvpcie_write_reg(riffa, 0x2000, 0x1234) == KVPCIE_OK);
    CHECK(kvpcie_read_reg(riffa, 0x2000, &value) == KVPCIE_OK && value == 0x1234u);
    CHECK(kvpcie_read_data(riffa, 0, back, 4) == KVPCIE_WRONG_KIND);
    CHECK(kvpcie_start_capture(riffa, 0, 0, 64, 32, KVPCIE_Y8, back, NULL, NULL) ==
          KVPCIE_WRONG_KIND);
    CHECK(kvpcie_open_riffa(3) == NULL);
    kvpcie_close(riffa);
    kvpcie_close(card);
}

/* Written by the callbacks, read by the case once a stop or close has ended them. */
typedef struct Seen {
    int frames;
    int wrong; /* frames whose bytes or description were not as expected */
    int channel;
    kvpcie_card* card; /* for callbacks that call back in */
    int stopResult;
    unsigned char first[64 * 32]; /* the first looped-back frame's bytes */
} Seen;

/* The card's test pattern of frame n on channel c: bytes 0-3 n, 4-7 c, k >= 8: (k + n) % 256. */
static int IsPattern(const unsigned char* bytes, uint64_t size, int channel) {
    const uint32_t number = (uint32_t)bytes[0] | (uint32_t)bytes[1] << 8 |
                            (uint32_t)bytes[2] << 16 | (uint32_t)bytes[3] << 24;
    uint64_t k;
    for (k = 8; k < size; ++k) {
        if (bytes[k] != (unsigned char)((k + number) % 256u)) {
            return 0;
        }
    }
    return bytes[4] == (unsigned char)channel;
}

static void CheckPattern(const kvpcie_frame* frame, void* context) {
    Seen* seen = (Seen*)context;
    if (frame->size < sizeof(kvpcie_frame) || frame->channel != seen->channel ||
        frame->bytes != 64u * 32u || frame->width != 64 || frame->height != 32 ||
        frame->pixel_type != KVPCIE_Y8 ||
        !IsPattern((const unsigned char*)frame->data, frame->bytes, seen->channel)) {
        ++seen->wrong;
    }
    ++seen->frames;
}

static void CaptureDeliversTheCardsPatternByteForByte(void) {
    static Seen seen;
    static unsigned char buffer[64 * 32];
    kvpcie_card* card = FreshCard();
    kvpcie_capture_statistics statistics;
    Begin("capture delivers the card's pattern byte for byte");
    memset(&seen, 0, sizeof seen);
    seen.channel = 2;
    CHECK(card != NULL);
    CHECK(kvpcie_write_reg(card, Control(2, 0x04), 200) == KVPCIE_OK); /* 200 frames a second */
    CHECK(kvpcie_start_capture(card, 2, 0, 64, 32, KVPCIE_Y8, buffer, CheckPattern, &seen) ==
          KVPCIE_OK);
    CHECK(kvpcie_is_capturing(card, 2) == 1);
    CHECK(WaitForDeliveries(card, 2, 5, 0));
    CHECK(kvpcie_stop_capture(card, 2) == KVPCIE_OK);
    CHECK(kvpcie_is_capturing(card, 2) == 0);
    CHECK(seen.wrong == 0);

    memset(&statistics, 0, sizeof statistics);
    statistics.size = sizeof statistics;
    CHECK(kvpcie_capture_statistics_get(card, 2, &statistics) == KVPCIE_OK);
    CHECK(statistics.size == sizeof statistics);
    CHECK(statistics.frames_delivered == (uint64_t)seen.frames);
    CHECK(statistics.frames_failed == 0u);
    /* An older caller with a shorter record: only what it holds is written. */
    memset(&statistics, 0xAB, sizeof statistics);
    statistics.size = 16;
    CHECK(kvpcie_capture_statistics_get(card, 2, &statistics) == KVPCIE_OK);
    CHECK(statistics.size == 16 && statistics.frames_delivered == (uint64_t)seen.frames);
    CHECK(statistics.frames_failed == 0xABABABABABABABABull);
    statistics.size = 0;
    CHECK(kvpcie_capture_statistics_get(card, 2, &statistics) == KVPCIE_BAD_ARGUMENT);
    kvpcie_close(card);
}

/* As a LabVIEW or MATLAB host captures, without a callback: records, time-outs, losses as gaps
   in the sequence, and after a stop the frames that waited, then KVPCIE_STOPPED. */
static void PulledFramesComeWithTheirRecordsAndLossesShow(void) {
    static unsigned char buffer[64 * 32];
    kvpcie_pulled_frame frame;
    uint64_t previous = 0;
    int pulled;
    int wrong = 0;
    kvpcie_card* card = FreshCard();
    Begin("pulled frames come with their records, and losses show");
    CHECK(card != NULL);
    /* The README's LabVIEW and MATLAB sequences set this size by hand. */
    CHECK(sizeof(kvpcie_pulled_frame) == 56);
    CHECK(kvpcie_write_reg(card, Control(1, 0x04), 0) == KVPCIE_OK); /* no frames yet */
    CHECK(kvpcie_start_pull(card, 1, 0, 64, 32, KVPCIE_Y8, 0) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_start_pull(card, 1, 0, 64, 32, KVPCIE_Y8, 4) == KVPCIE_OK);
    CHECK(kvpcie_is_capturing(card, 1) == 1);
    memset(&frame, 0, sizeof frame);
    frame.size = sizeof frame;
    CHECK(kvpcie_pull(card, 1, buffer, sizeof buffer, &frame, 20) == KVPCIE_TIMEOUT);
    CHECK(kvpcie_pull(card, 0, buffer, sizeof buffer, &frame, 0) == KVPCIE_ERROR);
    CHECK(kvpcie_pull(card, 1, buffer, sizeof buffer - 1, &frame, 0) == KVPCIE_BAD_ARGUMENT);

    CHECK(kvpcie_write_reg(card, Control(1, 0x04), 200) == KVPCIE_OK);
    for (pulled = 0; pulled < 10; ++pulled) {
        CHECK(kvpcie_pull(card, 1, buffer, sizeof buffer, &frame, 2000) == KVPCIE_OK);
        wrong += !IsPattern(buffer, sizeof buffer, 1);
        CHECK(frame.size == sizeof frame && frame.channel == 1 && frame.bytes == sizeof buffer);
        CHECK(frame.width == 64 && frame.height == 32 && frame.pixel_type == KVPCIE_Y8);
        CHECK(frame.received_ns > 0 && (pulled == 0 || frame.sequence > previous));
        previous = frame.sequence;
    }
    CHECK(wrong == 0);
    /* Not pulled for a while: the queue keeps the newest four, the rest are lost. */
    SleepMs(200);
    CHECK(kvpcie_pull(card, 1, buffer, sizeof buffer, &frame, 0) == KVPCIE_OK);
    CHECK(frame.sequence > previous + 4 && frame.frames_lost > 0);
    CHECK(frame.frames_lost + 10 + 4 >= frame.sequence);

    CHECK(kvpcie_stop_capture(card, 1) == KVPCIE_OK);
    while (kvpcie_pull(card, 1, buffer, sizeof buffer, NULL, 0) == KVPCIE_OK) {
    }
    CHECK(kvpcie_pull(card, 1, buffer, sizeof buffer, &frame, 1000) == KVPCIE_STOPPED);
    kvpcie_close(card);
}

/* The line period (register 0x020 of the inject block) and the parameter line reach the card. */
static void TheWholeInjectFormatReachesTheCard(void) {
    static unsigned char frame[64 * 33];
    unsigned char params[78];
    kvpcie_inject_format format;
    uint32_t value = 0;
    kvpcie_card* card = FreshCard();
    const uint32_t block = 0x111000u + 2u * 0x1000u;
    Begin("the whole inject format reaches the card");
    CHECK(card != NULL);
    memset(&format, 0, sizeof format);
    format.size = sizeof format;
    format.frame_rate = 50;
    format.width = 64;
    format.height = 32;
    format.pixel_type = KVPCIE_Y8;
    format.line_period = 1234;
    CHECK(kvpcie_inject_with_format(card, 2, &format, frame) == KVPCIE_OK);
    CHECK(kvpcie_sim_peek_register(0, block + 0x020, &value) == KVPCIE_OK && value == 1234);
    CHECK(kvpcie_sim_peek_register(0, block + 0x004, &value) == KVPCIE_OK &&
          value == (64u << 16 | 32u));
    CHECK(kvpcie_stop_inject(card, 2) == KVPCIE_OK);
    /* kvpcie_inject leaves the line period to the card. */
    CHECK(kvpcie_inject(card, 2, 50, 64, 32, KVPCIE_Y8, frame) == KVPCIE_OK);
    CHECK(kvpcie_sim_peek_register(0, block + 0x020, &value) == KVPCIE_OK && value == 0);
    CHECK(kvpcie_stop_inject(card, 2) == KVPCIE_OK);

    memset(params, 7, sizeof params);
    CHECK(kvpcie_set_param_simulate(card, 2, 1, params, 77) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_set_param_simulate(card, 2, 1, params, sizeof params) == KVPCIE_OK);
    CHECK(kvpcie_inject(card, 2, 50, 64, 32, KVPCIE_Y8, frame) == KVPCIE_OK);
    CHECK(kvpcie_sim_peek_register(0, block + 0x004, &value) == KVPCIE_OK &&
          value == (64u << 16 | 33u));
    CHECK(kvpcie_stop_inject(card, 2) == KVPCIE_OK);
    format.size = 4; /* too short to say anything */
    CHECK(kvpcie_inject_with_format(card, 2, &format, frame) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_inject_with_format(card, 2, NULL, frame) == KVPCIE_BAD_ARGUMENT);

    CHECK(kvpcie_set_save_log(card, 1) == KVPCIE_OK);
    CHECK(kvpcie_set_save_log(card, 0) == KVPCIE_OK);
    CHECK(kvpcie_set_display_delay_test(card, 1, 1) == KVPCIE_OK);
    CHECK(kvpcie_set_display_delay_test(card, 4, 1) == KVPCIE_BAD_ARGUMENT);
    kvpcie_close(card);
}

static void StopOwnChannel(const kvpcie_frame* frame, void* context) {
    Seen* seen = (Seen*)context;
    ++seen->frames;
    seen->stopResult = kvpcie_stop_capture(seen->card, frame->channel);
    /* A start would wait for the card thread: refused, not a deadlock. */
    if (kvpcie_start_record(seen->card, frame->channel) != KVPCIE_ERROR) {
        ++seen->wrong;
    }
}

static void ACallbackThatStopsItsOwnChannelGetsNoFurtherFrame(void) {
    static Seen seen;
    static unsigned char buffer[64 * 32];
    kvpcie_card* card = FreshCard();
    Begin("a callback that stops its own channel gets no further frame");
    memset(&seen, 0, sizeof seen);
    seen.card = card;
    seen.stopResult = -100;
    CHECK(card != NULL);
    CHECK(kvpcie_write_reg(card, Control(0, 0x04), 200) == KVPCIE_OK);
    CHECK(kvpcie_start_capture(card, 0, 0, 64, 32, KVPCIE_Y8, buffer, StopOwnChannel, &seen) ==
          KVPCIE_OK);
    CHECK(WaitForDeliveries(card, 0, 1, 0));
    SleepMs(100); /* twenty frame periods */
    CHECK(kvpcie_is_capturing(card, 0) == 0);
    CHECK(CaptureCounts(card, 0).frames_delivered == 1u);
    /* The channel is free again for a new start. */
    CHECK(kvpcie_start_capture(card, 0, 0, 64, 32, KVPCIE_Y8, buffer, NULL, NULL) == KVPCIE_OK);
    kvpcie_close(card); /* its polling thread has ended: the callback's record may be read */
    CHECK(seen.frames == 1);
    CHECK(seen.stopResult == KVPCIE_OK);
    CHECK(seen.wrong == 0);
}

/* What a frame callback got from the calls that would wait for the card thread. */
typedef struct Refusals {
    kvpcie_card* riffa;
    kvpcie_card* xdma;
    int calls; /* callbacks that made the calls */
    int taken; /* calls that were taken instead of refused */
    int silent; /* refusals without a text */
} Refusals;

static void CountRefusal(Refusals* refusals, int refused) {
    if (!refused) {
        ++refusals->taken;
    } else if (strstr(kvpcie_last_error(), "frame callback") == NULL) {
        ++refusals->silent;
    }
}

static void CallWhatWaitsForTheCardThread(const kvpcie_frame* frame, void* context) {
    Refusals* refusals = (Refusals*)context;
    kvpcie_riffa_device device;
    int32_t count = 0;
    uint32_t value = 0;
    kvpcie_list* list;
    kvpcie_card* opened;
    char take[256];
    (void)frame;
    if (refusals->calls > 0) {
        return;
    }
    ++refusals->calls;
    list = kvpcie_list_xdma();
    CountRefusal(refusals, list == NULL);
    kvpcie_list_free(list);
    memset(&device, 0, sizeof device);
    device.size = sizeof device;
    CountRefusal(refusals, kvpcie_list_riffa(&device, 1, &count) == KVPCIE_ERROR);
    opened = kvpcie_open_riffa(0);
    CountRefusal(refusals, opened == NULL);
    kvpcie_close(opened);
    CountRefusal(refusals, kvpcie_sim_configure("1") == KVPCIE_ERROR);
    CountRefusal(refusals,
                 kvpcie_record_take_folder(refusals->xdma, 0, take, sizeof take) == KVPCIE_ERROR);
    CountRefusal(refusals, kvpcie_read_reg(refusals->riffa, 0x1F0000, &value) == KVPCIE_ERROR);
    opened = kvpcie_open("sim:xdma0");
    CountRefusal(refusals, opened == NULL);
    kvpcie_close(opened);
}

static void CallsThatWaitForTheCardThreadAreRefusedInAFrameCallback(void) {
    static Refusals refusals;
    static unsigned char buffer[64 * 32];
    kvpcie_card* card = FreshCard();
    Begin("calls that wait for the card thread are refused in a frame callback");
    memset(&refusals, 0, sizeof refusals);
    refusals.riffa = kvpcie_open_riffa(0);
    refusals.xdma = card;
    CHECK(card != NULL && refusals.riffa != NULL);
    CHECK(kvpcie_write_reg(card, Control(0, 0x04), 200) == KVPCIE_OK);
    CHECK(kvpcie_start_capture(card, 0, 0, 64, 32, KVPCIE_Y8, buffer,
                               CallWhatWaitsForTheCardThread, &refusals) == KVPCIE_OK);
    CHECK(WaitForDeliveries(card, 0, 2, 0));
    CHECK(kvpcie_stop_capture(card, 0) == KVPCIE_OK);
    CHECK(refusals.calls == 1);
    CHECK(refusals.taken == 0);
    CHECK(refusals.silent == 0);
    kvpcie_close(refusals.riffa);
    kvpcie_close(card);
}

static void KeepFirst(const kvpcie_frame* frame, void* context) {
    Seen* seen = (Seen*)context;
    const unsigned char* bytes = (const unsigned char*)frame->data;
    /* Injected byte k is (k * 3 + 1) % 256; frames before the first play are blank. */
    if (bytes[10] == 31 && bytes[100] == (unsigned char)(100 * 3 + 1) && seen->frames == 0) {
        memcpy(seen->first, bytes, sizeof seen->first);
        seen->frames = 1;
    }
}

static void InjectedFramesComeBackInTheLoopback(void) {
    static Seen seen;
    static unsigned char buffer[64 * 32];
    static unsigned char frame[64 * 32];
    kvpcie_card* card = FreshCard();
    kvpcie_inject_statistics statistics;
    kvpcie_delay delays[8];
    int32_t filled = 0;
    int i;
    int waited;
    Begin("injected frames come back in the loopback");
    memset(&seen, 0, sizeof seen);
    CHECK(card != NULL);
    for (i = 0; i < (int)sizeof frame; ++i) {
        frame[i] = (unsigned char)(i * 3 + 1);
    }
    CHECK(kvpcie_write_reg(card, Control(1, 0x00), 1) == KVPCIE_OK); /* loopback source */
    CHECK(kvpcie_write_reg(card, Control(1, 0x04), 100) == KVPCIE_OK);
    CHECK(kvpcie_start_capture(card, 1, 0, 64, 32, KVPCIE_Y8, buffer, KeepFirst, &seen) ==
          KVPCIE_OK);
    for (i = 0; i < 10; ++i) {
        CHECK(kvpcie_inject(card, 1, 100, 64, 32, KVPCIE_Y8, frame) == KVPCIE_OK);
    }
    CHECK(kvpcie_is_injecting(card, 1) == 1);
    memset(&statistics, 0, sizeof statistics);
    statistics.size = sizeof statistics;
    for (waited = 0; waited < 5000 && statistics.frames_to_card < 10u; waited += 10) {
        SleepMs(10);
        CHECK(kvpcie_inject_statistics_get(card, 1, &statistics) == KVPCIE_OK);
    }
    CHECK(statistics.frames_queued == 10u && statistics.frames_to_card == 10u);
    /* Ten more frame periods, so that played frames have come round the loop. */
    CHECK(WaitForDeliveries(card, 1, CaptureCounts(card, 1).frames_delivered + 10, 0));
    CHECK(kvpcie_inject_delays(card, 1, delays, 8, &filled) == KVPCIE_OK && filled == 8);
    CHECK(kvpcie_capture_delays(card, 1, delays, 3, &filled) == KVPCIE_OK && filled == 3);
    CHECK(kvpcie_stop_capture(card, 1) == KVPCIE_OK);
    CHECK(kvpcie_stop_inject(card, 1) == KVPCIE_OK);
    CHECK(kvpcie_is_injecting(card, 1) == 0);
    CHECK(seen.frames == 1);
    /* The first pixel carries the frame's counter stamp; every other byte is the frame's. */
    CHECK(memcmp(seen.first + 1, frame + 1, sizeof frame - 1) == 0);
    kvpcie_close(card);
}

/* Takes go below the chosen root, and the handle says where: "" before the first take, the
   take's folder while it runs and after it stopped. */
static void TheTakeFolderIsBelowTheChosenRoot(void) {
    static unsigned char buffer[64 * 32];
    char root[512];
    char take[512];
    char tiny[4];
    kvpcie_card* card = FreshCard();
    Begin("the take folder is below the chosen root");
    CHECK(card != NULL);
    CHECK(kvpcie_set_record_root("c_api_takes") == KVPCIE_OK);
    CHECK(kvpcie_record_root(root, sizeof root) == KVPCIE_OK);
    CHECK(strstr(root, "c_api_takes") != NULL);
    CHECK(kvpcie_record_root(tiny, sizeof tiny) == KVPCIE_BAD_ARGUMENT);
    CHECK(strstr(kvpcie_last_error(), "needs") != NULL);
    CHECK(kvpcie_record_root(NULL, 16) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_record_take_folder(card, 2, take, sizeof take) == KVPCIE_OK);
    CHECK(strcmp(take, "") == 0);
    CHECK(kvpcie_record_take_folder(card, 4, take, sizeof take) == KVPCIE_BAD_ARGUMENT);

    CHECK(kvpcie_start_capture(card, 2, 0, 64, 32, KVPCIE_Y8, buffer, NULL, NULL) == KVPCIE_OK);
    CHECK(kvpcie_start_record(card, 2) == KVPCIE_OK);
    CHECK(WaitForDeliveries(card, 2, 3, 0));
    CHECK(kvpcie_record_take_folder(card, 2, take, sizeof take) == KVPCIE_OK);
    CHECK(strncmp(take, root, strlen(root)) == 0 && strstr(take, "Capture3") != NULL);
    CHECK(kvpcie_record_take_folder(card, 2, tiny, sizeof tiny) == KVPCIE_BAD_ARGUMENT);
    CHECK(kvpcie_stop_record(card, 2) == KVPCIE_OK);
    CHECK(kvpcie_stop_capture(card, 2) == KVPCIE_OK);
    CHECK(kvpcie_record_take_folder(card, 2, root, sizeof root) == KVPCIE_OK);
    CHECK(strcmp(root, take) == 0);
    CHECK(kvpcie_set_record_root("") == KVPCIE_OK);
    kvpcie_close(card);
}

typedef struct StatusSeen {
    int blocks;
    size_t bytes;
    int channel;
    unsigned char data[64];
} StatusSeen;

static void KeepStatus(int32_t channel, const void* data, size_t bytes, void* context) {
    StatusSeen* seen = (StatusSeen*)context;
    seen->channel = channel;
    seen->bytes = bytes;
    memcpy(seen->data, data, bytes < sizeof seen->data ? bytes : sizeof seen->data);
    ++seen->blocks;
}

static void StatusBlocksReachTheCallbackWithoutAnEventLoop(void) {
    static StatusSeen seen;
    static unsigned char buffer[64 * 32];
    kvpcie_card* card = FreshCard();
    uint32_t word;
    Begin("status blocks reach the callback without an event loop");
    memset(&seen, 0, sizeof seen);
    CHECK(card != NULL);
    CHECK(kvpcie_start_capture(card, 3, 0, 64, 32, KVPCIE_Y8, buffer, NULL, NULL) == KVPCIE_OK);
    CHECK(kvpcie_set_status_callback(card, 3, KeepStatus, &seen) == KVPCIE_OK);
    for (word = 0; word < 3; ++word) {
        CHECK(kvpcie_write_reg(card, Control(3, 0x400 + 4 * word), 0xC0DE0000u + word) ==
              KVPCIE_OK);
    }
    CHECK(kvpcie_write_reg(card, Control(3, 0x28), 12) == KVPCIE_OK); /* post 12 bytes */
    CHECK(WaitForDeliveries(card, 3, 0, 12));
    /* Switched off on the card thread, after which its record may be read. */
    CHECK(kvpcie_set_status_callback(card, 3, NULL, NULL) == KVPCIE_OK);
    CHECK(seen.blocks == 1 && seen.channel == 3 && seen.bytes == 12u);
    CHECK(seen.data[0] == 0x00 && seen.data[2] == 0xDE && seen.data[4] == 0x01);
    kvpcie_close(card);
}

static void TwoHandlesShareOneCardButNotOneChannel(void) {
    static unsigned char buffer[64 * 32];
    kvpcie_card* first = FreshCard();
    kvpcie_card* second = kvpcie_open("sim:xdma0");
    uint32_t value = 0;
    Begin("two handles share one card but not one channel");
    CHECK(first != NULL && second != NULL);
    CHECK(kvpcie_start_capture(first, 0, 0, 64, 32, KVPCIE_Y8, buffer, NULL, NULL) == KVPCIE_OK);
    CHECK(kvpcie_start_capture(second, 0, 0, 64, 32, KVPCIE_Y8, buffer, NULL, NULL) ==
          KVPCIE_IN_USE);
    /* A path not listed is no such card, while a card captures too. */
    CHECK(kvpcie_open("sim:xdma7") == NULL);
    CHECK(strstr(kvpcie_last_error(), "no such card") != NULL);
    CHECK(kvpcie_write_reg(second, Control(0, 0x1C), 77) == KVPCIE_OK);
    kvpcie_close(first); /* the card stays open for the second handle */
    CHECK(kvpcie_read_reg(second, Control(0, 0x1C), &value) == KVPCIE_OK && value == 77u);
    CHECK(kvpcie_start_capture(second, 0, 0, 64, 32, KVPCIE_Y8, buffer, NULL, NULL) ==
          KVPCIE_OK);
    kvpcie_close(second);
}

int main(void) {
    /* Unbuffered, so that a case that hangs shows where. */
    setvbuf(stdout, NULL, _IONBF, 0);
    TheVersionAndTheFrameSizes();
    NullHandlesAndPointersAreRefused();
    BadArgumentsSayWhy();
    ListingNamesTheSimulatedCards();
    RegistersAndMemoryOfXdmaAndRiffa();
    CaptureDeliversTheCardsPatternByteForByte();
    PulledFramesComeWithTheirRecordsAndLossesShow();
    TheWholeInjectFormatReachesTheCard();
    ACallbackThatStopsItsOwnChannelGetsNoFurtherFrame();
    InjectedFramesComeBackInTheLoopback();
    StatusBlocksReachTheCallbackWithoutAnEventLoop();
    TwoHandlesShareOneCardButNotOneChannel();
    AnOlderShorterRecordIsSteppedByItsOwnSize();
    CallsThatWaitForTheCardThreadAreRefusedInAFrameCallback();
    TheTakeFolderIsBelowTheChosenRoot();
    printf("%s: %d failure(s)\n", failures == 0 ? "PASS" : "FAIL", failures);
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
