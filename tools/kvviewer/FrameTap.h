// A decimated copy of a channel's frames for the window's analysis: the capture thread copies
// a frame only when the window has asked for one and the copy is free, and never waits.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

namespace kvpcie::viewer {

class FrameTap {
public:
    // Window thread, while no frame arrives: room for frames of `frameBytes`.
    void Reset(std::size_t frameBytes);
    // Window thread: the next frame that arrives is copied.
    void Ask() { wanted_.store(true, std::memory_order_release); }
    // Capture thread: copies the frame when one was asked for and the copy is not being read.
    void Offer(const char* frame);
    // Window thread: the latest copy, when one came since the last take; false otherwise.
    bool TakeNew(std::vector<char>& out);
    // Window thread: the latest copy, new or not; false when none came yet.
    bool Latest(std::vector<char>& out);

private:
    std::atomic<bool> wanted_{false};
    std::mutex lock_;
    std::vector<char> copy_;
    bool hasCopy_ = false;
    bool fresh_ = false;
};

}  // namespace kvpcie::viewer
