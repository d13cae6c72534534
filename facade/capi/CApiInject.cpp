// The C interface's injection, control commands, statistics and delay records.
#include "facade/capi/CApiCard.h"
#include "facade/capi/CApiErrors.h"

#include <KvPCIeInjectSdk/KvPCIeStatisticsFields.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <QByteArray>

#include <algorithm>
#include <cstddef>
#include <cstring>

using kvpcie::capi::CopyOut;
using kvpcie::capi::Fail;
using kvpcie::capi::Guarded;
using kvpcie::capi::Succeed;

namespace {

// The statistics calls: checked, read from any thread, translated and copied out by size.
template <typename Counts, typename Record, typename Translate>
kvpcie_status StatisticsCall(kvpcie_card* card, int32_t channel, Record* statistics,
                             bool (PCIeDataManager::*get)(int, Counts&), Translate translate) {
    return Guarded([&] {
        if (const kvpcie_status refused = kvpcie::capi::RequireXdmaChannel(card, channel)) {
            return refused;
        }
        if (statistics == nullptr) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the statistics record is null");
        }
        PCIeDataManager& manager = card->lease->AnyThreadManager();
        Counts counts;
        if (!(manager.*get)(channel, counts)) {
            return Fail(KVPCIE_ERROR, manager.LastErrorText());
        }
        Record ours{};
        translate(counts, ours);
        return CopyOut(ours, statistics);
    });
}

// The C records hold the table's fields in the table's order: the .NET records are laid out
// from the same table and the C offsets.
#define KVPCIE_CAPTURE_OFFSET(member, name, label, text) offsetof(kvpcie_capture_statistics, name),
#define KVPCIE_INJECT_OFFSET(member, name, label, text) offsetof(kvpcie_inject_statistics, name),
constexpr std::size_t kCaptureOffsets[] = {KVPCIE_CAPTURE_STATISTICS_FIELDS(KVPCIE_CAPTURE_OFFSET)};
constexpr std::size_t kInjectOffsets[] = {KVPCIE_INJECT_STATISTICS_FIELDS(KVPCIE_INJECT_OFFSET)};
#undef KVPCIE_CAPTURE_OFFSET
#undef KVPCIE_INJECT_OFFSET

template <std::size_t N>
constexpr bool Ascending(const std::size_t (&offsets)[N]) {
    for (std::size_t i = 1; i < N; ++i) {
        if (offsets[i] <= offsets[i - 1]) {
            return false;
        }
    }
    return true;
}
static_assert(Ascending(kCaptureOffsets), "kvpcie_capture_statistics is out of the table's order");
static_assert(Ascending(kInjectOffsets), "kvpcie_inject_statistics is out of the table's order");

// One field of a C record from its C++ count (a flag becomes 0 or 1).
#define KVPCIE_COPY_COUNT(member, name, label, text) \
    ours.name = static_cast<decltype(ours.name)>(counts.member);

}  // namespace

namespace {

constexpr int kCardBuffers = 8;

kvpcie_status Delays(kvpcie_card* card, int32_t channel, kvpcie_delay* delays, int32_t count,
                     int32_t* filled, bool capture) {
    return Guarded([&] {
        if (const kvpcie_status refused = kvpcie::capi::RequireXdmaChannel(card, channel)) {
            return refused;
        }
        if (delays == nullptr || filled == nullptr || count < 0) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the delay records or their count are null");
        }
        if (kvpcie::capi::RequireNotInFrameCallback() != KVPCIE_OK) {
            return KVPCIE_ERROR;
        }
        *filled = 0;
        const int wanted = std::min(count, kCardBuffers);
        std::string text;
        kvpcie::capi::RunOnCard(card, text, [&](PCIeDataManager& manager) {
            // The library's records are overwritten by its next call: copied here, on the card
            // thread that makes every call.
            if (capture) {
                const tagCaptureDelayStatusInfo* records = manager.GetCaptureDelayStatus(channel);
                for (int i = 0; records != nullptr && i < wanted; ++i) {
                    delays[i] = kvpcie_delay{records[i].delaySel3, records[i].delaySel1,
                                             records[i].delaySel2, records[i].delaySel0,
                                             records[i].delayTestCount, 0};
                    *filled = i + 1;
                }
            } else {
                const tagInjectDelayStatusInfo* records = manager.GetInjectDelayStatus(channel);
                for (int i = 0; records != nullptr && i < wanted; ++i) {
                    delays[i] = kvpcie_delay{records[i].delaySel3, records[i].delaySel1,
                                             records[i].delaySel2, records[i].delaySel0, 0, 0};
                    *filled = i + 1;
                }
            }
        });
        return *filled > 0 || wanted == 0
                   ? Succeed()
                   : Fail(KVPCIE_ERROR, text.empty() ? "the channel's engine does not exist" : text);
    });
}

// One frame for the channel; the first of a run programs it with this format and line period.
kvpcie_status Inject(kvpcie_card* card, int32_t channel, int32_t frame_rate, int32_t width,
                     int32_t height, int32_t pixel_type, int32_t line_period, const void* frame) {
    return Guarded([&] {
        if (const kvpcie_status refused = kvpcie::capi::RequireXdmaChannel(card, channel)) {
            return refused;
        }
        if (frame == nullptr) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the frame is null");
        }
        const bool firstOfRun = !card->injectClaimed[channel];
        if (firstOfRun) {
            if (!card->lease->Claim(KvPCIe::SharedCard::Direction::Inject,
                                    static_cast<unsigned>(channel))) {
                return Fail(KVPCIE_IN_USE, "another handle injects on channel " +
                                               std::to_string(channel));
            }
            card->injectClaimed[channel] = true;
        }
        bool queued = false;
        eErrorCode error = ERR_NO_CARD;
        std::string text;
        // StartInject copies the frame and does not write to it.
        const auto queue = [&](PCIeDataManager& manager) {
            queued = manager.StartInject(static_cast<unsigned>(channel), frame_rate, width, height,
                                         static_cast<ePixelType>(pixel_type), line_period,
                                         static_cast<char*>(const_cast<void*>(frame)), error);
        };
        if (kvpcie::capi::InFrameCallback()) {
            // The library takes injection from inside a frame callback on the polling thread.
            PCIeDataManager& manager = card->lease->AnyThreadManager();
            queue(manager);
            text = manager.LastErrorText();
        } else {
            kvpcie::capi::RunOnCard(card, text, queue);
        }
        if (queued) {
            return Succeed();
        }
        if (firstOfRun && card->injectClaimed[channel].exchange(false)) {
            // Refused before the channel started: it stays free for other handles.
            card->lease->Unclaim(KvPCIe::SharedCard::Direction::Inject,
                                 static_cast<unsigned>(channel));
        }
        if (error == ERR_QUEUE_FULL) {
            return Fail(KVPCIE_QUEUE_FULL, text.empty() ? "15 frames wait on the channel" : text);
        }
        if (card->lease->IsLost()) {
            return Fail(KVPCIE_CARD_LOST, text);
        }
        return Fail(error == ERR_NO_CARD ? KVPCIE_NO_CARD : KVPCIE_ERROR, text);
    });
}

}  // namespace

extern "C" {

kvpcie_status KVPCIE_CALL kvpcie_inject(kvpcie_card* card, int32_t channel, int32_t frame_rate,
                                        int32_t width, int32_t height, int32_t pixel_type,
                                        const void* frame) {
    return Inject(card, channel, frame_rate, width, height, pixel_type, 0, frame);
}

kvpcie_status KVPCIE_CALL kvpcie_inject_with_format(kvpcie_card* card, int32_t channel,
                                                    const kvpcie_inject_format* format,
                                                    const void* frame) {
    if (format == nullptr) {
        return Fail(KVPCIE_BAD_ARGUMENT, "the format record is null");
    }
    // An older caller's shorter record: what it does not hold reads as 0.
    kvpcie_inject_format ours{};
    const std::uint32_t size = format->size;
    if (size < offsetof(kvpcie_inject_format, line_period)) {
        return Fail(KVPCIE_BAD_ARGUMENT, "set the record's size before the call");
    }
    std::memcpy(&ours, format, std::min<std::size_t>(size, sizeof ours));
    return Inject(card, channel, ours.frame_rate, ours.width, ours.height, ours.pixel_type,
                  ours.line_period, frame);
}

kvpcie_status KVPCIE_CALL kvpcie_set_param_simulate(kvpcie_card* card, int32_t channel,
                                                    int32_t enable, const void* params,
                                                    size_t bytes) {
    return Guarded([&] {
        if (const kvpcie_status refused = kvpcie::capi::RequireXdmaChannel(card, channel)) {
            return refused;
        }
        tagThermalImgParams record{};
        if (bytes != sizeof record || params == nullptr) {
            return Fail(KVPCIE_BAD_ARGUMENT,
                        "the parameter record has " + std::to_string(sizeof record) + " bytes");
        }
        if (const kvpcie_status refused = kvpcie::capi::RequireNotInFrameCallback()) {
            return refused;
        }
        std::memcpy(&record, params, sizeof record);
        std::string text;
        kvpcie::capi::RunOnCard(card, text, [&](PCIeDataManager& manager) {
            manager.UpdateParamSimulate(channel, enable != 0, record);
        });
        return Succeed();
    });
}

kvpcie_status KVPCIE_CALL kvpcie_stop_inject(kvpcie_card* card, int32_t channel) {
    return Guarded([&] {
        if (const kvpcie_status refused = kvpcie::capi::RequireXdmaChannel(card, channel)) {
            return refused;
        }
        if (kvpcie::capi::RequireNotInFrameCallback() != KVPCIE_OK) {
            return KVPCIE_ERROR;
        }
        if (card->injectClaimed[channel]) {
            card->lease->Run([&](PCIeDataManager& manager) { manager.StopInject(channel); });
            if (card->injectClaimed[channel].exchange(false)) {
                card->lease->Unclaim(KvPCIe::SharedCard::Direction::Inject,
                                     static_cast<unsigned>(channel));
            }
        }
        return Succeed();
    });
}

int32_t KVPCIE_CALL kvpcie_is_injecting(kvpcie_card* card, int32_t channel) {
    bool injecting = false;
    Guarded([&] {
        if (const kvpcie_status refused = kvpcie::capi::RequireXdmaChannel(card, channel)) {
            return refused;
        }
        if (kvpcie::capi::RequireNotInFrameCallback() != KVPCIE_OK) {
            return KVPCIE_ERROR;
        }
        if (card->injectClaimed[channel]) {
            card->lease->Run(
                [&](PCIeDataManager& manager) { injecting = manager.IsStartInject(channel); });
        }
        return Succeed();
    });
    return injecting ? 1 : 0;
}

kvpcie_status KVPCIE_CALL kvpcie_send_command(kvpcie_card* card, int32_t channel,
                                              const void* bytes, size_t length) {
    return Guarded([&] {
        if (const kvpcie_status refused = kvpcie::capi::RequireXdmaChannel(card, channel)) {
            return refused;
        }
        if (bytes == nullptr || length == 0 || length > 1024) {
            return Fail(KVPCIE_BAD_ARGUMENT, "a command has 1 to 1,024 bytes");
        }
        PCIeDataManager& manager = card->lease->AnyThreadManager();
        const bool sent = manager.WriteControlCmd(
            channel, QByteArray(static_cast<const char*>(bytes), static_cast<int>(length)));
        if (sent) {
            return Succeed();
        }
        const std::string text = manager.LastErrorText();
        return Fail(KVPCIE_ERROR,
                    text.empty() ? "the command did not reach the card within 40 ms" : text);
    });
}

kvpcie_status KVPCIE_CALL kvpcie_capture_statistics_get(kvpcie_card* card, int32_t channel,
                                                        kvpcie_capture_statistics* statistics) {
    return StatisticsCall<KvCaptureStatistics>(
        card, channel, statistics, &PCIeDataManager::GetCaptureStatistics,
        [](const KvCaptureStatistics& counts, kvpcie_capture_statistics& ours) {
            KVPCIE_CAPTURE_STATISTICS_FIELDS(KVPCIE_COPY_COUNT)
        });
}

kvpcie_status KVPCIE_CALL kvpcie_inject_statistics_get(kvpcie_card* card, int32_t channel,
                                                       kvpcie_inject_statistics* statistics) {
    return StatisticsCall<KvInjectStatistics>(
        card, channel, statistics, &PCIeDataManager::GetInjectStatistics,
        [](const KvInjectStatistics& counts, kvpcie_inject_statistics& ours) {
            KVPCIE_INJECT_STATISTICS_FIELDS(KVPCIE_COPY_COUNT)
        });
}


kvpcie_status KVPCIE_CALL kvpcie_capture_delays(kvpcie_card* card, int32_t channel,
                                                kvpcie_delay* delays, int32_t count,
                                                int32_t* filled) {
    return Delays(card, channel, delays, count, filled, true);
}

kvpcie_status KVPCIE_CALL kvpcie_inject_delays(kvpcie_card* card, int32_t channel,
                                               kvpcie_delay* delays, int32_t count,
                                               int32_t* filled) {
    return Delays(card, channel, delays, count, filled, false);
}

}  // extern "C"
