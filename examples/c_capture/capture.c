/* Captures one second of channel 0 through the C interface and prints what arrived. Without
   hardware, run it on the simulated card: KVPCIE_SIM=1 ./c_capture */
/* nanosleep, which strict C99 does not declare. */
#if !defined(_WIN32)
#define _POSIX_C_SOURCE 199309L
#endif

#include <KvPCIeInjectSdk/kvpcie.h>

#include <stdio.h>
#include <stdlib.h>

#ifdef _WIN32
#include <windows.h>
#define SLEEP_MS(ms) Sleep(ms)
#else
#include <time.h>
static void SleepMs(long ms) {
    struct timespec pause;
    pause.tv_sec = ms / 1000;
    pause.tv_nsec = (ms % 1000) * 1000000L;
    nanosleep(&pause, NULL);
}
#define SLEEP_MS(ms) SleepMs(ms)
#endif

/* Called on the card's polling thread for every frame; it must return quickly. */
static void OnFrame(const kvpcie_frame* frame, void* context) {
    unsigned long* lastByteSum = (unsigned long*)context;
    const unsigned char* bytes = (const unsigned char*)frame->data;
    *lastByteSum = (unsigned long)bytes[0] + bytes[frame->bytes - 1];
}

int main(void) {
    enum { kWidth = 640, kHeight = 480 };
    kvpcie_list* cards = kvpcie_list_xdma();
    kvpcie_card* card;
    kvpcie_capture_statistics statistics;
    unsigned long lastByteSum = 0;
    void* frame = malloc((size_t)kvpcie_frame_bytes(KVPCIE_UYVY422, kWidth, kHeight));
    int32_t i;

    printf("KvPCIeInjectSdk %s: %d XDMA card(s)\n", kvpcie_version(), kvpcie_list_count(cards));
    for (i = 0; i < kvpcie_list_count(cards); ++i) {
        printf("  [%d] %s\n", (int)i, kvpcie_list_path(cards, i));
    }
    kvpcie_list_free(cards);

    card = kvpcie_open(NULL); /* the first card listed */
    if (card == NULL || frame == NULL) {
        fprintf(stderr, "no card: %s (set KVPCIE_SIM=1 to use the simulated card)\n",
                kvpcie_last_error());
        free(frame);
        return 1;
    }
    if (kvpcie_start_capture(card, 0, 1, kWidth, kHeight, KVPCIE_UYVY422, frame, OnFrame,
                             &lastByteSum) != KVPCIE_OK) {
        fprintf(stderr, "capture did not start: %s\n", kvpcie_last_error());
        kvpcie_close(card);
        free(frame);
        return 1;
    }
    SLEEP_MS(1000);
    kvpcie_stop_capture(card, 0); /* no callback runs after this */

    statistics.size = sizeof statistics;
    kvpcie_capture_statistics_get(card, 0, &statistics);
    printf("%lu frames captured, %lu lost, %.1f per second (last frame's end bytes: %lu)\n",
           (unsigned long)statistics.frames_delivered, (unsigned long)statistics.frames_failed,
           statistics.frames_per_second, lastByteSum);
    kvpcie_close(card);
    free(frame);
    return statistics.frames_delivered > 0 ? 0 : 1;
}
