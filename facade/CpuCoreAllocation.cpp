// The facade's table of CPU cores for pinned worker threads.
#include "ErrorText.h"
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
    kvpcie::ClearErrorText();
    const auto zero = d->freeCores.find(0);
    const bool zeroWasFree = zero != d->freeCores.end() && zero->second;
    const unsigned core = d->TakeCore();
    if (core == 0 && !zeroWasFree) {
        kvpcie::SetErrorText("every one of the %u cores is in use: core 0 is shared", d->coreCount);
    }
    return core;
}

void PCIeDataManager::ResetUsedCpuCoreIndex(unsigned int core) {
    kvpcie::ClearErrorText();
    if (core >= d->coreCount) {
        kvpcie::SetErrorText("core %u is outside the table of %u cores", core, d->coreCount);
    }
    d->ReturnCore(core);
}
