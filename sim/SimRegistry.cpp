// Simulated devices of the process: created from KVPCIE_SIM or through the control API.
#include "SimRegistry.h"

#include <cstdio>
#include <cstdlib>

namespace kvpcie::sim {

SimRegistry& SimRegistry::Instance() {
    static SimRegistry* registry = new SimRegistry;
    return *registry;
}

void SimRegistry::SyncWithEnvironmentLocked() {
    const char* raw = std::getenv("KVPCIE_SIM");
    const std::string value = raw != nullptr ? raw : "";
    if (environmentSeen_ && *environmentSeen_ == value) {
        return;
    }
    environmentSeen_ = value;
    const std::optional<SimConfig> config = ParseSimConfig(value);
    if (!config) {
        std::fprintf(stderr,
                     "kvpcie: KVPCIE_SIM=\"%s\" is not understood (use 1 or xdma:N,riffa:M with "
                     "N, M from 0 to 8); no simulated device is present\n",
                     value.c_str());
    }
    ApplyLocked(config.value_or(SimConfig{}));
}

void SimRegistry::ApplyLocked(const SimConfig& config) {
    for (auto& entry : xdmaCards_) {
        entry.second->SetRemoved(true);
    }
    xdmaCards_.clear();
    for (int number = 0; number < config.xdmaCards; ++number) {
        xdmaCards_[number] = std::make_shared<SimXdmaCard>(number);
    }
    for (auto& entry : riffaDevices_) {
        entry.second->SetRemoved();
    }
    riffaDevices_.clear();
    for (int number = 0; number < config.riffaDevices; ++number) {
        riffaDevices_[number] = std::make_shared<SimRiffaDevice>(number);
    }
}

std::vector<std::shared_ptr<SimXdmaCard>> SimRegistry::XdmaCards() {
    std::lock_guard<std::mutex> lock(mutex_);
    SyncWithEnvironmentLocked();
    std::vector<std::shared_ptr<SimXdmaCard>> cards;
    cards.reserve(xdmaCards_.size());
    for (const auto& entry : xdmaCards_) {
        cards.push_back(entry.second);
    }
    return cards;
}

std::shared_ptr<SimXdmaCard> SimRegistry::FindXdmaCard(int number) {
    std::lock_guard<std::mutex> lock(mutex_);
    SyncWithEnvironmentLocked();
    const auto found = xdmaCards_.find(number);
    return found == xdmaCards_.end() ? nullptr : found->second;
}

std::vector<std::shared_ptr<SimRiffaDevice>> SimRegistry::RiffaDevices() {
    std::lock_guard<std::mutex> lock(mutex_);
    SyncWithEnvironmentLocked();
    std::vector<std::shared_ptr<SimRiffaDevice>> devices;
    devices.reserve(riffaDevices_.size());
    for (const auto& entry : riffaDevices_) {
        devices.push_back(entry.second);
    }
    return devices;
}

std::shared_ptr<SimRiffaDevice> SimRegistry::FindRiffaDevice(int number) {
    std::lock_guard<std::mutex> lock(mutex_);
    SyncWithEnvironmentLocked();
    const auto found = riffaDevices_.find(number);
    return found == riffaDevices_.end() ? nullptr : found->second;
}

bool SimRegistry::Configure(std::string_view value) {
    const std::optional<SimConfig> config = ParseSimConfig(value);
    if (!config) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    // Read the environment first, so that it does not override this on the next lookup.
    SyncWithEnvironmentLocked();
    ApplyLocked(*config);
    return true;
}

int SimRegistry::AddXdmaCard() {
    std::lock_guard<std::mutex> lock(mutex_);
    SyncWithEnvironmentLocked();
    const int number = xdmaCards_.empty() ? 0 : xdmaCards_.rbegin()->first + 1;
    xdmaCards_[number] = std::make_shared<SimXdmaCard>(number);
    return number;
}

bool SimRegistry::RemoveXdmaCard(int number) {
    std::lock_guard<std::mutex> lock(mutex_);
    SyncWithEnvironmentLocked();
    const auto found = xdmaCards_.find(number);
    if (found == xdmaCards_.end()) {
        return false;
    }
    found->second->SetRemoved(true);
    xdmaCards_.erase(found);
    return true;
}

int SimRegistry::AddRiffaDevice() {
    std::lock_guard<std::mutex> lock(mutex_);
    SyncWithEnvironmentLocked();
    const int number = riffaDevices_.empty() ? 0 : riffaDevices_.rbegin()->first + 1;
    riffaDevices_[number] = std::make_shared<SimRiffaDevice>(number);
    return number;
}

bool SimRegistry::RemoveRiffaDevice(int number) {
    std::lock_guard<std::mutex> lock(mutex_);
    SyncWithEnvironmentLocked();
    const auto found = riffaDevices_.find(number);
    if (found == riffaDevices_.end()) {
        return false;
    }
    found->second->SetRemoved();
    riffaDevices_.erase(found);
    return true;
}

}  // namespace kvpcie::sim
