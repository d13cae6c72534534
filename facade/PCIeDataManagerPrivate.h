// The private record behind PCIeDataManager, shared by every copy of one facade.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <map>

struct PCIeDataManagerPrivate {
    explicit PCIeDataManagerPrivate(ePCIeFrameworkType type);

    ePCIeFrameworkType framework;
    // CPU cores for pinned worker threads: true = free. Used only from the host's control
    // thread, so it has no lock.
    std::map<unsigned, bool> freeCores;
    unsigned coreCount;
};

// Creates a record that lives until the process ends: copies of a facade share it and none of
// them owns it.
PCIeDataManagerPrivate* CreatePCIeDataManagerPrivate(ePCIeFrameworkType type);
