// The "sim:" route of the OS layer: device files of the simulated cards, their listing (and the
// simulated RIFFA devices') and restart.
#include "platform/Backend.h"
#include "platform/SystemError.h"

#include "sim/DecimalText.h"
#include "sim/SimCardRegisters.h"
#include "sim/SimRegistry.h"

#include "drivers/XdmaCardRegisters.h"

#include <atomic>
#include <optional>

namespace kvpcie::platform::simulated {
namespace {

using sim::SimXdmaCard;
using CardPtr = std::shared_ptr<SimXdmaCard>;

constexpr char kXdmaPrefix[] = "sim:xdma";
constexpr char kRiffaPrefix[] = "sim:riffa";

// What the files of every kind share: the card, the access mask, the position, the cancel.
class SimFile : public DeviceFile {
public:
    SimFile(CardPtr card, unsigned access) : card_(std::move(card)), access_(access) {
        card_->FileOpened();
    }
    ~SimFile() override { card_->FileClosed(); }

    bool Seek(std::int64_t position) override {
        if (position < 0) {
            SetLastError(Error::InvalidParameter);
            return false;
        }
        position_ = static_cast<std::uint64_t>(position);
        return true;
    }

    void Cancel() override { cancelled_.store(true, std::memory_order_release); }

protected:
    // Common refusals, in the order a driver would meet them.
    bool MayTransfer(unsigned neededAccess, const void* buffer, std::uint32_t size) {
        if (cancelled_.load(std::memory_order_acquire)) {
            SetLastError(Error::OperationAborted);
            return false;
        }
        if ((access_ & neededAccess) == 0) {
            SetLastError(Error::AccessDenied);
            return false;
        }
        if (buffer == nullptr && size != 0) {
            SetLastError(Error::InvalidParameter);
            return false;
        }
        return true;
    }

    CardPtr card_;
    unsigned access_;
    std::uint64_t position_ = 0;
    std::atomic<bool> cancelled_{false};
};

// "user" (the FPGA's registers) and "control" (the driver's own, which reads zeros here).
// Both move whole 32-bit words, as the registers are.
class SimRegisterFile final : public SimFile {
public:
    SimRegisterFile(CardPtr card, unsigned access, bool driverControlSpace)
        : SimFile(std::move(card), access), driverControlSpace_(driverControlSpace) {}

    bool Read(void* buffer, std::uint32_t size, std::uint32_t& moved) override {
        moved = 0;
        if (!MayTransfer(kAccessRead, buffer, size) || !WordAligned(size)) {
            return false;
        }
        auto* out = static_cast<std::uint8_t*>(buffer);
        while (moved < size && position_ < sim::kUserSpaceBytes) {
            std::uint32_t value = 0;
            if (!driverControlSpace_ &&
                !card_->ReadRegister(static_cast<std::uint32_t>(position_), value)) {
                SetLastError(Error::DeviceRemoved);
                return false;
            }
            for (int byte = 0; byte < 4; ++byte) {
                out[moved++] = static_cast<std::uint8_t>(value >> (8 * byte));
            }
            position_ += 4;
        }
        return true;
    }

    bool Write(const void* buffer, std::uint32_t size, std::uint32_t& moved) override {
        moved = 0;
        if (!MayTransfer(kAccessWrite, buffer, size) || !WordAligned(size)) {
            return false;
        }
        const auto* in = static_cast<const std::uint8_t*>(buffer);
        while (moved < size && position_ < sim::kUserSpaceBytes) {
            std::uint32_t value = 0;
            for (int byte = 0; byte < 4; ++byte) {
                value |= std::uint32_t{in[moved + byte]} << (8 * byte);
            }
            if (!driverControlSpace_ &&
                !card_->WriteRegister(static_cast<std::uint32_t>(position_), value)) {
                SetLastError(Error::DeviceRemoved);
                return false;
            }
            moved += 4;
            position_ += 4;
        }
        return true;
    }

private:
    bool WordAligned(std::uint32_t size) const {
        if (position_ % 4 != 0 || size % 4 != 0) {
            SetLastError(Error::InvalidParameter);
            return false;
        }
        return true;
    }

    const bool driverControlSpace_;
};

// "c2h_0" and "h2c_0": DMA between the host's buffer and card memory at the position.
class SimDmaFile final : public SimFile {
public:
    SimDmaFile(CardPtr card, unsigned access, bool cardToHost)
        : SimFile(std::move(card), access), cardToHost_(cardToHost) {}

    bool Read(void* buffer, std::uint32_t size, std::uint32_t& moved) override {
        moved = 0;
        if (!cardToHost_) {
            SetLastError(Error::InvalidParameter);
            return false;
        }
        if (!MayTransfer(kAccessRead, buffer, size) || !WithinDriverLimit(size)) {
            return false;
        }
        if (!card_->ReadMemory(position_, buffer, size, moved)) {
            SetLastError(TransferError());
            return false;
        }
        position_ += moved;
        return true;
    }

    bool Write(const void* buffer, std::uint32_t size, std::uint32_t& moved) override {
        moved = 0;
        if (cardToHost_) {
            SetLastError(Error::InvalidParameter);
            return false;
        }
        if (!MayTransfer(kAccessWrite, buffer, size) || !WithinDriverLimit(size)) {
            return false;
        }
        if (!card_->WriteMemory(position_, buffer, size, moved)) {
            SetLastError(TransferError());
            return false;
        }
        position_ += moved;
        return true;
    }

private:
    // A fault the card was told to inject is an I/O error; a removed card is gone.
    Error TransferError() const {
        return card_->IsRemoved() ? Error::DeviceRemoved : Error::IoFailed;
    }

    // A driver refuses a single request over its limit, so a missing split shows at once.
    bool WithinDriverLimit(std::uint32_t size) {
        if (size > xdma::kDmaChunkBytes) {
            card_->CountRefusedTransfer();
            SetLastError(Error::InvalidParameter);
            return false;
        }
        return true;
    }

    const bool cardToHost_;
};

// "event_<n>": a one-byte read that waits for user interrupt n; 1 when it was raised, 0 when
// the card's timeout passed first.
class SimEventFile final : public SimFile {
public:
    SimEventFile(CardPtr card, unsigned access, int event)
        : SimFile(std::move(card), access), event_(event) {}

    bool Read(void* buffer, std::uint32_t size, std::uint32_t& moved) override {
        moved = 0;
        if (!MayTransfer(kAccessRead, buffer, size)) {
            return false;
        }
        if (size == 0) {
            return true;
        }
        switch (card_->WaitUserEvent(event_, cancelled_)) {
            case SimXdmaCard::EventWait::Raised:
                *static_cast<std::uint8_t*>(buffer) = 1;
                break;
            case SimXdmaCard::EventWait::TimedOut:
                *static_cast<std::uint8_t*>(buffer) = 0;
                break;
            case SimXdmaCard::EventWait::Failed:
                SetLastError(card_->IsRemoved() ? Error::DeviceRemoved : Error::OperationAborted);
                return false;
        }
        moved = 1;
        return true;
    }

    bool Write(const void*, std::uint32_t, std::uint32_t& moved) override {
        moved = 0;
        SetLastError(Error::InvalidParameter);
        return false;
    }

    void Cancel() override {
        SimFile::Cancel();
        card_->WakeEventWaiters();
    }

private:
    const int event_;
};

DeviceFilePtr OpenNode(CardPtr card, const std::string& node, unsigned access) {
    if (card->IsNodeAbsent(node)) {
        SetLastError(Error::FileNotFound);
        return nullptr;
    }
    if (node == "user") {
        return std::make_unique<SimRegisterFile>(std::move(card), access, false);
    }
    if (node == "control") {
        return std::make_unique<SimRegisterFile>(std::move(card), access, true);
    }
    if (node == "c2h_0") {
        return std::make_unique<SimDmaFile>(std::move(card), access, true);
    }
    if (node == "h2c_0") {
        return std::make_unique<SimDmaFile>(std::move(card), access, false);
    }
    const std::string eventPrefix = "event_";
    if (node.compare(0, eventPrefix.size(), eventPrefix) == 0) {
        const std::optional<int> event =
            sim::ParseDecimal(node.substr(eventPrefix.size()), 2, sim::kUserEventCount - 1);
        if (event) {
            return std::make_unique<SimEventFile>(std::move(card), access, *event);
        }
    }
    SetLastError(Error::FileNotFound);
    return nullptr;
}

}  // namespace

bool IsSimulatedPath(const std::string& path) {
    return path.compare(0, sizeof(kPathPrefix) - 1, kPathPrefix) == 0;
}

DeviceFilePtr OpenDeviceFile(const std::string& path, unsigned access) {
    const std::size_t separator = path.rfind('\\');
    const std::string base = path.substr(0, separator);
    const std::size_t prefixLength = sizeof(kXdmaPrefix) - 1;
    const std::optional<int> number = base.compare(0, prefixLength, kXdmaPrefix) == 0
                                          ? sim::ParseDecimal(base.substr(prefixLength), 6, 999999)
                                          : std::nullopt;
    CardPtr card = number ? sim::SimRegistry::Instance().FindXdmaCard(*number) : nullptr;
    if (separator == std::string::npos || card == nullptr) {
        SetLastError(Error::FileNotFound);
        return nullptr;
    }
    // A card that dropped off the bus still opens: its files fail on every transfer until the
    // driver-level restart finds it again.
    return OpenNode(std::move(card), path.substr(separator + 1), access);
}

void ListDeviceInterfaces(const Guid& interfaceClass, std::vector<std::string>& paths) {
    if (interfaceClass == kXdmaInterfaceClass) {
        for (const auto& card : sim::SimRegistry::Instance().XdmaCards()) {
            paths.push_back(kXdmaPrefix + std::to_string(card->Number()));
        }
    } else if (interfaceClass == kRiffaInterfaceClass) {
        for (const auto& device : sim::SimRegistry::Instance().RiffaDevices()) {
            paths.push_back(kRiffaPrefix + std::to_string(device->Number()));
        }
    }
}

void RestartXilinxDevices() {
    // A second card opened beside a first one that captures must not stop the first.
    for (const auto& card : sim::SimRegistry::Instance().XdmaCards()) {
        card->RestartUnlessInUse();
    }
}

}  // namespace kvpcie::platform::simulated
