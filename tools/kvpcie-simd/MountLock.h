// One server per directory: a lock that a kvpcie-simd holds on the directory it mounts on, for
// the mount's whole life.
#pragma once

#include <string>

namespace kvpcie::simd {

// An exclusive flock on the directory itself, opened before anything is mounted on it: every
// name of the directory (a symbolic link, "..", a trailing slash) reaches the same lock, two
// servers started at once cannot both take it, and the kernel lets it go when the server ends,
// however it ends.
class MountLock {
public:
    enum class Outcome {
        Taken,
        Held,    // another server holds it
        Failed,  // the directory cannot be opened or locked; errno tells why
    };

    MountLock() = default;
    // Closes the directory. The lock is never dropped by hand: a detached server's parent
    // shares it, and an explicit unlock there would drop it for the server too.
    ~MountLock();
    MountLock(const MountLock&) = delete;
    MountLock& operator=(const MountLock&) = delete;

    // Takes the lock on `absolutePath` without waiting; once. With a file system mounted there
    // already, it is that one's root that gets locked: the caller looks at the mount table
    // after taking the lock.
    Outcome Take(const std::string& absolutePath);

private:
    int fd_ = -1;
};

}  // namespace kvpcie::simd
