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
    riffaDevices_ = config.riffaDevices;
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

int SimRegistry::RiffaDeviceCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    SyncWithEnvironmentLocked();
    return riffaDevices_;
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

}  // namespace kvpcie::sim
