// Internals of the Linux device files, open to the backend's tests.
#pragma once

#include "platform/DeviceFile.h"

#include <string>

namespace kvpcie::platform::linux_backend {

// How the driver's file of a node moves data, which decides how a DeviceFile drives it.
enum class NodeKind {
    Register,  // "user", "control": one 32-bit word per call
    Dma,       // "c2h_<n>", "h2c_<n>": the offset is the card address
    Event,     // "event_<n>": a 4-byte read that waits for the user interrupt
    Plain,     // any other file
};

struct NodeFile {
    std::string path;
    NodeKind kind;
};

// "<base>\<node>" (split at the last backslash) to the file the Linux XDMA driver makes for
// the node, e.g. "/dev/xdma0\event_3" to "/dev/xdma0_events_3"; a path without a backslash is
// a plain file. May throw std::bad_alloc.
NodeFile MapNodePath(const std::string& path);

// A device file of the kind over an open descriptor, which it owns from here on, even when it
// fails: null with LastError() set.
DeviceFilePtr MakeDeviceFile(int fd, NodeKind kind, unsigned access);

}  // namespace kvpcie::platform::linux_backend
