// The inject worker: keeps every injecting channel's card buffers filled, in ring order.
#include "DataInject4XdmaMM.h"

#include "InjectFormat.h"
#include "XdmaDevice.h"

#include <thread>

namespace kvpcie::xdma {
namespace {

// The frame counter, least significant byte first, over the frame's first pixel.
void StampFrameCounter(char* frame, ePixelType pixelType, std::uint32_t counter) {
    const int bytes = InjectBytesPerPixel(pixelType);
    for (int i = 0; i < bytes; ++i) {
        frame[i] = static_cast<char>(counter >> (8 * i) & 0xFF);
    }
}

}  // namespace

void DataInject4XdmaMM::ThreadFun_InjectData() {
    // The card paces the frames; the worker only refills a buffer the moment it comes free,
    // so it never sleeps. It yields when nothing was free, to share its core with the threads
    // that produce the frames.
    while (injectThread_.IsRunning()) {
        bool handedOver = false;
        for (unsigned c = 0; c < static_cast<unsigned>(kChannelCount); ++c) {
            handedOver = ServeChannel(c) || handedOver;
        }
        if (!handedOver) {
            std::this_thread::yield();
        }
    }
}

bool DataInject4XdmaMM::ServeChannel(unsigned c) {
    Channel& state = channels_[c];
    if (!state.injecting.load(std::memory_order_acquire)) {
        return false;
    }
    std::lock_guard<std::mutex> turn(state.turnLock);
    if (!state.injecting.load(std::memory_order_acquire) || state.queue == nullptr) {
        return false;
    }
    const unsigned b = static_cast<unsigned>(state.lastBufferIndex + 1) % kCardBufferCount;
    const std::uint32_t block = InjectBlock(c);
    const std::uint32_t status = block + InjBufferStatus(b);
    if ((XdmaReadReg(status) & kStatusStateMask) != 0) {
        return false;  // the card still plays or holds it
    }
    // The slot stays ours until the next PopPtr on this queue, which only this thread makes.
    char* frame = state.queue->PopPtr();
    if (frame != nullptr) {
        StampFrameCounter(frame, state.format.pixelType, state.frameCounter);
        ++state.frameCounter;
    }
    XdmaWriteRegValue(status, kStatusHostWriting);
    if (frame != nullptr) {
        // A failed transfer is only counted: the card replays the buffer's old contents, which
        // is what it does on an empty queue too.
        state.counters.toCard.Add();
        if (!XdmaWriteData(InjectBufferAddress(c, b), static_cast<unsigned>(state.frameSize),
                           frame)) {
            state.counters.transfersFailed.Add();
        }
    } else {
        state.counters.periodsWithoutFrame.Add();
    }
    XdmaWriteRegValue(status, kStatusInjectReady);
    XdmaWriteRegValue(block + InjBufferLength(b), static_cast<std::uint32_t>(state.transferSize));
    state.lastBufferIndex = static_cast<int>(b);
    return true;
}

}  // namespace kvpcie::xdma
