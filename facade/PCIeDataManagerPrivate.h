// The private record behind PCIeDataManager, shared by every copy of one facade.
#pragma once

#include "Common/CpuCoreSource.h"
#include "Common/IO/DeviceStream/KvPCIE/riffa_stream/DataCapture4Riffa.h"
#include "Common/IO/DeviceStream/KvPCIE/riffa_stream/DataInject4Riffa.h"
#include "Common/IO/DeviceStream/KvPCIE/riffa_stream/RiffaDevice.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/DataCapture4XdmaMM.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/DataInject4XdmaMM.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaDevice.h"
#include "Common/WriterFirstSharedMutex.h"

#include <KvPCIeInjectSdk/KvPCIeTypes.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

// The engines take their worker threads' cores from the record rather than from a facade
// object: a copy of the facade may go away while the engines it opened keep running.
struct PCIeDataManagerPrivate final : kvpcie::CpuCoreSource {
    explicit PCIeDataManagerPrivate(ePCIeFrameworkType type);

    // The lowest free core, now marked used; 0 (shared) when every core is in use. From any
    // thread: an engine's worker may start on the first WriteControlCmd of another thread.
    unsigned TakeCore() override;
    // The same, telling whether the 0 returned means shared.
    unsigned TakeCore(bool& shared);
    void ReturnCore(unsigned core) override;

    // The XDMA engines as they stand, taken out of the record under its lock; the caller
    // destroys them after the lock is let go.
    struct XdmaEngines {
        std::unique_ptr<kvpcie::xdma::DataCapture4XdmaMM> capture;
        std::unique_ptr<kvpcie::xdma::DataInject4XdmaMM> inject;
    };
    XdmaEngines TakeXdmaEngines();
    void InstallXdmaEngines(XdmaEngines engines);

    ePCIeFrameworkType framework;
    // The XDMA card this manager opens, closes and drives; its engines hold it too. Another
    // manager may close it (taking the card over), never replace it.
    const std::shared_ptr<kvpcie::xdma::XdmaCard> card;
    // The host's card-lost callback, set from any thread, called on the control thread.
    std::mutex lostLock;
    CardLostCallback lostCallback = nullptr;
    void* lostContext = nullptr;
    // CPU cores for pinned worker threads: true = free.
    std::mutex coreLock;
    std::map<unsigned, bool> freeCores;
    unsigned coreCount;
    // Held shared by the operations that may come from any thread (WriteControlCmd, the
    // statistics) while they use an XDMA engine, and exclusively by the control thread while it
    // swaps the engine pointers. Never held while an engine is destroyed: a frame callback
    // that calls WriteControlCmd must not wait for a thread that waits for the callback.
    kvpcie::WriterFirstSharedMutex xdmaEngineLock;
    std::unique_ptr<kvpcie::xdma::DataCapture4XdmaMM> xdmaCapture;
    std::unique_ptr<kvpcie::xdma::DataInject4XdmaMM> xdmaInject;
    std::unique_ptr<kvpcie::riffa::DataCapture4Riffa> riffaCapture;
    std::unique_ptr<kvpcie::riffa::DataInject4Riffa> riffaInject;
    std::unique_ptr<kvpcie::riffa::RiffaDevice> riffaDevice;
    // What GetCaptureDelayStatus and GetInjectDelayStatus hand out: copies that live as long as
    // the record, so a host that keeps the pointer never reads an engine that CloseCard freed.
    // Aligned, so a host can read the packed records' doubles in place.
    alignas(double)
        std::array<tagCaptureDelayStatusInfo, kvpcie::xdma::kCardBufferCount> captureDelay{};
    alignas(
        double) std::array<tagInjectDelayStatusInfo, kvpcie::xdma::kCardBufferCount> injectDelay{};
};

// Creates a record that lives until the process ends: copies of a facade share it and none of
// them owns it.
PCIeDataManagerPrivate* CreatePCIeDataManagerPrivate(ePCIeFrameworkType type);
// Calls `visit` with every record made so far, under a lock that creating a record takes too.
void ForEachPCIeDataManagerPrivate(const std::function<void(PCIeDataManagerPrivate&)>& visit);
