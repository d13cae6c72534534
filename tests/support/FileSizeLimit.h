// A per-process file-size limit that stands in for a full disk: writes past it fail (EFBIG)
// instead of raising SIGXFSZ. Windows has no such limit, so there the full-disk cases skip.
#pragma once

#ifndef _WIN32
#include <sys/resource.h>
#endif

#include <csignal>
#include <cstdint>

namespace kvpcie::testing {

#ifdef _WIN32
class FileSizeLimit {
public:
    explicit FileSizeLimit(std::uint64_t) {}
    bool Applied() const { return false; }
    static constexpr const char* kMissing =
        "Windows has no per-process file-size limit to stand in for a full disk";
};
#else
class FileSizeLimit {
public:
    explicit FileSizeLimit(std::uint64_t bytes) {
        getrlimit(RLIMIT_FSIZE, &saved_);
        previousHandler_ = std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit = saved_;
        limit.rlim_cur = static_cast<rlim_t>(bytes);
        applied_ = setrlimit(RLIMIT_FSIZE, &limit) == 0;
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &saved_);
        std::signal(SIGXFSZ, previousHandler_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    bool Applied() const { return applied_; }
    static constexpr const char* kMissing = nullptr;

private:
    rlimit saved_{};
    void (*previousHandler_)(int) = nullptr;
    bool applied_ = false;
};
#endif

}  // namespace kvpcie::testing
