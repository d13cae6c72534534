// Page-cache bypass on Linux; elsewhere writes stay buffered.
#include "DirectWrites.h"


#ifdef __linux__
#include <fcntl.h>
#endif

namespace kvpcie {

#ifdef __linux__
bool EnableDirectWrites(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    // A file system without direct I/O (tmpfs on older kernels, some FUSE ones) refuses here.
    return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_DIRECT) == 0;
}

void DisableDirectWrites(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) {
        ::fcntl(fd, F_SETFL, flags & ~O_DIRECT);
    }
}
#else
bool EnableDirectWrites(int) {
    return false;
}

void DisableDirectWrites(int) {}
#endif

bool IsDirectWriteAligned(const void* data, std::int64_t bytes) {
    return reinterpret_cast<std::uintptr_t>(data) % kDirectWriteAlignment == 0 &&
           bytes % kDirectWriteAlignment == 0;
}

}  // namespace kvpcie
