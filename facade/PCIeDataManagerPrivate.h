// The private record behind PCIeDataManager, shared by every copy of one facade.
#pragma once

#include "Common/CpuCoreSource.h"
#include "Common/IO/DeviceStream/KvPCIE/riffa_stream/DataCapture4Riffa.h"
#include "Common/IO/DeviceStream/KvPCIE/riffa_stream/DataInject4Riffa.h"
#include "Common/IO/DeviceStream/KvPCIE/riffa_stream/RiffaDevice.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/DataCapture4XdmaMM.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/DataInject4XdmaMM.h"

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <map>
#include <memory>

// The engines take their worker threads' cores from the record rather than from a facade
// object: a copy of the facade may go away while the engines it opened keep running.
struct PCIeDataManagerPrivate final : kvpcie::CpuCoreSource {
    explicit PCIeDataManagerPrivate(ePCIeFrameworkType type);

    // The lowest free core, now marked used; 0 (shared) when every core is in use.
    unsigned TakeCore() override;
    void ReturnCore(unsigned core) override;

    ePCIeFrameworkType framework;
    // CPU cores for pinned worker threads: true = free. Used only from the host's control
    // thread, so it has no lock.
    std::map<unsigned, bool> freeCores;
    unsigned coreCount;
    std::unique_ptr<kvpcie::xdma::DataCapture4XdmaMM> xdmaCapture;
    std::unique_ptr<kvpcie::xdma::DataInject4XdmaMM> xdmaInject;
    std::unique_ptr<kvpcie::riffa::DataCapture4Riffa> riffaCapture;
    std::unique_ptr<kvpcie::riffa::DataInject4Riffa> riffaInject;
    std::unique_ptr<kvpcie::riffa::RiffaDevice> riffaDevice;
};

// Creates a record that lives until the process ends: copies of a facade share it and none of
// them owns it.
PCIeDataManagerPrivate* CreatePCIeDataManagerPrivate(ePCIeFrameworkType type);
