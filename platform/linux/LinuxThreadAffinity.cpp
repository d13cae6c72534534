// Pinning a worker thread to one CPU core with the thread's own affinity set.
#include "platform/ThreadAffinity.h"

#include "platform/SystemError.h"

#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <cerrno>

namespace kvpcie::platform {

bool PinThreadToCore(std::thread& thread, unsigned core) {
    // Cores past a 64-bit mask stay unpinned, as on Windows.
    if (AffinityMaskForCore(core) == 0 || !thread.joinable()) {
        SetLastError(EINVAL);
        return false;
    }
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    const int error = ::pthread_setaffinity_np(thread.native_handle(), sizeof cores, &cores);
    if (error != 0) {
        SetLastError(error);
        return false;
    }
    return true;
}

void UsePreciseSleeps() {
    // The default slack of 50 us lengthens every 1 ms polling sleep; 1 ns asks for none.
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
}

}  // namespace kvpcie::platform
