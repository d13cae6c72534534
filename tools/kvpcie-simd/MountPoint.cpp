// Reading /proc/self/mountinfo for the mount point, and clearing what a killed server left.
#include "MountPoint.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace kvpcie::simd {
namespace {

constexpr int kMaxLinksFollowed = 40;

// The mount table writes a space, tab, newline and backslash in a path as octal escapes.
std::string UnescapeMountPath(const std::string& field) {
    std::string path;
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            const std::string digits = field.substr(i + 1, 3);
            if (digits.find_first_not_of("01234567") == std::string::npos) {
                path.push_back(static_cast<char>(std::strtol(digits.c_str(), nullptr, 8)));
                i += 3;
                continue;
            }
        }
        path.push_back(field[i]);
    }
    return path;
}

bool IsInMountTable(const std::string& absolutePath) {
    std::ifstream table("/proc/self/mountinfo");
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string id, parent, device, root, mountPoint;
        if (fields >> id >> parent >> device >> root >> mountPoint &&
            UnescapeMountPath(mountPoint) == absolutePath) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string MountTablePath(const std::string& dir) {
    std::string path = dir;
    // As the kernel does, a chain of links longer than this is refused.
    for (int link = 0; link <= kMaxLinksFollowed; ++link) {
        while (path.size() > 1 && path.back() == '/') {
            path.pop_back();
        }
        const std::size_t slash = path.rfind('/');
        const std::string parent =
            slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
        const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
        char resolved[PATH_MAX];
        if (::realpath(parent.c_str(), resolved) == nullptr) {
            return {};
        }
        const std::string base = resolved;
        if (name.empty() || name == ".") {
            return base;
        }
        if (name == "..") {
            const std::size_t up = base.rfind('/');
            return up == 0 || up == std::string::npos ? "/" : base.substr(0, up);
        }
        const std::string candidate = base == "/" ? "/" + name : base + "/" + name;
        // lstat of a stale mount fails (ENOTCONN): it is a directory, not a link.
        struct stat status {};
        if (::lstat(candidate.c_str(), &status) != 0 || !S_ISLNK(status.st_mode)) {
            return candidate;
        }
        char target[PATH_MAX];
        const ssize_t length = ::readlink(candidate.c_str(), target, sizeof target - 1);
        if (length < 0) {
            return {};
        }
        target[length] = '\0';
        path = target[0] == '/' ? std::string(target) : base + "/" + target;
    }
    errno = ELOOP;
    return {};
}

MountState InspectMountPoint(const std::string& absolutePath) {
    if (!IsInMountTable(absolutePath)) {
        return MountState::Free;
    }
    struct stat status {};
    if (::stat(absolutePath.c_str(), &status) != 0 && errno == ENOTCONN) {
        return MountState::Stale;
    }
    return MountState::Served;
}

bool DetachStaleMount(const std::string& absolutePath) {
    if (::umount2(absolutePath.c_str(), MNT_DETACH) == 0) {
        return true;
    }
    // Without the right to unmount, the setuid helper may still do it for the mount's owner.
    const pid_t child = ::fork();
    if (child == 0) {
        ::execlp("fusermount3", "fusermount3", "-u", "-z", absolutePath.c_str(),
                 static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) < 0) {
        return false;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace kvpcie::simd
