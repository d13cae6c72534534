// The shortest complete capture host: capture channel 0 for two seconds, counting the frames
// that arrive in the callback. Without hardware: KVPCIE_SIM=1 ./capture_host
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

namespace {

std::atomic<int> frames{0};

// Runs on the library's polling thread, once per frame, with the frame in our buffer.
void OnFrame(int /*channel*/, const char* /*frame*/, void* /*context*/) {
    ++frames;
}

}  // namespace

int main() {
    constexpr int kWidth = 640;
    constexpr int kHeight = 512;
    PCIeDataManager manager;
    std::vector<char> frame(KvFrameSizeBytes(Y16, kWidth, kHeight));
    eErrorCode error = ERR_NONE;
    // Opens the first card by itself; the card times the frames at 25 per second.
    if (!manager.StartCapture(0, /*cardTiming=*/true, kWidth, kHeight, Y16, error, &OnFrame,
                              nullptr, frame.data())) {
        std::fprintf(
            stderr, "capture did not start (%s)\n",
            error == ERR_NO_CARD ? "no card: set KVPCIE_SIM=1 for the simulated one" : "refused");
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::seconds(2));
    manager.StopCapture(0);  // from here on the buffer and the callback are ours again
    manager.CloseCard();
    std::printf("%d frames captured\n", frames.load());
    return frames > 0 ? 0 : 1;
}
