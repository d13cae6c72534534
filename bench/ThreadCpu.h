// CPU time of the library's own threads (those it names "kvpcie-..."), apart from the
// simulated card's threads and the benchmark's, which share the process. Linux.
#pragma once

#include <dirent.h>
#include <time.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace kvpcie::bench {

// Seconds on a CPU, summed over this process's threads whose name begins with `prefix`. A
// thread that ended before the call is not counted, so take both readings while the threads
// run.
inline double NamedThreadsCpuSeconds(const char* prefix) {
    double seconds = 0;
    DIR* tasks = ::opendir("/proc/self/task");
    if (tasks == nullptr) {
        return 0;
    }
    while (const dirent* entry = ::readdir(tasks)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const std::string task = std::string("/proc/self/task/") + entry->d_name;
        char name[32] = {};
        if (std::FILE* comm = std::fopen((task + "/comm").c_str(), "r")) {
            if (std::fgets(name, sizeof name, comm) == nullptr) {
                name[0] = '\0';
            }
            std::fclose(comm);
        }
        if (std::strncmp(name, prefix, std::strlen(prefix)) != 0) {
            continue;
        }
        // The first field of schedstat: nanoseconds on a CPU.
        unsigned long long nanos = 0;
        if (std::FILE* stat = std::fopen((task + "/schedstat").c_str(), "r")) {
            if (std::fscanf(stat, "%llu", &nanos) != 1) {
                nanos = 0;
            }
            std::fclose(stat);
        }
        seconds += nanos / 1e9;
    }
    ::closedir(tasks);
    return seconds;
}

// CPU seconds of the calling thread.
inline double ThisThreadCpuSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return now.tv_sec + now.tv_nsec / 1e9;
}

}  // namespace kvpcie::bench
