// What kvviewer's window costs beyond drawing: four channels of 640 x 512 Y16 at 25 frames per
// second captured with a callback that does nothing, then the same four channels in the window
// (pictures converted and handed to the display widgets, the analysis copy, the histogram, the
// statistics and state lines), never shown, so that nothing is drawn. The difference in the
// process's CPU is the window's cost, both measured in the same run on the simulated card.
#include "Figure.h"
#include "SimCardBench.h"

#include "StudioWindow.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <sys/resource.h>

#include <cstdio>
#include <vector>

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 512;
constexpr int kWarmUpMs = 2000;
constexpr int kMeasureMs = 10000;

double ProcessCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec +
           usage.ru_stime.tv_usec / 1e6;
}

// Share of one core that the process used over `ms`, the event loop running meanwhile.
double CoreShareOver(int ms) {
    const double cpuStart = ProcessCpuSeconds();
    QElapsedTimer wall;
    wall.start();
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
    return (ProcessCpuSeconds() - cpuStart) / (wall.elapsed() / 1000.0);
}

void Idle(int ms) {
    CoreShareOver(ms);
}

void OnFrame(int, const char*, void*) {}

double EnginesAlone() {
    PCIeDataManager manager;
    if (!kvpcie::bench::OpenSimulatedCard(manager)) {
        return -1;
    }
    std::vector<std::vector<char>> buffers(4, std::vector<char>(kWidth * kHeight * 2));
    for (unsigned c = 0; c < 4; ++c) {
        eErrorCode error = ERR_NONE;
        if (!manager.StartCapture(c, false, kWidth, kHeight, Y16, error, &OnFrame, nullptr,
                                  buffers[c].data())) {
            std::fprintf(stderr, "channel %u did not start: %s\n", c, manager.LastErrorText());
            return -1;
        }
    }
    Idle(kWarmUpMs);
    const double share = CoreShareOver(kMeasureMs);
    manager.CloseCard();
    return share;
}

double InTheWindow() {
    kvpcie::viewer::ViewerOptions options;
    options.simulated = true;
    options.noSettings = true;
    options.width = kWidth;
    options.height = kHeight;
    options.pixelType = Y16;
    kvpcie::viewer::StudioWindow window(options);
    if (!window.IsCardOpen() || !window.StartChosenChannels()) {
        std::fprintf(stderr, "the window's channels did not start\n");
        return -1;
    }
    Idle(kWarmUpMs);
    const double share = CoreShareOver(kMeasureMs);
    for (int c = 0; c < 4; ++c) {
        std::printf("channel %d: %llu frames\n", c,
                    static_cast<unsigned long long>(window.Capture(c)->Frames()));
    }
    window.Shutdown();
    return share;
}

}  // namespace

int main(int argc, char** argv) {
    // Nothing is shown, so no display is needed.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    qputenv("KVPCIE_SIM", "1");
    QApplication application(argc, argv);
    const double engines = EnginesAlone();
    const double window = InTheWindow();
    if (engines < 0 || window < 0) {
        return 1;
    }
    const double cost = (window - engines) * 100;
    std::printf("four channels of 640 x 512 Y16 at 25 fps: %.1f %% of a core with a callback that "
                "does nothing, %.1f %% in the window: the window costs %.1f %% (goal <= 10 %%)\n",
                engines * 100, window * 100, cost);
    kvpcie::bench::PrintFigure("viewer_window_cpu", cost, "<=", 10.0, "%core");
    kvpcie::bench::PrintFigure("viewer_engines_cpu", engines * 100, "info", 0, "%core");
    return 0;
}
