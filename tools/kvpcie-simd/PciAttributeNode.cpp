// The sysfs PCI attributes: their texts, and the removal and rescan that writes ask for.
#include "PciAttributeNode.h"

#include "ModelFileSystem.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

namespace kvpcie::simd {
namespace {

// "1" (with or without a newline) is what sysfs's remove and rescan take.
bool SaysOne(const char* buffer, std::size_t size) {
    return size >= 1 && buffer[0] == '1' && (size == 1 || buffer[1] == '\n');
}

}  // namespace

int PciAttributeNode::Read(char* buffer, std::size_t size, std::int64_t offset) {
    if (node_.kind != NodeKind::PciVendor && node_.kind != NodeKind::PciDevice) {
        return -EINVAL;  // remove, rescan and restart are written only
    }
    const std::string text = PciAttributeText(node_.kind);
    if (offset < 0 || static_cast<std::size_t>(offset) >= text.size()) {
        return 0;
    }
    const std::size_t length = std::min(size, text.size() - static_cast<std::size_t>(offset));
    std::memcpy(buffer, text.data() + offset, length);
    return static_cast<int>(length);
}

int PciAttributeNode::Write(const char* buffer, std::size_t size, std::int64_t /*offset*/) {
    switch (node_.kind) {
        case NodeKind::PciRemove:
        case NodeKind::WineRestart:
            if (!SaysOne(buffer, size)) {
                return -EINVAL;
            }
            // Every process restarts the card when it opens it. A card whose files another
            // process holds is not pulled from under that process: the removal is refused, as
            // a device in use vetoes it, and the opener goes on without a restart.
            if (card_->ReadCounters().openFiles > 0) {
                return -EBUSY;
            }
            model_.RemoveCard(node_.card);
            // The Windows driver model restarts the card whole, as its device comes back.
            if (node_.kind == NodeKind::WineRestart) {
                model_.Rescan();
            }
            return static_cast<int>(size);
        case NodeKind::PciRescan:
            if (!SaysOne(buffer, size)) {
                return -EINVAL;
            }
            model_.Rescan();
            return static_cast<int>(size);
        default:
            return -EINVAL;  // the read-only attributes
    }
}

}  // namespace kvpcie::simd
