// Taking the directory's lock.
#include "MountLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

namespace kvpcie::simd {

MountLock::~MountLock() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

MountLock::Outcome MountLock::Take(const std::string& absolutePath) {
    if (fd_ >= 0) {
        errno = EALREADY;
        return Outcome::Failed;
    }
    const int fd = ::open(absolutePath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return Outcome::Failed;
    }
    int result = 0;
    do {
        result = ::flock(fd, LOCK_EX | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        const int error = errno;
        ::close(fd);
        errno = error;
        return error == EWOULDBLOCK ? Outcome::Held : Outcome::Failed;
    }
    fd_ = fd;
    return Outcome::Taken;
}

}  // namespace kvpcie::simd
