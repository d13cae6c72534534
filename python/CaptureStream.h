// card.capture(...): one capture channel whose frames arrive as NumPy arrays. The library's
// polling thread copies each frame into an array of a fixed ring (the one copy); get() hands that
// array out and puts a new one in its place. A frame that finds no free array, because Python did
// not take the earlier ones in time, is counted (frames_not_taken), never queued without bound.
#pragma once

#include "CardCore.h"

#include <pybind11/numpy.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace kvpcie::python {

class CaptureStream {
public:
    static constexpr int kRingFrames = 8;

    CaptureStream(std::shared_ptr<CardCore> core, int channel, int width, int height,
                  ePixelType type, bool cardTiming, bool record);
    ~CaptureStream();

    // The oldest frame not yet taken; TimeoutError after `timeout` seconds (None or infinity:
    // no limit), RuntimeError when the stream is or gets closed, CardLostError once the frames
    // that came before the card went away have been taken.
    pybind11::array Get(std::optional<double> timeout);
    // The same for iteration: nothing once the stream is or gets closed.
    std::optional<pybind11::array> Next();
    pybind11::dict Stats();
    void Close();
    // The card went away: waiters wake, and no frame will come. Any thread.
    void MarkCardLost();
    bool IsOpen() const { return open_; }

    int channel() const { return channel_; }
    int width() const { return width_; }
    int height() const { return height_; }
    ePixelType pixelType() const { return type_; }

    CaptureStream(const CaptureStream&) = delete;
    CaptureStream& operator=(const CaptureStream&) = delete;

private:
    static void OnFrame(int channel, const char* frame, void* context);
    // A ready frame; nothing when the stream was closed before one came or the deadline
    // passed (`closed` says which).
    std::optional<pybind11::array> Take(std::optional<double> timeout, bool& closed);
    pybind11::array NewArray() const;

    // A ring of slot numbers; at most kRingFrames entries.
    struct SlotRing {
        std::array<int, kRingFrames> slots{};
        int first = 0;
        int count = 0;
        bool Empty() const { return count == 0; }
        void Push(int slot) { slots[(first + count++) % kRingFrames] = slot; }
        int Pop() {
            const int slot = slots[first];
            first = (first + 1) % kRingFrames;
            --count;
            return slot;
        }
    };

    std::shared_ptr<CardCore> core_;
    const int channel_;
    const int width_;
    const int height_;
    const ePixelType type_;
    const std::size_t frameBytes_;
    bool open_ = false;
    bool recording_ = false;
    std::vector<char> frameBuffer_;  // the library's DMA target

    std::array<pybind11::array, kRingFrames> arrays_;  // GIL held
    std::array<char*, kRingFrames> data_{};            // each array's bytes
    std::mutex lock_;                                  // guards the two rings and closed_
    std::condition_variable frameReady_;
    bool closed_ = false;  // wakes every waiter for good
    bool lost_ = false;    // the same, once the card is gone
    SlotRing free_;
    SlotRing ready_;
    std::atomic<std::uint64_t> notTaken_{0};
    std::uint64_t taken_ = 0;
};

}  // namespace kvpcie::python
