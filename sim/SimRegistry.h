// The process-wide set of simulated devices, kept in step with KVPCIE_SIM.
#pragma once

#include "SimConfig.h"
#include "SimRiffaDevice.h"
#include "SimXdmaCard.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvpcie::sim {

class SimRegistry {
public:
    // Never destroyed: device files and card threads may still use it while statics go away.
    static SimRegistry& Instance();

    // Devices in number order, after re-reading KVPCIE_SIM if its value changed.
    std::vector<std::shared_ptr<SimXdmaCard>> XdmaCards();
    std::shared_ptr<SimXdmaCard> FindXdmaCard(int number);
    std::vector<std::shared_ptr<SimRiffaDevice>> RiffaDevices();
    std::shared_ptr<SimRiffaDevice> FindRiffaDevice(int number);

    bool Configure(std::string_view value);
    int AddXdmaCard();
    bool RemoveXdmaCard(int number);
    int AddRiffaDevice();
    bool RemoveRiffaDevice(int number);

private:
    SimRegistry() = default;
    void SyncWithEnvironmentLocked();
    void ApplyLocked(const SimConfig& config);

    std::mutex mutex_;
    std::map<int, std::shared_ptr<SimXdmaCard>> xdmaCards_;
    std::map<int, std::shared_ptr<SimRiffaDevice>> riffaDevices_;
    std::optional<std::string> environmentSeen_;  // nullopt until first read; "" when unset
};

}  // namespace kvpcie::sim
