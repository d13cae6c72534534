// The holder of the process's XDMA card.
#include "CardHolder.h"

#include "ErrorText.h"
#include "PCIeDataManagerPrivate.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaDevice.h"

#include <atomic>
#include <shared_mutex>

namespace kvpcie {
namespace {

// Records live as long as the process, so the pointer never dangles.
std::atomic<PCIeDataManagerPrivate*> holder{nullptr};

bool HasRunningChannels(PCIeDataManagerPrivate* record) {
    std::shared_lock<WriterFirstSharedMutex> engines(record->xdmaEngineLock);
    for (int c = 0; c < xdma::kChannelCount; ++c) {
        if ((record->xdmaCapture != nullptr && record->xdmaCapture->IsStartCapture(c)) ||
            (record->xdmaInject != nullptr && record->xdmaInject->IsStartInject(c))) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool IsCardHeldByAnother(PCIeDataManagerPrivate* record) {
    PCIeDataManagerPrivate* current = holder.load(std::memory_order_acquire);
    return current != nullptr && current != record && xdma::XdmaIsOpen() &&
           HasRunningChannels(current);
}

bool CardHeldByAnother(PCIeDataManagerPrivate* record, const char* operation) {
    if (!IsCardHeldByAnother(record)) {
        return false;
    }
    SetErrorText(
        "%s is refused: another PCIeDataManager has channels running on the open XDMA "
        "card; stop them or use a copy of that manager",
        operation);
    return true;
}

void SetCardHolder(PCIeDataManagerPrivate* record) {
    holder.store(record, std::memory_order_release);
}

}  // namespace kvpcie
