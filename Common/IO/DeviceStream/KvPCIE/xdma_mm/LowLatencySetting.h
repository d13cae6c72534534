// The low-latency setting: KVPCIE_REALTIME_POLLING=1 when an engine is made. The threads that
// wait for the card (the capture engine's polling and event threads, the inject worker) then
// run at a real-time priority where the OS grants one; no other thread of the library does.
#pragma once

#include "Common/LogFile.h"
#include "platform/SystemError.h"
#include "platform/ThreadAffinity.h"

#include <QtGlobal>

namespace kvpcie::xdma {

inline bool LowLatencyRequested() {
    return qEnvironmentVariableIntValue("KVPCIE_REALTIME_POLLING") == 1;
}

// Raises the calling thread; a refusal is written to `log` as "<who> keeps its normal
// priority: <reason>".
inline void RaiseForLowLatency(LogFile& log, const char* who) {
    if (!platform::RaiseThisThreadToRealTime()) {
        log.WriteLog("%s keeps its normal priority: %s", who,
                     platform::ErrorText(platform::LastError()).c_str());
    }
}

}  // namespace kvpcie::xdma
