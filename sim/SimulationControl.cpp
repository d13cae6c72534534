// The public control API of the simulated card.
#include "SimRegistry.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <chrono>

namespace KvPCIeSim {

using kvpcie::sim::SimRegistry;

namespace {
std::shared_ptr<kvpcie::sim::SimXdmaCard> Find(int card) {
    return SimRegistry::Instance().FindXdmaCard(card);
}

std::shared_ptr<kvpcie::sim::SimRiffaDevice> FindRiffa(int device) {
    return SimRegistry::Instance().FindRiffaDevice(device);
}
}  // namespace

bool Configure(const char* value) {
    return value != nullptr && SimRegistry::Instance().Configure(value);
}

int AddXdmaCard() {
    return SimRegistry::Instance().AddXdmaCard();
}

bool RemoveXdmaCard(int card) {
    return SimRegistry::Instance().RemoveXdmaCard(card);
}

std::vector<int> XdmaCardNumbers() {
    std::vector<int> numbers;
    for (const auto& card : SimRegistry::Instance().XdmaCards()) {
        numbers.push_back(card->Number());
    }
    return numbers;
}

std::string XdmaCardPath(int card) {
    return "sim:xdma" + std::to_string(card);
}

bool RaiseUserEvent(int card, int event) {
    const auto found = Find(card);
    return found != nullptr && found->RaiseUserEvent(event);
}

bool SetUserEventTimeout(int card, int milliseconds) {
    const auto found = Find(card);
    if (found == nullptr || milliseconds < 0) {
        return false;
    }
    found->SetEventTimeout(std::chrono::milliseconds(milliseconds));
    return true;
}

bool SetSurpriseRemoved(int card, bool removed) {
    const auto found = Find(card);
    if (found == nullptr) {
        return false;
    }
    found->SetRemoved(removed);
    return true;
}

bool SetNodeAbsent(int card, const char* node, bool absent) {
    const auto found = Find(card);
    if (found == nullptr || node == nullptr) {
        return false;
    }
    found->SetNodeAbsent(node, absent);
    return true;
}

std::vector<CardAccess> TakeAccessLog(int card) {
    const auto found = Find(card);
    return found != nullptr ? found->TakeAccessLog() : std::vector<CardAccess>{};
}

bool ReadCounters(int card, CardCounters& counters) {
    const auto found = Find(card);
    if (found == nullptr) {
        return false;
    }
    counters = found->ReadCounters();
    return true;
}

bool PeekRegister(int card, std::uint32_t address, std::uint32_t& value) {
    const auto found = Find(card);
    if (found == nullptr) {
        return false;
    }
    value = found->PeekRegister(address);
    return true;
}

bool PeekMemory(int card, std::uint64_t address, void* buffer, std::size_t size) {
    const auto found = Find(card);
    if (found == nullptr || (buffer == nullptr && size != 0)) {
        return false;
    }
    return found->Memory().Read(address, buffer, size) == size;
}

bool PokeMemory(int card, std::uint64_t address, const void* data, std::size_t size) {
    const auto found = Find(card);
    if (found == nullptr || (data == nullptr && size != 0)) {
        return false;
    }
    return found->Memory().Write(address, data, size) == size;
}

bool PokeRegister(int card, std::uint32_t address, std::uint32_t value) {
    const auto found = Find(card);
    if (found == nullptr) {
        return false;
    }
    found->PokeRegister(address, value);
    return true;
}

bool ProduceCaptureFrames(int card, int channel, int count) {
    const auto found = Find(card);
    return found != nullptr && found->ProduceCaptureFrames(channel, count);
}

bool CaptureReadyTime(int card, int channel, std::uint32_t frameNumber, std::int64_t& steadyNanos) {
    const auto found = Find(card);
    std::chrono::steady_clock::time_point ready;
    if (found == nullptr || !found->CaptureReadyTime(channel, frameNumber, ready)) {
        return false;
    }
    steadyNanos =
        std::chrono::duration_cast<std::chrono::nanoseconds>(ready.time_since_epoch()).count();
    return true;
}

bool InjectRefillTimes(int card, int channel, std::int64_t& longestNanos, std::uint64_t& count) {
    const auto found = Find(card);
    return found != nullptr && found->InjectRefillTimes(channel, longestNanos, count);
}

bool RestartInjectRefillTimes(int card, int channel) {
    const auto found = Find(card);
    return found != nullptr && found->RestartInjectRefillTimes(channel);
}

int AddRiffaDevice() {
    return SimRegistry::Instance().AddRiffaDevice();
}

bool RemoveRiffaDevice(int device) {
    return SimRegistry::Instance().RemoveRiffaDevice(device);
}

std::vector<int> RiffaDeviceNumbers() {
    std::vector<int> numbers;
    for (const auto& device : SimRegistry::Instance().RiffaDevices()) {
        numbers.push_back(device->Number());
    }
    return numbers;
}

std::string RiffaDevicePath(int device) {
    return "sim:riffa" + std::to_string(device);
}

bool SetRiffaNeverAnswers(int device, bool never) {
    const auto found = FindRiffa(device);
    if (found == nullptr) {
        return false;
    }
    found->SetNeverAnswers(never);
    return true;
}

std::vector<RiffaRequest> TakeRiffaRequestLog(int device) {
    const auto found = FindRiffa(device);
    return found != nullptr ? found->TakeRequestLog() : std::vector<RiffaRequest>{};
}

bool PeekRiffaRegister(int device, std::uint32_t address, std::uint32_t& value) {
    const auto found = FindRiffa(device);
    if (found == nullptr) {
        return false;
    }
    value = found->PeekRegister(address);
    return true;
}

bool PokeRiffaRegister(int device, std::uint32_t address, std::uint32_t value) {
    const auto found = FindRiffa(device);
    if (found == nullptr) {
        return false;
    }
    found->PokeRegister(address, value);
    return true;
}

}  // namespace KvPCIeSim
