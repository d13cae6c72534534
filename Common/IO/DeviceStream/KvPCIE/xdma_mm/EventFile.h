// One open user-event file of an XDMA card ("<interface path>\event_<n>").
#pragma once

#include "platform/DeviceFile.h"

namespace kvpcie::xdma {

// Owned by the engine that waits on it. Read blocks until the card raises the event (1), the
// driver gives up (0 after 3 s on Windows) or the file fails (0). Cancel, from any thread,
// ends a waiting Read and makes every later Read return 0 at once, so that the waiting thread
// can always be joined.
class EventFile {
public:
    // On failure the file stays invalid and "error: <reason>" goes to standard output.
    EventFile(const char* path, unsigned access);
    EventFile(const EventFile&) = delete;
    EventFile& operator=(const EventFile&) = delete;

    unsigned char Read(unsigned offset);
    void Cancel();
    bool IsValid() const { return file_ != nullptr; }

private:
    const platform::DeviceFilePtr file_;
};

}  // namespace kvpcie::xdma
