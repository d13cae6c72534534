// The files that kvpcie-simd serves, as the Linux XDMA driver and sysfs present them, and the
// few that the Windows driver model forwards to: what a path names, and what each directory
// lists. No FUSE here, so that the naming can be tested alone.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kvpcie::simd {

enum class NodeKind {
    Directory,
    User,        // /dev/xdmaN_user: the card's registers, 4 bytes at a time
    Control,     // /dev/xdmaN_control: the driver's own registers (zeros on the model)
    CardToHost,  // /dev/xdmaN_c2h_0
    HostToCard,  // /dev/xdmaN_h2c_0
    Events,      // /dev/xdmaN_events_E
    PciVendor,   // /sys/bus/pci/devices/<address>/vendor
    PciDevice,   // /sys/bus/pci/devices/<address>/device
    PciRemove,   // /sys/bus/pci/devices/<address>/remove
    PciRescan,   // /sys/bus/pci/rescan
    // For the Windows driver model, whose event files answer one byte and give up:
    WineEvent,    // /wine/xdmaN_event_E: a read waits at most its offset in ms; 1 raised, 0 not
    WineRestart,  // /wine/xdmaN_restart: "1" restarts the card as a removal and rescan do
    WineRiffa,    // /wine/riffaN: card N's RIFFA device, one request and answer at a time
};

struct Node {
    NodeKind kind = NodeKind::Directory;
    int card = -1;   // the card that the node belongs to; -1 for directories and rescan
    int event = -1;  // Events only
};

// What the model answers in directory listings and lookups: which cards are on the bus now.
class CardPresence {
public:
    virtual ~CardPresence() = default;
    virtual int CardCount() const = 0;
    virtual bool IsPresent(int card) const = 0;
};

// The node at `path` (as FUSE gives it: "/dev/xdma0_user"), or nullopt when there is none;
// nodes of a card that is not present are not there.
std::optional<Node> FindNode(const std::string& path, const CardPresence& cards);

// The entry names of the directory at `path`; nullopt when `path` is no directory.
std::optional<std::vector<std::string>> ListDirectory(const std::string& path,
                                                      const CardPresence& cards);

// "0000:01:00.0" for card 0: one bus per card, as each card sits in a slot of its own.
std::string PciAddress(int card);

// Texts of the read-only sysfs attributes.
std::string PciAttributeText(NodeKind kind);

}  // namespace kvpcie::simd
