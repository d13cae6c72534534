/// \file
/// Every field of KvCaptureStatistics and KvInjectStatistics once, as lists a host can expand
/// (X-macros): the C records' copies, the Python dictionaries, the GStreamer structures, the
/// .NET records and the viewer's rows are all made from these lists, so a count added here
/// reaches every front-end, and one missing from a front-end fails its build.
///
/// Each entry is `X(member, name, label, text)`: the C++ member; its name in the C record
/// (kvpcie.h) and the Python dictionary, and with dashes for underscores in the GStreamer
/// structure; a short label for a table of counts; and what it counts. To print every count:
/// \code
/// #define PRINT_COUNT(member, name, label, text) std::cout << label << ' ' << stats.member <<
/// '\n'; KVPCIE_CAPTURE_STATISTICS_FIELDS(PRINT_COUNT) #undef PRINT_COUNT \endcode
#pragma once

/// The fields of KvCaptureStatistics, in the order of the C record kvpcie_capture_statistics.
#define KVPCIE_CAPTURE_STATISTICS_FIELDS(X)                                                    \
    X(framesDelivered, frames_delivered, "delivered",                                          \
      "frames handed to the callback (or recorded)")                                           \
    X(framesFailed, frames_failed, "failed", "frames lost: failed transfers, skipped buffers") \
    X(errorFrames, error_frames, "flagged", "frames delivered with the card's error flag")     \
    X(framesRecorded, frames_recorded, "recorded", "frames written to the recording")          \
    X(bytesRecorded, bytes_recorded, "bytes recorded", "bytes written to the recording")       \
    X(framesNotRecorded, frames_not_recorded, "not recorded",                                  \
      "frames the recording had no room for, or could not write")                              \
    X(framesPerSecond, frames_per_second, "fps", "frames per second over the last second")     \
    X(callbackMicrosMax, callback_micros_max, "slowest callback us",                           \
      "the slowest callback, in microseconds")                                                 \
    X(lastCardBuffer, last_card_buffer, "last card buffer",                                    \
      "the card buffer of the last frame; -1 before any")                                      \
    X(statusBytesDelivered, status_bytes_delivered, "status bytes",                            \
      "status block bytes handed to the status callback")                                      \
    X(statusBytesDropped, status_bytes_dropped, "status bytes dropped",                        \
      "status block bytes taken from the card and not delivered")                              \
    X(cardLost, card_lost, "card lost", "whether the card was found gone")                     \
    X(cardLostAtMs, card_lost_at_ms, "lost at ms",                                             \
      "when the card was found gone, ms since 1970 (UTC); 0 while it is there")

/// The fields of KvInjectStatistics, in the order of the C record kvpcie_inject_statistics.
#define KVPCIE_INJECT_STATISTICS_FIELDS(X)                                                    \
    X(framesWaiting, frames_waiting, "waiting", "frames in the queue now")                    \
    X(framesQueued, frames_queued, "queued", "frames taken into the queue")                   \
    X(framesRefused, frames_refused, "refused", "frames refused as the queue was full")       \
    X(framesToCard, frames_to_card, "to card", "frames handed to the card")                   \
    X(transfersFailed, transfers_failed, "transfers failed", "DMA writes that failed")        \
    X(framesDroppedAtStop, frames_dropped_at_stop, "dropped at stop",                         \
      "frames still queued at a stop")                                                        \
    X(periodsWithoutFrame, periods_without_frame, "periods without frame",                    \
      "card buffers that came free while the queue was dry")                                  \
    X(commandsSent, commands_sent, "commands sent", "control commands that reached the card") \
    X(commandsNotSentInTime, commands_not_sent_in_time, "commands late",                      \
      "commands the card did not take within 40 ms")                                          \
    X(commandsReplaced, commands_replaced, "commands replaced",                               \
      "commands replaced by a newer one before they went out")                                \
    X(cardLost, card_lost, "card lost", "whether the card was found gone")                    \
    X(cardLostAtMs, card_lost_at_ms, "lost at ms",                                            \
      "when the card was found gone, ms since 1970 (UTC); 0 while it is there")
