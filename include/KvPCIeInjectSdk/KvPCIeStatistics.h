/// \file
/// Stream statistics of one capture or inject channel, filled by
/// PCIeDataManager::GetCaptureStatistics and GetInjectStatistics. Every count is a running
/// total: a host that wants a rate over its own interval subtracts two readings. A field added
/// here goes into KvPCIeStatisticsFields.h too, which every front-end is made from.
#pragma once

#include <cstdint>

/// One capture channel. Frame counts start at 0 with each StartCapture of the channel and keep
/// their values after StopCapture, until the next start.
struct KvCaptureStatistics {
    /// Frames read from the card and handed on: to the callback, to the recorder, or to both.
    /// A frame is counted as its callback is called, so a frame the host has is counted.
    std::uint64_t framesDelivered = 0;
    /// Card buffers whose transfer to the host failed; the buffer was given back to the card and
    /// the frame went nowhere.
    std::uint64_t framesFailed = 0;
    /// Delivered frames that the card flagged as faulty (status bit 5, the flag of the Ex
    /// callback).
    std::uint64_t errorFrames = 0;
    ///@{
    /// Frames written to recording files, and their bytes.
    std::uint64_t framesRecorded = 0;
    std::uint64_t bytesRecorded = 0;
    ///@}
    /// Frames that were due in a recording and are not in its file: the recorder had no room
    /// for them (the disk is slower than the channel), or the write failed.
    std::uint64_t framesNotRecorded = 0;
    /// Delivered frames per second, over the last whole second while the channel runs; 0 once
    /// it has stopped.
    double framesPerSecond = 0.0;
    /// The longest time one call of the frame callback took, in microseconds.
    std::uint64_t callbackMicrosMax = 0;
    /// The card buffer (0 to 7) of the last frame delivered; -1 before the first.
    std::int32_t lastCardBuffer = -1;
    ///@{
    /// The channel's status blocks since the card was opened: bytes handed to the status
    /// callback, and bytes the card posted that were dropped. Between two deliveries (20 ms)
    /// the host keeps at most 1,535 bytes: a block that would bring it to 1,536 or more is
    /// dropped whole.
    std::uint64_t statusBytesDelivered = 0;
    std::uint64_t statusBytesDropped = 0;
    ///@}
    ///@{
    /// Whether the card was found gone (removed, or its driver ended) since it was opened, and
    /// when, in milliseconds since 1970 (UTC); false and 0 while it is there. A lost card hands
    /// no frame over; PCIeDataManager::SetCardLostCallback tells the host.
    bool cardLost = false;
    std::int64_t cardLostAtMs = 0;
    ///@}
};

/// One inject channel. Frame counts start at 0 with the first StartInject of a stopped channel
/// and keep their values after StopInject, until the next start. Command counts run from the
/// moment the card was opened.
struct KvInjectStatistics {
    /// Frames that StartInject took into the queue.
    std::uint64_t framesQueued = 0;
    /// Frames that StartInject refused with ERR_QUEUE_FULL.
    std::uint64_t framesRefused = 0;
    /// Frames copied into a card buffer and handed to the card for playout.
    std::uint64_t framesToCard = 0;
    /// Of those, transfers into card memory that failed: the card plays that buffer's old
    /// contents.
    std::uint64_t transfersFailed = 0;
    /// Frames still queued when StopInject dropped them.
    std::uint64_t framesDroppedAtStop = 0;
    /// Card buffers that came free while the queue was empty and went back to the card with the
    /// newest frame again: a period without a new frame (an underrun, as far as the host can see
    /// it). Before the run's first frame no buffer goes over, and none is counted.
    std::uint64_t periodsWithoutFrame = 0;
    /// Frames waiting in the queue now (0 to 15).
    std::uint32_t framesWaiting = 0;
    /// Commands written into the channel's command mailbox on the card.
    std::uint64_t commandsSent = 0;
    /// WriteControlCmd calls that returned false because their command had not reached the card
    /// within 40 ms.
    std::uint64_t commandsNotSentInTime = 0;
    /// Commands replaced by a newer command of the channel before they reached the card: they
    /// are never sent. The channel has one "sent" flag, so a caller still waiting for a replaced
    /// command is told true once the newer command goes out; this count is how to notice.
    std::uint64_t commandsReplaced = 0;
    ///@{
    /// As in KvCaptureStatistics: no frame goes to a lost card, they wait in the queue.
    bool cardLost = false;
    std::int64_t cardLostAtMs = 0;
    ///@}
};
