// kvviewer: the bench's window onto an XDMA frame card.
#include "SimulationSetting.h"
#include "StudioWindow.h"
#include "ViewerOptions.h"

#include <QApplication>
#include <QTimer>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::atomic<bool> interrupted{false};

extern "C" void OnInterrupt(int) {
    interrupted.store(true);
}

}  // namespace

int main(int argc, char** argv) {
    using kvpcie::viewer::ParseViewerOptions;
    // Parsed before Qt starts, so that a mistake is reported without a display.
    const auto parsed = ParseViewerOptions(std::vector<std::string>(argv + 1, argv + argc));
    if (parsed.help) {
        std::fputs(kvpcie::viewer::kUsage, stdout);
        return 0;
    }
    if (!parsed.error.empty()) {
        std::fprintf(stderr, "kvviewer: %s\n\n%s", parsed.error.c_str(), kvpcie::viewer::kUsage);
        return 2;
    }
    const auto& options = parsed.options;
    // The demo runs on a simulated card: the one in this process unless the environment
    // names simulated cards or a driver model's.
    const bool demoNeedsCard = options.demo && qEnvironmentVariableIsEmpty("KVPCIE_SIM") &&
                               qEnvironmentVariableIsEmpty("KVPCIE_LINUX_ROOT");
    if (options.simulated || demoNeedsCard) {
        qputenv("KVPCIE_SIM", "1");
    }

    if (const std::string problem = kvpcie::tools::SimulationSettingProblem(); !problem.empty()) {
        std::fprintf(stderr, "kvviewer: %s\n", problem.c_str());
        return 2;
    }

    // Every argument is the viewer's; Qt gets none of them to reinterpret.
    static int qtArgc = 1;
    // Kept to the end of the process: destroying it closes the X connection, which unloads the
    // OpenGL driver with blocks it still holds, and leak checkers then blame them on us.
    QApplication& app = *new QApplication(qtArgc, argv);
    kvpcie::viewer::StudioWindow window(options);
    window.show();
    if (!options.tab.empty()) {
        window.ShowTab(QString::fromStdString(options.tab));
    }
    if (options.demo && !window.StartDemo()) {
        std::fprintf(stderr, "kvviewer: the demo needs the simulated card (--sim)\n");
    }
    if (options.autostart && !window.StartChosenChannels()) {
        std::fprintf(stderr, "kvviewer: not every channel started\n");
    }
    if (options.quitAfterMs >= 0) {
        QTimer::singleShot(options.quitAfterMs, &window, &QWidget::close);
    }
    // Ctrl-C closes the window like its close button, so the card is shut down cleanly.
    std::signal(SIGINT, OnInterrupt);
    std::signal(SIGTERM, OnInterrupt);
    QTimer interruptCheck;
    QObject::connect(&interruptCheck, &QTimer::timeout, &window, [&window] {
        if (interrupted.load()) {
            window.close();
        }
    });
    interruptCheck.start(100);

    const int code = app.exec();
    window.Shutdown();
    return code != 0 ? code : (window.ScreenshotSaved() ? 0 : 1);
}
