// Threads, descriptors and heap bytes of this process.
#pragma once

#ifdef _WIN32
#include <windows.h>

#include <tlhelp32.h>
#else
#include <dirent.h>
#include <malloc.h>
#include <sched.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#endif

namespace kvpcie::testing {

inline int ThreadCount() {
    int count = 0;
#ifdef _WIN32
    const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snapshot == INVALID_HANDLE_VALUE) {
        return -1;
    }
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    const DWORD self = ::GetCurrentProcessId();
    for (BOOL more = ::Thread32First(snapshot, &entry); more;
         more = ::Thread32Next(snapshot, &entry)) {
        count += entry.th32OwnerProcessID == self;
    }
    ::CloseHandle(snapshot);
#else
    if (DIR* tasks = opendir("/proc/self/task")) {
        while (const dirent* entry = readdir(tasks)) {
            count += entry->d_name[0] != '.';
        }
        closedir(tasks);
    }
#endif
    return count;
}

// Open file descriptors (Windows: handles) of the process.
inline int OpenDescriptorCount() {
#ifdef _WIN32
    DWORD handles = 0;
    return ::GetProcessHandleCount(::GetCurrentProcess(), &handles) ? static_cast<int>(handles)
                                                                     : -1;
#else
    int count = 0;
    if (DIR* descriptors = opendir("/proc/self/fd")) {
        while (const dirent* entry = readdir(descriptors)) {
            count += entry->d_name[0] != '.';
        }
        closedir(descriptors);
    }
    return count - 1;  // the directory's own descriptor
#endif
}

inline long HeapInUse() {
#ifdef _WIN32
    // The C runtime may allocate from a heap of its own: count the busy blocks of every heap.
    HANDLE heaps[64];
    const DWORD heapCount = ::GetProcessHeaps(64, heaps);
    long used = 0;
    for (DWORD i = 0; i < heapCount && i < 64; ++i) {
        if (!::HeapLock(heaps[i])) {
            continue;
        }
        PROCESS_HEAP_ENTRY entry{};
        while (::HeapWalk(heaps[i], &entry)) {
            if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0) {
                used += static_cast<long>(entry.cbData);
            }
        }
        ::HeapUnlock(heaps[i]);
    }
    return used;
#else
    return static_cast<long>(mallinfo2().uordblks);
#endif
}

#ifndef _WIN32
// The scheduling policy of each thread whose name begins with `prefix`, by name.
inline std::map<std::string, int> ThreadPolicies(const std::string& prefix) {
    std::map<std::string, int> policies;
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return policies;
    }
    while (const dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        char name[32] = {};
        const std::string comm = std::string("/proc/self/task/") + entry->d_name + "/comm";
        if (std::FILE* in = std::fopen(comm.c_str(), "r")) {
            if (std::fscanf(in, "%31s", name) != 1) {
                name[0] = '\0';
            }
            std::fclose(in);
        }
        if (std::string(name).rfind(prefix, 0) == 0) {
            policies[name] = sched_getscheduler(std::atoi(entry->d_name));
        }
    }
    closedir(tasks);
    return policies;
}
#endif

}  // namespace kvpcie::testing
