// The directory that kvpcie-simd mounts on: what is mounted there already.
#pragma once

#include <string>

namespace kvpcie::simd {

// The absolute path of `dir` as the mount table writes it, whatever name it is given (symbolic
// links, "." and "..", trailing slashes). A stale mount on `dir` itself is never looked into,
// as that fails. Empty, with errno set, when `dir` cannot be resolved.
std::string MountTablePath(const std::string& dir);

enum class MountState {
    Free,    // nothing mounted on the directory
    Served,  // a live file system is mounted on it
    Stale,   // a FUSE mount whose server has gone ("Transport endpoint is not connected")
};

MountState InspectMountPoint(const std::string& absolutePath);

// Detaches a stale mount; false with errno when neither umount2 nor fusermount3 could.
bool DetachStaleMount(const std::string& absolutePath);

}  // namespace kvpcie::simd
