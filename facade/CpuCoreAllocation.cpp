// The facade's table of CPU cores for pinned worker threads.
#include "PCIeDataManagerPrivate.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

unsigned int PCIeDataManager::GetIdealCpuCoreIndex() {
    for (unsigned core = 0; core < d->coreCount; ++core) {
        const auto entry = d->freeCores.find(core);
        if (entry != d->freeCores.end() && entry->second) {
            entry->second = false;
            return core;
        }
    }
    return 0;  // every core is taken: core 0 is shared from now on
}

void PCIeDataManager::ResetUsedCpuCoreIndex(unsigned int core) {
    d->freeCores[core] = true;
}
