// What a node does where its kind does nothing of its own.
#define FUSE_USE_VERSION 312
#include "NodeHandler.h"

#include <fuse_lowlevel.h>
#include <poll.h>

#include <cerrno>

namespace kvpcie::simd {

bool NodeHandler::TakeRead(fuse_req_t, std::size_t, std::int64_t) {
    return false;
}

int NodeHandler::Read(char*, std::size_t, std::int64_t) {
    return -EINVAL;
}

int NodeHandler::Write(const char*, std::size_t, std::int64_t) {
    return -EINVAL;
}

unsigned NodeHandler::Poll(fuse_pollhandle* handle) {
    if (handle != nullptr) {
        fuse_pollhandle_destroy(handle);  // nothing to notify
    }
    return POLLIN | POLLRDNORM | POLLOUT | POLLWRNORM;
}

}  // namespace kvpcie::simd
