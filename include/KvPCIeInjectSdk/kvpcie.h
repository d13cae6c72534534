/** \file
 * kvpcie.h: the C interface of KvPCIeInjectSdk, for hosts written in C, in C++ with another
 * compiler than the library's, and in any language that calls a C library (C#, LabVIEW,
 * MATLAB, Python's ctypes). It needs no Qt and no C++: plain C99 types, one opaque handle per
 * card, callbacks with a context pointer, records that carry their size.
 *
 * Results. Every function that can fail returns a kvpcie_status: KVPCIE_OK (0) or a negative
 * code, and kvpcie_last_error() then says why in one English line, for the calling thread, as
 * errno does. Functions that return a pointer return NULL on failure, with the text set. A
 * null handle or a null pointer where one is needed is refused with KVPCIE_BAD_ARGUMENT,
 * never a crash.
 *
 * Threads. The library runs a card thread of its own: every card opened here is opened, started
 * and stopped there, and the status timer that a Qt host would run in its event loop runs
 * there, so a host needs no event loop. Any function may be called from any thread, except
 * inside callbacks (below). Frame callbacks run on the card's polling thread, one at a time;
 * status callbacks run on the card thread.
 *
 * Inside a frame callback, call only kvpcie_stop_capture (its own channel or another; the stop
 * takes effect when the callback returns), kvpcie_inject, kvpcie_send_command, the statistics,
 * kvpcie_close, and the calls that reach no card: kvpcie_last_error, kvpcie_version,
 * kvpcie_frame_bytes, kvpcie_card_path, kvpcie_list_count, kvpcie_list_path, kvpcie_list_free,
 * kvpcie_set_record_root, kvpcie_record_root and the kvpcie_sim_ calls but kvpcie_sim_configure.
 * Every other call is refused there with KVPCIE_ERROR (NULL from kvpcie_list_xdma, kvpcie_open and
 * kvpcie_open_riffa, 0 from the kvpcie_is_ calls) and a text, since it would wait for the card
 * thread, which may be waiting for that very callback. Inside a status callback every function may
 * be called.
 *
 * What the C++ interface has and this one leaves out: the display widgets
 * (SetCaptureFullScreenWgt, SetInjectFullScreenWgt, GLWidget), which are Qt objects of the
 * host's own process; SetOsdHidden and SetShowErrorFrame, which the library stores and nothing
 * reads; the RIFFA engines' frame calls, which no RIFFA device serves (registers only);
 * IsCaptureFormatAcceptable and IsInjectFormatAcceptable, whose refusals kvpcie_start_capture
 * and kvpcie_inject give with the same text; GetIdealCpuCoreIndex, ResetUsedCpuCoreIndex and
 * PreProcCapture, the engines' own bookkeeping.
 *
 * Lifetime. kvpcie_close stops everything the handle started and returns once no callback of it
 * runs or will run; the frame buffers and contexts given to it may be freed then. Called inside
 * a callback (a frame callback, or a status callback on the card thread), it returns at once:
 * no callback of the handle is called after the running one returns, whatever the card thread
 * is doing, and when the callback is a frame callback of the same card, the card writes into
 * the handle's frame buffers no more from then on either, so they and the contexts may be freed
 * once that callback has returned. The rest of the close (injection, status blocks, the card)
 * follows on the card thread. Handles of one path share one open card: four handles may each
 * capture one channel, and the card closes with the last handle.
 */
#ifndef KVPCIE_H
#define KVPCIE_H

#include <stddef.h>
#include <stdint.h>

#if defined(KVPCIE_STATIC)
#define KVPCIE_API
#elif defined(_WIN32)
#if defined(KVPCIE_BUILDING_LIBRARY)
#define KVPCIE_API __declspec(dllexport)
#else
#define KVPCIE_API __declspec(dllimport)
#endif
#else
/** How the library's functions are exported and imported. */
#define KVPCIE_API __attribute__((visibility("default")))
#endif

/** One calling convention for every caller, whatever its compiler's default. */
#if defined(_WIN32) && !defined(_WIN64)
#define KVPCIE_CALL __cdecl
#else
#define KVPCIE_CALL
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* --- results, formats, the library --- */

/** What a call came to: KVPCIE_OK or one of the negative codes below. */
typedef int32_t kvpcie_status;
#define KVPCIE_OK 0 /**< the call did what it was asked */
#define KVPCIE_ERROR (-1) /**< the call failed; kvpcie_last_error says why */
#define KVPCIE_BAD_ARGUMENT (-2) /**< a null handle or pointer, a channel outside 0 to 3, ... */
#define KVPCIE_NO_CARD (-3) /**< no card, or it would not open, or the format was refused */
#define KVPCIE_QUEUE_FULL (-4) /**< injection: 15 frames wait; the frame was not taken */
#define KVPCIE_IN_USE (-5) /**< another handle captures or injects on this channel */
#define KVPCIE_WRONG_KIND (-6) /**< an XDMA operation on a RIFFA handle, or the reverse */
#define KVPCIE_CARD_LOST (-7) /**< the card was found gone: close the handle, open it again */
#define KVPCIE_TIMEOUT (-8)   /**< kvpcie_pull: no frame came within the time-out */
#define KVPCIE_STOPPED (-9)   /**< kvpcie_pull: the channel stopped and no frame of it waits */

/** @{ Pixel layouts; the values of the C++ interface's ePixelType. */
#define KVPCIE_UYVY422 0
#define KVPCIE_Y8 1
#define KVPCIE_Y16 2
#define KVPCIE_Y16_Y8 3
#define KVPCIE_BGR24 4
#define KVPCIE_PIXEL32 5
/** @} */

/** Capture and inject channels of a card: 0 to 3. */
#define KVPCIE_CHANNELS 4
/** The largest width, and line count, of a frame (the card's 16-bit geometry fields). */
#define KVPCIE_MAX_FRAME_SIDE 65535
/** Bytes of a card buffer, and so of the largest frame: 20 MiB. */
#define KVPCIE_CARD_BUFFER_BYTES 20971520u

/** "major.minor.patch" of the library as built. */
KVPCIE_API const char* KVPCIE_CALL kvpcie_version(void);

/** Why the calling thread's last kvpcie_ call failed; "" after one that succeeded. Owned by the
   library; valid until the thread's next kvpcie_ call. */
KVPCIE_API const char* KVPCIE_CALL kvpcie_last_error(void);

/** Bytes of one frame of `width` x `height` pixels of `pixel_type`; 0 for a bad type or size. */
KVPCIE_API uint64_t KVPCIE_CALL kvpcie_frame_bytes(int32_t pixel_type, int32_t width,
                                                    int32_t height);

/* --- listing --- */

/** A listing of XDMA card paths, owned by the library until kvpcie_list_free. */
typedef struct kvpcie_list kvpcie_list;

/** The XDMA cards the library lists (four at most; the simulated ones after the real ones).
   NULL when listing failed. Free it with kvpcie_list_free. */
KVPCIE_API kvpcie_list* KVPCIE_CALL kvpcie_list_xdma(void);
/** How many paths the list holds; 0 for NULL. */
KVPCIE_API int32_t KVPCIE_CALL kvpcie_list_count(const kvpcie_list* list);
/** Path `index` of the list, owned by the list; NULL outside 0 to count - 1. */
KVPCIE_API const char* KVPCIE_CALL kvpcie_list_path(const kvpcie_list* list, int32_t index);
/** Frees a list; NULL is ignored. */
KVPCIE_API void KVPCIE_CALL kvpcie_list_free(kvpcie_list* list);

/** One RIFFA device of the listing. Set `size` to sizeof(kvpcie_riffa_device) before the call:
   later versions may add fields at the end and fill only what the caller's size holds. */
typedef struct kvpcie_riffa_device {
    uint32_t size; /**< the caller's sizeof(kvpcie_riffa_device) */
    int32_t id; /**< the index kvpcie_open_riffa takes */
    int32_t channels; /**< RIFFA channels */
    char name[16]; /**< zero-padded */
    int32_t vendor_id; /**< PCI vendor */
    int32_t device_id; /**< PCI device */
} kvpcie_riffa_device;

/** Fills up to `capacity` records (each with its `size` set, all to the same value: the array
   is stepped by that size, so a caller built with an older, shorter record gets its own
   layout) and stores the number of devices in `*count` (which may exceed `capacity`). */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_list_riffa(kvpcie_riffa_device* devices,
                                                       int32_t capacity, int32_t* count);

/* --- cards --- */

/** One open card (or RIFFA device): an opaque handle from kvpcie_open or kvpcie_open_riffa. */
typedef struct kvpcie_card kvpcie_card;

/** Opens the XDMA card at `path` (from kvpcie_list_path; NULL or "" for the first one listed),
   or joins the handles that have it open. NULL when it would not open. Handles of different
   cards work side by side; a handle reaches only the card it opened. */
KVPCIE_API kvpcie_card* KVPCIE_CALL kvpcie_open(const char* path);
/** Opens RIFFA device `index` of the listing, or joins the handles that have it open:
   registers only. NULL when it would not open. Its last handle's close closes the device and
   nothing else. */
KVPCIE_API kvpcie_card* KVPCIE_CALL kvpcie_open_riffa(int32_t index);
/** Stops what the handle started, frees it; the card closes with its last handle. NULL is
   ignored. */
KVPCIE_API void KVPCIE_CALL kvpcie_close(kvpcie_card* card);
/** The card's path (RIFFA: ""), owned by the handle. */
KVPCIE_API const char* KVPCIE_CALL kvpcie_card_path(const kvpcie_card* card);

/** Called once when the handle's card is found gone (removed, its driver or driver model
   ended), with its path: on the card thread, within about 20 ms. Any function may be called
   inside, kvpcie_close too. */
typedef void(KVPCIE_CALL* kvpcie_card_lost_callback)(const char* path, void* context);
/** Sets the handle's card-lost callback (NULL: none). A card already gone is told at once. From
   then on no frame is handed over in either direction, the statistics say card_lost, and the
   calls that reach the card return KVPCIE_CARD_LOST; close the handle and open the card again
   once it is back. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_set_card_lost_callback(
    kvpcie_card* card, kvpcie_card_lost_callback callback, void* context);
/** 1 once the handle's card was found gone, else 0 (RIFFA: 0). */
KVPCIE_API int32_t KVPCIE_CALL kvpcie_is_card_lost(kvpcie_card* card);

/* --- registers and card memory --- */

/** XDMA: the card's user register at byte `address`. RIFFA: a register request over channel 0
   (0 when the device does not answer). */
/** @{ */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_read_reg(kvpcie_card* card, uint32_t address,
                                                     uint32_t* value);
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_write_reg(kvpcie_card* card, uint32_t address,
                                                      uint32_t value);
/** @} */
/** DMA between card memory and `buffer` (XDMA only). */
/** @{ */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_read_data(kvpcie_card* card, uint32_t address,
                                                      void* buffer, uint32_t bytes);
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_write_data(kvpcie_card* card, uint32_t address,
                                                       const void* buffer, uint32_t bytes);
/** @} */

/* --- capture (XDMA) --- */

/** One captured frame, as a frame callback sees it: valid during the callback only. */
typedef struct kvpcie_frame {
    uint32_t size; /**< sizeof(kvpcie_frame) of the library that calls */
    int32_t channel; /**< 0 to 3 */
    const void* data; /**< the caller's frame buffer, filled by the card's DMA */
    uint64_t bytes; /**< bytes of the frame */
    int32_t width; /**< pixels per line */
    int32_t height; /**< lines */
    int32_t pixel_type; /**< KVPCIE_UYVY422 ... */
    int32_t error_frame; /**< 1 when the card marked the frame as an error frame */
} kvpcie_frame;

/** Gets each frame of a channel, on the card's polling thread; `context` as given at the start. */
typedef void(KVPCIE_CALL* kvpcie_frame_callback)(const kvpcie_frame* frame, void* context);

/** Starts capturing `channel` into `frame_buffer`, which holds kvpcie_frame_bytes(...) and stays
   valid until the capture stops; `callback` (NULL: frames are only recorded) gets each frame
   with `context`. `card_timing` 1: the card makes the frame timing (25 per second). A started
   channel is stopped and started again. KVPCIE_IN_USE when another handle captures there. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_start_capture(
    kvpcie_card* card, int32_t channel, int32_t card_timing, int32_t width, int32_t height,
    int32_t pixel_type, void* frame_buffer, kvpcie_frame_callback callback, void* context);
/** Returns once no frame callback of the channel runs or will run. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_stop_capture(kvpcie_card* card, int32_t channel);
/** 1 while this handle captures on the channel, else 0. */
KVPCIE_API int32_t KVPCIE_CALL kvpcie_is_capturing(kvpcie_card* card, int32_t channel);

/* --- pulling frames: capture without callbacks --- */

/** What kvpcie_pull copied. Set `size` to sizeof(kvpcie_pulled_frame) before the call. */
typedef struct kvpcie_pulled_frame {
    uint32_t size;        /**< the caller's sizeof(kvpcie_pulled_frame) */
    int32_t channel;      /**< 0 to 3 */
    uint64_t bytes;       /**< bytes copied into the caller's buffer: one frame */
    int32_t width;        /**< pixels per line */
    int32_t height;       /**< lines */
    int32_t pixel_type;   /**< KVPCIE_UYVY422 ... */
    int32_t error_frame;  /**< 1 when the card marked the frame as an error frame */
    uint64_t sequence;    /**< 0 for the first frame since kvpcie_start_pull; a gap: frames lost */
    int64_t received_ns;  /**< when the library got it, ns on the host's steady clock */
    uint64_t frames_lost; /**< since the start: frames that found the queue full */
} kvpcie_pulled_frame;

/** Starts capturing `channel` for kvpcie_pull: the library copies each frame into a queue of
   `depth` (1 to 64) frames it keeps; when the queue is full the oldest frame makes room and is
   counted lost, so the queue holds the newest frames. As kvpcie_start_capture otherwise (a
   started channel is started again; kvpcie_stop_capture stops it). No callback, no function
   pointer: for hosts that can only call C with numbers and buffers (LabVIEW, MATLAB). */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_start_pull(kvpcie_card* card, int32_t channel,
                                                       int32_t card_timing, int32_t width,
                                                       int32_t height, int32_t pixel_type,
                                                       int32_t depth);
/** Copies the oldest waiting frame of a pulled channel into `buffer` (`capacity` bytes, at
   least one frame) and its record into `*frame` (NULL: none), waiting up to `timeout_ms` for
   one (0: no wait; -1: no limit). KVPCIE_TIMEOUT when none came; KVPCIE_STOPPED when the
   channel stopped, or its handle is closing, and every frame queued before has been pulled
   (a stop or close ends every waiting call). Any number of threads may pull one channel; each
   frame goes to one of them. Not inside a frame callback (it would hold up the card's
   polling thread, which brings the frames). */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_pull(kvpcie_card* card, int32_t channel, void* buffer,
                                                 uint64_t capacity, kvpcie_pulled_frame* frame,
                                                 int32_t timeout_ms);

/** Raw recording of a capturing channel, each take in a folder of its own below
   ROOT/Capture<channel + 1>/; the root is the program's "VideoRecord" folder unless
   kvpcie_set_record_root chose another. */
/** @{ */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_start_record(kvpcie_card* card, int32_t channel);
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_stop_record(kvpcie_card* card, int32_t channel);
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_snapshot(kvpcie_card* card, int32_t channel);
/** @} */
/** The per-buffer capture log ("./Log/Capture_AllChannel") on (1) or off (0) for the card as it
   is open now (a card opened again starts with it off). */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_set_save_log(kvpcie_card* card, int32_t on);
/** The channel's display delay test on (1) or off (0): the card counts it in the capture delay
   records' `test_count`. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_set_display_delay_test(kvpcie_card* card,
                                                                   int32_t channel, int32_t on);

/** The root of every card's recordings from the next take on (UTF-8; a relative folder is
   taken from the current folder now); "" restores the default. Created when a take starts. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_set_record_root(const char* folder);
/** The root of the recordings now, as UTF-8 with its terminating 0 into `folder`, which holds
   `capacity` bytes; KVPCIE_BAD_ARGUMENT, saying how many bytes it needs, when it does not fit. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_record_root(char* folder, size_t capacity);
/** The folder of the channel's current take, or of its last one once it stopped ("" while it
   has recorded nothing), as kvpcie_record_root writes it. Not inside a frame callback. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_record_take_folder(kvpcie_card* card, int32_t channel,
                                                               char* folder, size_t capacity);

/** Status blocks that the card posts for `channel`: each one to `callback` on the card thread,
   every 20 ms. NULL switches them off (they then wait in the card's mailbox). */
typedef void(KVPCIE_CALL* kvpcie_status_callback)(int32_t channel, const void* data,
                                                   size_t bytes, void* context);
/** Sets (or, with NULL, clears) the channel's status callback; see kvpcie_status_callback. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_set_status_callback(kvpcie_card* card,
                                                                int32_t channel,
                                                                kvpcie_status_callback callback,
                                                                void* context);

/* --- injection (XDMA) --- */

/** Queues one frame (copied) for `channel`; the first call of a run programs the channel with
   the format and `frame_rate`, later ones must pass frames of that size. KVPCIE_QUEUE_FULL
   when 15 frames wait: offer it again later. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_inject(kvpcie_card* card, int32_t channel,
                                                   int32_t frame_rate, int32_t width,
                                                   int32_t height, int32_t pixel_type,
                                                   const void* frame);
/** The whole format of an inject run. Set `size` to sizeof(kvpcie_inject_format). */
typedef struct kvpcie_inject_format {
    uint32_t size;       /**< the caller's sizeof(kvpcie_inject_format) */
    int32_t frame_rate;  /**< frames per second the card plays */
    int32_t width;       /**< pixels per line */
    int32_t height;      /**< lines */
    int32_t pixel_type;  /**< KVPCIE_UYVY422 ... */
    int32_t line_period; /**< the card's line period register; 0: the card's own timing */
} kvpcie_inject_format;

/** As kvpcie_inject, with the format (and the line period, which kvpcie_inject leaves 0) in a
   record. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_inject_with_format(kvpcie_card* card, int32_t channel,
                                                               const kvpcie_inject_format* format,
                                                               const void* frame);
/** Frames of the channel's next inject run carry one parameter line after the picture (`enable`
   1), with `params` the 78-byte thermal parameter record the library keeps for the channel;
   0 switches it off. A stop of the channel switches it off too. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_set_param_simulate(kvpcie_card* card, int32_t channel,
                                                               int32_t enable, const void* params,
                                                               size_t bytes);

/** Stops the channel's injection; frames still queued are dropped. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_stop_inject(kvpcie_card* card, int32_t channel);
/** 1 while this handle injects on the channel, else 0. */
KVPCIE_API int32_t KVPCIE_CALL kvpcie_is_injecting(kvpcie_card* card, int32_t channel);

/** Sends a control command of 1 to 1,024 bytes; KVPCIE_OK when it reached the card within
   40 ms (otherwise it still goes out once the card is free). Any thread, frame callbacks too. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_send_command(kvpcie_card* card, int32_t channel,
                                                         const void* bytes, size_t length);

/* --- statistics and delays --- */

/** The counts of the C++ interface's KvCaptureStatistics. Set `size` first (see
   kvpcie_riffa_device). */
typedef struct kvpcie_capture_statistics {
    uint32_t size;     /**< the caller's sizeof(kvpcie_capture_statistics) */
    uint32_t reserved; /**< 0 */
    uint64_t frames_delivered; /**< handed to the callback (or recorded) */
    uint64_t frames_failed; /**< lost: DMA failures, card buffers skipped */
    uint64_t error_frames; /**< delivered with the card's error flag */
    uint64_t frames_recorded; /**< written to the recording */
    uint64_t bytes_recorded; /**< bytes written to the recording */
    uint64_t frames_not_recorded; /**< recording queue full or file failed */
    double frames_per_second; /**< over the last second */
    uint64_t callback_micros_max; /**< slowest frame callback */
    int32_t last_card_buffer; /**< the card buffer of the last frame; -1 before any */
    int32_t reserved2;               /**< 0 */
    uint64_t status_bytes_delivered; /**< status block bytes handed to the status callback */
    uint64_t status_bytes_dropped;   /**< status block bytes taken from the card, not delivered */
    int32_t card_lost;               /**< 1 once the card was found gone, else 0 */
    int32_t reserved3;               /**< 0 */
    int64_t card_lost_at_ms; /**< when it was found gone, ms since 1970 (UTC); 0 while there */
} kvpcie_capture_statistics;

/** The counts of the C++ interface's KvInjectStatistics. Set `size` first. */
typedef struct kvpcie_inject_statistics {
    uint32_t size;                    /**< the caller's sizeof(kvpcie_inject_statistics) */
    uint32_t frames_waiting; /**< in the queue now */
    uint64_t frames_queued; /**< taken by kvpcie_inject */
    uint64_t frames_refused; /**< refused as the queue was full */
    uint64_t frames_to_card; /**< handed to the card */
    uint64_t transfers_failed; /**< DMA writes that failed */
    uint64_t frames_dropped_at_stop; /**< still queued at a stop */
    uint64_t periods_without_frame; /**< a buffer came free with the queue dry */
    uint64_t commands_sent;             /**< control commands that reached the card */
    uint64_t commands_not_sent_in_time; /**< not taken by the card within 40 ms */
    uint64_t commands_replaced;         /**< replaced by a newer one before they went out */
    int32_t card_lost;                  /**< 1 once the card was found gone, else 0 */
    int32_t reserved;                   /**< 0 */
    int64_t card_lost_at_ms; /**< when it was found gone, ms since 1970 (UTC); 0 while there */
} kvpcie_inject_statistics;

/** Any thread, frame callbacks too; KVPCIE_ERROR while the channel has never run. */
/** @{ */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_capture_statistics_get(
    kvpcie_card* card, int32_t channel, kvpcie_capture_statistics* statistics);
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_inject_statistics_get(
    kvpcie_card* card, int32_t channel, kvpcie_inject_statistics* statistics);
/** @} */

/** One card buffer's delays in seconds, as the card measured them (the records of
   GetCaptureDelayStatus and GetInjectDelayStatus). */
typedef struct kvpcie_delay {
    double start_to_release; /**< capture: frame start to release; inject: writing to play end */
    double ready_to_release; /**< capture: ready to release; inject: ready to play */
    double interval; /**< between frames */
    double write_time; /**< capture: the card's write; inject: the host's write */
    int32_t test_count; /**< capture: the display delay test count; inject: 0 */
    int32_t reserved;        /**< 0 */
} kvpcie_delay;

/** Fills `delays` with the channel's eight card buffers (`count` at most) and stores how many
   were filled in `*filled`. */
/** @{ */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_capture_delays(kvpcie_card* card, int32_t channel,
                                                           kvpcie_delay* delays, int32_t count,
                                                           int32_t* filled);
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_inject_delays(kvpcie_card* card, int32_t channel,
                                                          kvpcie_delay* delays, int32_t count,
                                                          int32_t* filled);
/** @} */

/* --- the simulated card (KvPCIeSimulation.h), for tests and examples in any language --- */

/** As KVPCIE_SIM: "1", "xdma:N,riffa:M" or "" (none); replaces the simulated cards. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_sim_configure(const char* cards);
/** A register of simulated card `card` as the card holds it, without the card acting on it. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_sim_peek_register(int32_t card, uint32_t address,
                                                              uint32_t* value);
/** Card memory of simulated card `card`. */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_sim_peek_memory(int32_t card, uint64_t address,
                                                            void* buffer, size_t bytes);
/** The card drops off the bus (1) or comes back (0). */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_sim_set_removed(int32_t card, int32_t removed);
/** Simulated RIFFA device `device` stops answering (1) or answers again (0). */
KVPCIE_API kvpcie_status KVPCIE_CALL kvpcie_sim_riffa_never_answers(int32_t device,
                                                                    int32_t never);

#ifdef __cplusplus
}
#endif

#endif /**< KVPCIE_H */
