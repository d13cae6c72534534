// Pinning a worker thread to one CPU core with the thread's own affinity set.
#include "platform/ThreadAffinity.h"

#include "platform/SystemError.h"

#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdint>

namespace kvpcie::platform {

namespace {

bool PinPthreadToCore(pthread_t thread, unsigned core) {
    // Cores past a 64-bit mask stay unpinned, as on Windows.
    if (AffinityMaskForCore(core) == 0) {
        SetLastError(EINVAL);
        return false;
    }
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    const int error = ::pthread_setaffinity_np(thread, sizeof cores, &cores);
    if (error != 0) {
        SetLastError(error);
        return false;
    }
    return true;
}

}  // namespace

bool PinThreadToCore(std::thread& thread, unsigned core) {
    if (!thread.joinable()) {
        SetLastError(EINVAL);
        return false;
    }
    return PinPthreadToCore(thread.native_handle(), core);
}

bool PinThisThreadToCore(unsigned core) {
    return PinPthreadToCore(::pthread_self(), core);
}

namespace {

// The kernel's struct sched_attr (linux/sched/types.h), which glibc does not declare.
struct SchedAttributes {
    std::uint32_t size;
    std::uint32_t policy;
    std::uint64_t flags;
    std::int32_t nice;
    std::uint32_t priority;
    std::uint64_t runtime;
    std::uint64_t deadline;
    std::uint64_t period;
};

// A worker that sleeps most of the time and must run soon after it wakes, even when a busy
// process shares its core: since Linux 6.12 a normal thread may ask for a shorter time slice
// than the default 3 ms without privileges, which gives it an earlier deadline, so that it
// goes first when it wakes. Older kernels ignore the request; nice and policy stay as they are.
constexpr std::uint64_t kShortSliceNanos = 100'000;

void RequestShortSlice() {
    SchedAttributes attributes{};
    if (::syscall(SYS_sched_getattr, 0, &attributes, sizeof attributes, 0) != 0 ||
        attributes.policy != SCHED_OTHER) {
        return;
    }
    attributes.size = sizeof attributes;
    attributes.runtime = kShortSliceNanos;
    ::syscall(SYS_sched_setattr, 0, &attributes, 0);
}

}  // namespace

void NameThisThread(const char* name) {
    char kept[16] = {};
    std::snprintf(kept, sizeof kept, "%s", name);
    ::prctl(PR_SET_NAME, kept, 0UL, 0UL, 0UL);
}

bool RaiseThisThreadToRealTime() {
    sched_param parameters{};
    parameters.sched_priority = ::sched_get_priority_min(SCHED_FIFO);
    const int error = ::pthread_setschedparam(::pthread_self(), SCHED_FIFO, &parameters);
    if (error != 0) {
        SetLastError(error);  // EPERM without CAP_SYS_NICE or an RLIMIT_RTPRIO
        return false;
    }
    return true;
}

void UsePreciseSleeps() {
    // The default slack of 50 us lengthens every 1 ms polling sleep; 1 ns asks for none.
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    RequestShortSlice();
}

}  // namespace kvpcie::platform
