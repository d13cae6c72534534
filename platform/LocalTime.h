// The local wall-clock time with milliseconds, as log lines and file names show it.
#pragma once

namespace kvpcie::platform {

struct LocalTime {
    int year;
    int month;  // 1 to 12
    int day;
    int hour;
    int minute;
    int second;
    int millisecond;
};

// Cheap enough to call for every log line: each thread converts a new second only once.
LocalTime LocalTimeNow();

}  // namespace kvpcie::platform
