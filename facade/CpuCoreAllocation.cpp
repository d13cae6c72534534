// The facade's table of CPU cores for pinned worker threads.
#include "PCIeDataManagerPrivate.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

unsigned PCIeDataManagerPrivate::TakeCore() {
    for (unsigned core = 0; core < coreCount; ++core) {
        const auto entry = freeCores.find(core);
        if (entry != freeCores.end() && entry->second) {
            entry->second = false;
            return core;
        }
    }
    return 0;  // every core is taken: core 0 is shared from now on
}

void PCIeDataManagerPrivate::ReturnCore(unsigned core) {
    freeCores[core] = true;
}

unsigned int PCIeDataManager::GetIdealCpuCoreIndex() {
    return d->TakeCore();
}

void PCIeDataManager::ResetUsedCpuCoreIndex(unsigned int core) {
    d->ReturnCore(core);
}
