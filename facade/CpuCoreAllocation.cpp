// The facade's table of CPU cores for pinned worker threads.
#include "ErrorText.h"
#include "PCIeDataManagerPrivate.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

unsigned PCIeDataManagerPrivate::TakeCore() {
    bool shared = false;
    return TakeCore(shared);
}

unsigned PCIeDataManagerPrivate::TakeCore(bool& shared) {
    std::lock_guard<std::mutex> lock(coreLock);
    for (unsigned core = 0; core < coreCount; ++core) {
        const auto entry = freeCores.find(core);
        if (entry != freeCores.end() && entry->second) {
            entry->second = false;
            shared = false;
            return core;
        }
    }
    shared = true;
    return 0;  // every core is taken: core 0 is shared from now on
}

void PCIeDataManagerPrivate::ReturnCore(unsigned core) {
    std::lock_guard<std::mutex> lock(coreLock);
    freeCores[core] = true;
}

unsigned int PCIeDataManager::GetIdealCpuCoreIndex() {
    kvpcie::ClearErrorText();
    bool shared = false;
    const unsigned core = d->TakeCore(shared);
    if (shared) {
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
