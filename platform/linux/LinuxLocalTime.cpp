// Local time from the realtime clock.
#include "platform/LocalTime.h"

#include <ctime>

namespace kvpcie::platform {

LocalTime LocalTimeNow() {
    // localtime_r takes the time-zone lock; the broken-down second is kept per thread.
    thread_local std::time_t cachedSecond = -1;
    thread_local std::tm cached{};
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != cachedSecond) {
        ::localtime_r(&now.tv_sec, &cached);
        cachedSecond = now.tv_sec;
    }
    return LocalTime{cached.tm_year + 1900,
                     cached.tm_mon + 1,
                     cached.tm_mday,
                     cached.tm_hour,
                     cached.tm_min,
                     cached.tm_sec,
                     static_cast<int>(now.tv_nsec / 1000000)};
}

}  // namespace kvpcie::platform
