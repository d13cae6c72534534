// Creation of the facade's private record.
#include "PCIeDataManagerPrivate.h"

#include <QThread>

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

PCIeDataManagerPrivate::PCIeDataManagerPrivate(ePCIeFrameworkType type)
    : framework(type),
      card(std::make_shared<kvpcie::xdma::XdmaCard>()),
      coreCount(static_cast<unsigned>(std::max(1, QThread::idealThreadCount()))),
      riffaDevice(std::make_unique<kvpcie::riffa::RiffaDevice>()) {
    for (unsigned core = 0; core < coreCount; ++core) {
        freeCores[core] = true;
    }
}

PCIeDataManagerPrivate::XdmaEngines PCIeDataManagerPrivate::TakeXdmaEngines() {
    std::unique_lock<kvpcie::WriterFirstSharedMutex> lock(xdmaEngineLock);
    return XdmaEngines{std::move(xdmaCapture), std::move(xdmaInject)};
}

void PCIeDataManagerPrivate::InstallXdmaEngines(XdmaEngines engines) {
    std::unique_lock<kvpcie::WriterFirstSharedMutex> lock(xdmaEngineLock);
    xdmaCapture = std::move(engines.capture);
    xdmaInject = std::move(engines.inject);
}

namespace {

struct Records {
    std::mutex mutex;
    std::vector<std::unique_ptr<PCIeDataManagerPrivate>> all;
};

// Kept reachable on purpose: the records are meant to outlive every facade, and a leak checker
// should see them as held, not lost.
Records& AllRecords() {
    static auto* records = new Records;
    return *records;
}

}  // namespace

PCIeDataManagerPrivate* CreatePCIeDataManagerPrivate(ePCIeFrameworkType type) {
    Records& records = AllRecords();
    std::lock_guard<std::mutex> lock(records.mutex);
    records.all.push_back(std::make_unique<PCIeDataManagerPrivate>(type));
    return records.all.back().get();
}

void ForEachPCIeDataManagerPrivate(const std::function<void(PCIeDataManagerPrivate&)>& visit) {
    Records& records = AllRecords();
    std::lock_guard<std::mutex> lock(records.mutex);
    for (const auto& record : records.all) {
        visit(*record);
    }
}
