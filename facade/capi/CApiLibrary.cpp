// The C interface's library-wide calls: version, error text, listing, and the simulated card.
#include "facade/capi/CApiCard.h"
#include "facade/capi/CApiErrors.h"

#include <KvPCIeInjectSdk/KvPCIeRecording.h>
#include <KvPCIeInjectSdk/KvPCIeSharedCard.h>
#include <KvPCIeInjectSdk/KvPCIeSimulation.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using kvpcie::capi::Fail;
using kvpcie::capi::Guarded;
using kvpcie::capi::Succeed;

struct kvpcie_list {
    std::vector<std::string> paths;
};

extern "C" {

const char* KVPCIE_CALL kvpcie_version(void) {
    return KvPCIeInjectSdkVersionString();
}

const char* KVPCIE_CALL kvpcie_last_error(void) {
    return kvpcie::capi::LastErrorText();
}

uint64_t KVPCIE_CALL kvpcie_frame_bytes(int32_t pixel_type, int32_t width, int32_t height) {
    if (pixel_type < KVPCIE_UYVY422 || pixel_type > KVPCIE_PIXEL32 || width < 1 || height < 1) {
        return 0;
    }
    return KvFrameSizeBytes(static_cast<ePixelType>(pixel_type), width, height);
}

kvpcie_list* KVPCIE_CALL kvpcie_list_xdma(void) {
    kvpcie_list* listed = nullptr;
    Guarded([&] {
        if (const kvpcie_status refused = kvpcie::capi::RequireNotInFrameCallback()) {
            return refused;
        }
        auto list = std::make_unique<kvpcie_list>();
        list->paths = KvPCIe::SharedCard::ListCards();
        listed = list.release();
        return Succeed();
    });
    return listed;
}

int32_t KVPCIE_CALL kvpcie_list_count(const kvpcie_list* list) {
    return list != nullptr ? static_cast<int32_t>(list->paths.size()) : 0;
}

const char* KVPCIE_CALL kvpcie_list_path(const kvpcie_list* list, int32_t index) {
    if (list == nullptr || index < 0 || static_cast<std::size_t>(index) >= list->paths.size()) {
        Fail(KVPCIE_BAD_ARGUMENT, "no path " + std::to_string(index) + " in the list");
        return nullptr;
    }
    Succeed();
    return list->paths[static_cast<std::size_t>(index)].c_str();
}

void KVPCIE_CALL kvpcie_list_free(kvpcie_list* list) {
    delete list;
}

kvpcie_status KVPCIE_CALL kvpcie_list_riffa(kvpcie_riffa_device* devices, int32_t capacity,
                                            int32_t* count) {
    return Guarded([&] {
        if (count == nullptr || capacity < 0 || (devices == nullptr && capacity > 0)) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the device records or the count are null");
        }
        if (const kvpcie_status refused = kvpcie::capi::RequireNotInFrameCallback()) {
            return refused;
        }
        *count = 0;
        // The caller's array steps by the caller's record size, which may be an older,
        // shorter record than this library's: the first record's size gives the step.
        auto* records = reinterpret_cast<unsigned char*>(devices);
        std::uint32_t step = 0;
        if (capacity > 0) {
            std::memcpy(&step, records, sizeof step);
            if (step < sizeof step) {
                return Fail(KVPCIE_BAD_ARGUMENT, "set each record's size before the call");
            }
        }
        fpga_info_list list{};
        if (!KvPCIe::SharedCard::ListRiffa(list)) {
            return Fail(KVPCIE_ERROR, "the RIFFA driver gave no list");
        }
        const int listed = std::clamp(list.fpgaCount, 0, 5);
        for (int i = 0; i < std::min(listed, static_cast<int>(capacity)); ++i) {
            unsigned char* record = records + static_cast<std::size_t>(i) * step;
            std::uint32_t size = 0;
            std::memcpy(&size, record, sizeof size);
            if (size != step) {
                return Fail(KVPCIE_BAD_ARGUMENT, "record " + std::to_string(i) + " has size " +
                                                     std::to_string(size) + ", record 0 " +
                                                     std::to_string(step) +
                                                     ": set each record's size before the call");
            }
            kvpcie_riffa_device ours{};
            ours.size = size;
            ours.id = list.id[i];
            ours.channels = list.channelCount[i];
            std::memcpy(ours.name, list.name[i], sizeof ours.name);
            ours.vendor_id = list.vendorId[i];
            ours.device_id = list.deviceId[i];
            std::memcpy(record, &ours, std::min<std::size_t>(size, sizeof ours));
        }
        *count = listed;
        return Succeed();
    });
}

static_assert(KVPCIE_MAX_FRAME_SIDE == KvMaxFrameSide &&
                  KVPCIE_CARD_BUFFER_BYTES == KvCardBufferBytes,
              "the C interface's frame limits are the library's");

kvpcie_status KVPCIE_CALL kvpcie_set_record_root(const char* folder) {
    return Guarded([&] {
        if (folder == nullptr) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the folder is null");
        }
        KvPCIe::SetRecordRoot(QString::fromUtf8(folder));
        return Succeed();
    });
}

kvpcie_status KVPCIE_CALL kvpcie_record_root(char* folder, size_t capacity) {
    return Guarded([&] {
        return kvpcie::capi::CopyText(KvPCIe::RecordRoot().toUtf8().toStdString(), folder,
                                      capacity);
    });
}

kvpcie_status KVPCIE_CALL kvpcie_sim_configure(const char* cards) {
    return Guarded([&] {
        if (cards == nullptr) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the cards' description is null");
        }
        // It replaces the simulated cards, the one whose frame is in hand among them.
        if (const kvpcie_status refused = kvpcie::capi::RequireNotInFrameCallback()) {
            return refused;
        }
        return KvPCIeSim::Configure(cards)
                   ? Succeed()
                   : Fail(KVPCIE_BAD_ARGUMENT, std::string("\"") + cards +
                                                   "\" is not \"1\", \"\" or \"xdma:N,riffa:M\"");
    });
}

kvpcie_status KVPCIE_CALL kvpcie_sim_peek_register(int32_t card, uint32_t address,
                                                   uint32_t* value) {
    return Guarded([&] {
        if (value == nullptr) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the value pointer is null");
        }
        return KvPCIeSim::PeekRegister(card, address, *value)
                   ? Succeed()
                   : Fail(KVPCIE_NO_CARD, "no simulated card " + std::to_string(card));
    });
}

kvpcie_status KVPCIE_CALL kvpcie_sim_peek_memory(int32_t card, uint64_t address, void* buffer,
                                                 size_t bytes) {
    return Guarded([&] {
        if (buffer == nullptr) {
            return Fail(KVPCIE_BAD_ARGUMENT, "the buffer is null");
        }
        return KvPCIeSim::PeekMemory(card, address, buffer, bytes)
                   ? Succeed()
                   : Fail(KVPCIE_NO_CARD, "no simulated card " + std::to_string(card) +
                                              ", or the range is outside its memory");
    });
}

kvpcie_status KVPCIE_CALL kvpcie_sim_set_removed(int32_t card, int32_t removed) {
    return Guarded([&] {
        return KvPCIeSim::SetSurpriseRemoved(card, removed != 0)
                   ? Succeed()
                   : Fail(KVPCIE_NO_CARD, "no simulated card " + std::to_string(card));
    });
}

kvpcie_status KVPCIE_CALL kvpcie_sim_riffa_never_answers(int32_t device, int32_t never) {
    return Guarded([&] {
        return KvPCIeSim::SetRiffaNeverAnswers(device, never != 0)
                   ? Succeed()
                   : Fail(KVPCIE_NO_CARD, "no simulated RIFFA device " + std::to_string(device));
    });
}

}  // extern "C"
