// Which manager holds which XDMA card.
#include "CardHolder.h"

#include "ErrorText.h"
#include "PCIeDataManagerPrivate.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaDevice.h"

#include <shared_mutex>

namespace kvpcie {
namespace {

bool HasRunningChannels(PCIeDataManagerPrivate& record) {
    std::shared_lock<WriterFirstSharedMutex> engines(record.xdmaEngineLock);
    for (int c = 0; c < xdma::kChannelCount; ++c) {
        if ((record.xdmaCapture != nullptr && record.xdmaCapture->IsStartCapture(c)) ||
            (record.xdmaInject != nullptr && record.xdmaInject->IsStartInject(c))) {
            return true;
        }
    }
    return false;
}

bool HasOpen(PCIeDataManagerPrivate& record, const char* path) {
    return record.card->XdmaIsOpen() && record.card->Path() == path;
}

}  // namespace

std::unique_lock<std::mutex> LockCardOpening() {
    static std::mutex opening;
    return std::unique_lock<std::mutex>(opening);
}

bool IsCardHeldByAnother(PCIeDataManagerPrivate* record, const char* path) {
    bool held = false;
    ForEachPCIeDataManagerPrivate([&](PCIeDataManagerPrivate& other) {
        held = held || (&other != record && HasOpen(other, path) && HasRunningChannels(other));
    });
    return held;
}

bool CardHeldByAnother(PCIeDataManagerPrivate* record, const char* path, const char* operation) {
    if (!IsCardHeldByAnother(record, path)) {
        return false;
    }
    SetErrorText(
        "%s is refused: another PCIeDataManager has channels running on the XDMA card "
        "\"%s\"; stop them or use a copy of that manager",
        operation, path);
    return true;
}

void TakeOverCard(PCIeDataManagerPrivate* record, const char* path) {
    ForEachPCIeDataManagerPrivate([&](PCIeDataManagerPrivate& other) {
        if (&other != record && HasOpen(other, path)) {
            other.card->XdmaClose();
        }
    });
}

}  // namespace kvpcie
