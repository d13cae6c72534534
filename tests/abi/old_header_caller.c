/* A host built against the C interface as it was first published (abi/0.2.0/kvpcie.h), run
   with today's library: its records, callbacks and calls must work unchanged. It loops frames
   through the simulated card as a bench host would and checks them byte for byte. */
#include "../c_api/CHostCheck.h"

#include "kvpcie.h"

#include <string.h>

enum { kWidth = 64, kHeight = 32, kChannel = 1 };

typedef struct Seen {
    int matching;
    int wrongRecord;
} Seen;

/* Byte k of an injected frame is (k * 3 + 1) mod 256; the card stamps its counter over the
   first pixel. Frames before the first one played are blank. */
static void OnFrame(const kvpcie_frame* frame, void* context) {
    Seen* seen = (Seen*)context;
    const unsigned char* bytes = (const unsigned char*)frame->data;
    size_t k;
    int same = 1;
    if (frame->size < sizeof(kvpcie_frame) || frame->channel != kChannel ||
        frame->bytes != (uint64_t)kWidth * kHeight || frame->width != kWidth ||
        frame->height != kHeight || frame->pixel_type != KVPCIE_Y8) {
        ++seen->wrongRecord;
        return;
    }
    for (k = 1; same && k < frame->bytes; ++k) {
        same = bytes[k] == (unsigned char)(k * 3 + 1);
    }
    seen->matching += same;
}

int main(void) {
    static unsigned char captureBuffer[kWidth * kHeight];
    static unsigned char frame[kWidth * kHeight];
    static Seen seen;
    kvpcie_capture_statistics capture;
    kvpcie_inject_statistics inject;
    kvpcie_riffa_device devices[2];
    kvpcie_delay delays[8];
    int32_t count = 0;
    kvpcie_list* list;
    kvpcie_card* card;
    int i;

    currentCase = "old header caller";
    CHECK(kvpcie_sim_configure("xdma:1,riffa:1") == KVPCIE_OK);
    list = kvpcie_list_xdma();
    CHECK(kvpcie_list_count(list) == 1);
    kvpcie_list_free(list);
    memset(devices, 0, sizeof devices);
    devices[0].size = devices[1].size = sizeof devices[0];
    CHECK(kvpcie_list_riffa(devices, 2, &count) == KVPCIE_OK && count == 1);

    card = kvpcie_open(NULL);
    CHECK(card != NULL);
    if (card == NULL) {
        return 1;
    }
    for (i = 0; i < (int)sizeof frame; ++i) {
        frame[i] = (unsigned char)(i * 3 + 1);
    }
    /* The channel's capture source is the inject side (the loopback), at 100 frames a second. */
    CHECK(kvpcie_write_reg(card, 0x1F1000u + kChannel * 0x1000u, 1) == KVPCIE_OK);
    CHECK(kvpcie_write_reg(card, 0x1F1004u + kChannel * 0x1000u, 100) == KVPCIE_OK);
    CHECK(kvpcie_start_capture(card, kChannel, 0, kWidth, kHeight, KVPCIE_Y8, captureBuffer,
                               OnFrame, &seen) == KVPCIE_OK);
    for (i = 0; i < 10; ++i) {
        CHECK(kvpcie_inject(card, kChannel, 100, kWidth, kHeight, KVPCIE_Y8, frame) == KVPCIE_OK);
    }
    memset(&capture, 0, sizeof capture);
    capture.size = sizeof capture;
    for (i = 0; i < 500 && capture.frames_delivered < 20u; ++i) {
        SleepMs(10);
        CHECK(kvpcie_capture_statistics_get(card, kChannel, &capture) == KVPCIE_OK);
    }
    CHECK(kvpcie_stop_capture(card, kChannel) == KVPCIE_OK);
    CHECK(kvpcie_capture_delays(card, kChannel, delays, 8, &count) == KVPCIE_OK && count == 8);
    memset(&inject, 0, sizeof inject);
    inject.size = sizeof inject;
    CHECK(kvpcie_inject_statistics_get(card, kChannel, &inject) == KVPCIE_OK);
    CHECK(kvpcie_stop_inject(card, kChannel) == KVPCIE_OK);
    kvpcie_close(card);

    CHECK(capture.size == sizeof capture && capture.frames_failed == 0u);
    CHECK(inject.size == sizeof inject && inject.frames_queued == 10u);
    CHECK(seen.wrongRecord == 0);
    CHECK(seen.matching > 0);
    printf("old header caller: %d frames came back as injected, %d failures\n", seen.matching,
           failures);
    return failures == 0 ? 0 : 1;
}
