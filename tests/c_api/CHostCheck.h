/* What the suite's C hosts share: a count of failed checks, CHECK with the library's error text,
   the case being run, and a sleep. Included first (it asks for nanosleep, which strict C99 does
   not declare), before either version of kvpcie.h. */
#ifndef KVPCIE_TESTS_C_HOST_CHECK_H
#define KVPCIE_TESTS_C_HOST_CHECK_H

#if !defined(_WIN32)
#define _POSIX_C_SOURCE 199309L
#endif

#include <stdio.h>

#ifdef _WIN32
#include <windows.h>
#else
#include <time.h>
#endif

static int failures = 0;
static const char* currentCase = "";

#define CHECK(condition)                                                                          \
    do {                                                                                          \
        if (!(condition)) {                                                                       \
            ++failures;                                                                           \
            fprintf(stderr, "FAIL %s, line %d: %s (last error: \"%s\")\n", currentCase, __LINE__, \
                    #condition, kvpcie_last_error());                                             \
        }                                                                                         \
    } while (0)

static void SleepMs(int milliseconds) {
#ifdef _WIN32
    Sleep((DWORD)milliseconds);
#else
    struct timespec pause;
    pause.tv_sec = milliseconds / 1000;
    pause.tv_nsec = (long)(milliseconds % 1000) * 1000000L;
    nanosleep(&pause, NULL);
#endif
}

#endif
