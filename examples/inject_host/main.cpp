// The shortest complete inject host: play a moving grey ramp on channel 0 for two seconds at 50
// frames per second. Without hardware: KVPCIE_SIM=1 ./inject_host
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

int main() {
    constexpr int kWidth = 640;
    constexpr int kHeight = 512;
    constexpr int kFrameRate = 50;
    PCIeDataManager manager;
    std::vector<char> frame(KvFrameSizeBytes(Y8, kWidth, kHeight));
    int queued = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (std::chrono::steady_clock::now() < end) {
        for (std::size_t i = 0; i < frame.size(); ++i) {
            frame[i] = static_cast<char>(i % kWidth + queued);
        }
        eErrorCode error = ERR_NONE;
        // The first call opens the first card and starts the channel; each call queues a copy.
        if (manager.StartInject(0, kFrameRate, kWidth, kHeight, Y8, 0, frame.data(), error)) {
            ++queued;
        } else if (error == ERR_QUEUE_FULL) {
            // 15 frames wait already: the card plays one per period, so try again shortly.
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        } else {
            std::fprintf(stderr, "injection did not start (%s)\n",
                         error == ERR_NO_CARD ? "no card: set KVPCIE_SIM=1 for the simulated one"
                                              : "refused");
            return 1;
        }
    }
    manager.StopInject(0);
    manager.CloseCard();
    std::printf("%d frames queued\n", queued);
    return queued > 0 ? 0 : 1;
}
