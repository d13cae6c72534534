// Path naming of the driver model's files.
#include "ModelNodes.h"

#include "sim/DecimalText.h"
#include "sim/SimCardRegisters.h"

#include <cstdio>
#include <string_view>

namespace kvpcie::simd {
namespace {

constexpr std::string_view kDevDir = "/dev/";
constexpr std::string_view kPciDevicesDir = "/sys/bus/pci/devices/";
constexpr std::string_view kNodePrefix = "xdma";
constexpr std::string_view kEventsPrefix = "events_";
constexpr std::string_view kWineDir = "/wine/";
constexpr std::string_view kWineEventPrefix = "event_";
constexpr std::string_view kRiffaPrefix = "riffa";

bool StartsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

// "0_user" of "xdma0_user": the card number and what follows its underscore.
std::optional<int> SplitCardNode(std::string_view name, std::string_view& node) {
    if (!StartsWith(name, kNodePrefix)) {
        return std::nullopt;
    }
    name.remove_prefix(kNodePrefix.size());
    const std::size_t underscore = name.find('_');
    if (underscore == std::string_view::npos) {
        return std::nullopt;
    }
    node = name.substr(underscore + 1);
    return sim::ParseDecimal(name.substr(0, underscore), 2, 99);
}

// The card of "xdmaN_..." when it is present and N is written without leading zeros, so that
// one node has one name; `node` gets what follows the underscore.
std::optional<int> PresentCardNode(std::string_view name, std::string_view& node,
                                   const CardPresence& cards) {
    const std::optional<int> card = SplitCardNode(name, node);
    if (!card || !cards.IsPresent(*card) ||
        name != std::string(kNodePrefix) + std::to_string(*card) + "_" + std::string(node)) {
        return std::nullopt;
    }
    return card;
}

// The event number of "<prefix>E", E in canonical decimal within the card's events.
std::optional<int> EventNumber(std::string_view node, std::string_view prefix) {
    if (!StartsWith(node, prefix)) {
        return std::nullopt;
    }
    const std::string_view digits = node.substr(prefix.size());
    const std::optional<int> event = sim::ParseDecimal(digits, 2, sim::kUserEventCount - 1);
    return event && digits == std::to_string(*event) ? event : std::nullopt;
}

std::optional<Node> FindWineNode(std::string_view name, const CardPresence& cards) {
    if (StartsWith(name, kRiffaPrefix)) {
        const std::string_view digits = name.substr(kRiffaPrefix.size());
        const std::optional<int> card = sim::ParseDecimal(digits, 2, 99);
        if (card && digits == std::to_string(*card) && cards.IsPresent(*card)) {
            return Node{NodeKind::WineRiffa, *card};
        }
        return std::nullopt;
    }
    std::string_view node;
    const std::optional<int> card = PresentCardNode(name, node, cards);
    if (!card) {
        return std::nullopt;
    }
    if (node == "restart") {
        return Node{NodeKind::WineRestart, *card};
    }
    if (const std::optional<int> event = EventNumber(node, kWineEventPrefix)) {
        return Node{NodeKind::WineEvent, *card, *event};
    }
    return std::nullopt;
}

std::optional<Node> FindDevNode(std::string_view name, const CardPresence& cards) {
    std::string_view node;
    const std::optional<int> card = PresentCardNode(name, node, cards);
    if (!card) {
        return std::nullopt;
    }
    if (node == "user") {
        return Node{NodeKind::User, *card};
    }
    if (node == "control") {
        return Node{NodeKind::Control, *card};
    }
    if (node == "c2h_0") {
        return Node{NodeKind::CardToHost, *card};
    }
    if (node == "h2c_0") {
        return Node{NodeKind::HostToCard, *card};
    }
    if (const std::optional<int> event = EventNumber(node, kEventsPrefix)) {
        return Node{NodeKind::Events, *card, *event};
    }
    return std::nullopt;
}

std::optional<int> FindPciCard(std::string_view address, const CardPresence& cards) {
    for (int card = 0; card < cards.CardCount(); ++card) {
        if (address == PciAddress(card)) {
            return cards.IsPresent(card) ? std::optional<int>(card) : std::nullopt;
        }
    }
    return std::nullopt;
}

std::optional<Node> FindPciNode(std::string_view rest, const CardPresence& cards) {
    const std::size_t slash = rest.find('/');
    const std::optional<int> card = FindPciCard(rest.substr(0, slash), cards);
    if (!card) {
        return std::nullopt;
    }
    if (slash == std::string_view::npos) {
        return Node{NodeKind::Directory, *card};
    }
    const std::string_view attribute = rest.substr(slash + 1);
    if (attribute == "vendor") {
        return Node{NodeKind::PciVendor, *card};
    }
    if (attribute == "device") {
        return Node{NodeKind::PciDevice, *card};
    }
    if (attribute == "remove") {
        return Node{NodeKind::PciRemove, *card};
    }
    return std::nullopt;
}

}  // namespace

std::string PciAddress(int card) {
    char text[16];
    std::snprintf(text, sizeof text, "0000:%02x:00.0", (card + 1) & 0xFF);
    return text;
}

std::string PciAttributeText(NodeKind kind) {
    switch (kind) {
        case NodeKind::PciVendor:
            return "0x10ee\n";
        case NodeKind::PciDevice:
            return "0x9038\n";  // the XDMA IP's default device ID for a Gen3 x8 endpoint
        default:
            return {};
    }
}

std::optional<Node> FindNode(const std::string& path, const CardPresence& cards) {
    const std::string_view view = path;
    for (std::string_view directory :
         {"/", "/dev", "/sys", "/sys/bus", "/sys/bus/pci", "/sys/bus/pci/devices", "/wine"}) {
        if (view == directory) {
            return Node{};
        }
    }
    if (view == "/sys/bus/pci/rescan") {
        return Node{NodeKind::PciRescan};
    }
    if (StartsWith(view, kDevDir)) {
        return FindDevNode(view.substr(kDevDir.size()), cards);
    }
    if (StartsWith(view, kPciDevicesDir)) {
        return FindPciNode(view.substr(kPciDevicesDir.size()), cards);
    }
    if (StartsWith(view, kWineDir)) {
        return FindWineNode(view.substr(kWineDir.size()), cards);
    }
    return std::nullopt;
}

std::optional<std::vector<std::string>> ListDirectory(const std::string& path,
                                                      const CardPresence& cards) {
    const std::optional<Node> node = FindNode(path, cards);
    if (!node || node->kind != NodeKind::Directory) {
        return std::nullopt;
    }
    if (path == "/") {
        return std::vector<std::string>{"dev", "sys", "wine"};
    }
    if (path == "/sys") {
        return std::vector<std::string>{"bus"};
    }
    if (path == "/sys/bus") {
        return std::vector<std::string>{"pci"};
    }
    if (path == "/sys/bus/pci") {
        return std::vector<std::string>{"devices", "rescan"};
    }
    std::vector<std::string> names;
    if (node->card >= 0) {
        return std::vector<std::string>{"device", "remove", "vendor"};
    }
    for (int card = 0; card < cards.CardCount(); ++card) {
        if (!cards.IsPresent(card)) {
            continue;
        }
        if (path == "/sys/bus/pci/devices") {
            names.push_back(PciAddress(card));
            continue;
        }
        const std::string base = std::string(kNodePrefix) + std::to_string(card) + "_";
        if (path == "/wine") {
            for (int event = 0; event < sim::kUserEventCount; ++event) {
                names.push_back(base + std::string(kWineEventPrefix) + std::to_string(event));
            }
            names.push_back(base + "restart");
            names.push_back(std::string(kRiffaPrefix) + std::to_string(card));
            continue;
        }
        for (const char* node : {"user", "control", "c2h_0", "h2c_0"}) {
            names.push_back(base + node);
        }
        for (int event = 0; event < sim::kUserEventCount; ++event) {
            names.push_back(base + std::string(kEventsPrefix) + std::to_string(event));
        }
    }
    return names;
}

}  // namespace kvpcie::simd
