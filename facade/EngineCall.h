// What every forwarding operation of the facade does first: clear the error text, hold the
// engines, check the channel and find the engine.
#pragma once

#include "ErrorText.h"
#include "PCIeDataManagerPrivate.h"

#include <memory>
#include <shared_mutex>

namespace kvpcie {

// Held while an operation uses an engine: a frame callback may call in while the control
// thread replaces the engines.
inline std::shared_lock<WriterFirstSharedMutex> SharedEngines(PCIeDataManagerPrivate* d) {
    return std::shared_lock<WriterFirstSharedMutex>(d->xdmaEngineLock);
}

inline bool ChannelInRange(int channel) {
    if (channel >= 0 && channel < xdma::kChannelCount) {
        return true;
    }
    SetErrorText("channel %d is outside 0 to 3", channel);
    return false;
}

template <typename Engine>
bool HasEngine(const std::unique_ptr<Engine>& engine, const char* kind) {
    if (engine != nullptr) {
        return true;
    }
    SetErrorText("no %s engine: no XDMA card has been opened, or CloseCard closed it", kind);
    return false;
}

// The engine an operation forwards to, kept alive (the engines' lock held shared) as long as
// this lives; empty, with the reason as the error text, for a channel outside 0 to 3 or when
// there is no engine.
template <typename Engine>
class EngineCall {
public:
    EngineCall(PCIeDataManagerPrivate* d, const std::unique_ptr<Engine>& engine, int channel,
               const char* kind)
        : engines_((ClearErrorText(), SharedEngines(d))),
          engine_(ChannelInRange(channel) && HasEngine(engine, kind) ? engine.get() : nullptr) {}

    explicit operator bool() const { return engine_ != nullptr; }
    Engine* operator->() const { return engine_; }

private:
    std::shared_lock<WriterFirstSharedMutex> engines_;
    Engine* engine_;
};

inline EngineCall<xdma::DataCapture4XdmaMM> CaptureEngine(PCIeDataManagerPrivate* d,
                                                          int channel) {
    return {d, d->xdmaCapture, channel, "capture"};
}

inline EngineCall<xdma::DataInject4XdmaMM> InjectEngine(PCIeDataManagerPrivate* d, int channel) {
    return {d, d->xdmaInject, channel, "inject"};
}

}  // namespace kvpcie
