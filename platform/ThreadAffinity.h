// Pinning a worker thread to one CPU core.
#pragma once

#include <cstdint>
#include <thread>

namespace kvpcie::platform {

// 2 to the power of the core index; 0 for cores that a 64-bit mask cannot name.
constexpr std::uint64_t AffinityMaskForCore(unsigned core) {
    return core < 64 ? (std::uint64_t{1} << core) : 0;
}

// False when the core cannot be named or the OS refuses (a core outside the process's CPU
// set); the thread then keeps running where the scheduler puts it.
bool PinThreadToCore(std::thread& thread, unsigned core);
// The same for the calling thread: a worker that starts itself again pins itself.
bool PinThisThreadToCore(unsigned core);

// Called on a worker thread that polls with short sleeps: its sleeps end as close to the
// asked time as the OS allows, instead of being stretched to batch wake-ups, and where the OS
// offers it without privileges, it runs soon after waking even beside a busy process.
void UsePreciseSleeps();

// Raises the calling thread to a real-time priority (Linux: SCHED_FIFO at the lowest real-time
// level, when the process may; Windows: THREAD_PRIORITY_TIME_CRITICAL). For one thread that
// sleeps almost always and must run at once when woken; false when the OS refused.
bool RaiseThisThreadToRealTime();

// Names the calling thread for the OS's tools (top -H, ps -L, a debugger), so that a user can
// tell the library's threads from the host's. At most 15 characters are kept; where the OS has
// no thread names nothing happens.
void NameThisThread(const char* name);

}  // namespace kvpcie::platform
