// kvpcie capture: channels into host buffers, with one line of statistics a second.
#include "Commands.h"
#include "FrameOptions.h"
#include "JsonOutput.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonArray>

#include <array>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>

namespace kvpcie::cli {
namespace {

const char kHelp[] =
    "usage: kvpcie capture [--channels 0,1,2,3] [--width W] [--height H] [--type TYPE]\n"
    "                      [--card-timing] [--frames N | --seconds S] [--record]\n"
    "                      [--snapshot DIR] [--json]\n"
    "Captures until N frames arrived on every channel, S seconds passed (10 by default) or\n"
    "Ctrl-C. Prints frames, frame rate, frames the card dropped (simulated card) and bytes per\n"
    "channel once a second. --record writes raw files below VideoRecord/Capture<N>/ beside the\n"
    "program; --snapshot writes each channel's first frame as DIR/channel<N>.png. --json prints\n"
    "the figures at the end as one JSON document instead.\n"
    "TYPE: UYVY422, Y8, Y16 (default), Y16&Y8, BGR24; W x H 640 x 512 by default.\n";

struct ChannelSink {
    std::vector<char> buffer;
    std::atomic<std::uint64_t> frames{0};
    bool wantSnapshot = false;
    std::mutex snapshotLock;
    std::vector<char> snapshot;
};

void OnFrame(int, const char* frame, void* context) {
    auto* sink = static_cast<ChannelSink*>(context);
    if (sink->wantSnapshot && sink->frames.load() == 0) {
        std::lock_guard<std::mutex> lock(sink->snapshotLock);
        sink->snapshot.assign(frame, frame + sink->buffer.size());
    }
    sink->frames.fetch_add(1);
}

}  // namespace

int RunCapture(const std::vector<std::string>& args) {
    if (PrintHelpIfAsked(args, kHelp)) {
        return 0;
    }
    const Arguments arguments(args, {"--channels", "--width", "--height", "--type", "--frames",
                                     "--seconds", "--snapshot"});
    arguments.AllowOnly({"--channels", "--width", "--height", "--type", "--frames", "--seconds",
                         "--snapshot", "--card-timing", "--record", "--json"});
    if (!arguments.Words().empty()) {
        throw UsageError{"unexpected \"" + arguments.Words().front() + "\""};
    }
    const std::vector<int> channels = ParseChannels(arguments.Value("--channels").value_or("0"));
    const FrameGeometry geometry = ParseGeometry(arguments);
    const RunLimits limits = ParseRunLimits(arguments);
    const std::uint64_t frameLimit = limits.frames;
    const double seconds = limits.seconds;
    const auto snapshotDir = arguments.Value("--snapshot");
    if (snapshotDir && !QDir().mkpath(QString::fromStdString(*snapshotDir))) {
        throw RuntimeError{"cannot create " + *snapshotDir};
    }

    const bool asJson = arguments.Has("--json");
    JsonOutput json(asJson);
    CatchInterrupts();
    PCIeDataManager manager;
    OpenChosenCard(manager);
    const bool simulated = IsSimulatedCard(manager);
    std::array<ChannelSink, 4> sinks;
    for (int c : channels) {
        sinks[c].buffer.assign(geometry.Bytes(), 0);
        sinks[c].wantSnapshot = snapshotDir.has_value();
        eErrorCode error = ERR_NONE;
        if (!manager.StartCapture(c, arguments.Has("--card-timing"), geometry.width,
                                  geometry.height, geometry.type, error, &OnFrame, &sinks[c],
                                  sinks[c].buffer.data())) {
            const std::string reason = manager.LastErrorText();
            manager.CloseCard();
            throw RuntimeError{"channel " + std::to_string(c) + " did not start: " + reason};
        }
        if (arguments.Has("--record") && !manager.StartRecord(c)) {
            const std::string reason = manager.LastErrorText();
            manager.CloseCard();
            throw RuntimeError{"channel " + std::to_string(c) +
                               " did not start recording: " + reason};
        }
    }

    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    auto nextReport = start + std::chrono::seconds(1);
    std::array<std::uint64_t, 4> reported{};
    const auto done = [&] {
        if (interrupted.load()) {
            return true;
        }
        if (seconds != 0 && Clock::now() - start >= std::chrono::duration<double>(seconds)) {
            return true;
        }
        if (frameLimit == 0) {
            return false;
        }
        for (int c : channels) {
            if (sinks[c].frames.load() < frameLimit) {
                return false;
            }
        }
        return true;
    };
    while (!done() && !CardIsGone(manager)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (Clock::now() < nextReport) {
            continue;
        }
        nextReport += std::chrono::seconds(1);
        for (int c : channels) {
            const std::uint64_t frames = sinks[c].frames.load();
            std::printf("ch%d: %llu frames, %llu fps, ", c, static_cast<unsigned long long>(frames),
                        static_cast<unsigned long long>(frames - reported[c]));
            if (simulated) {
                std::printf("%u dropped, ", manager.ReadReg(ControlBlock(c) + 0x0C));
            }
            std::printf("%.1f MB   ", frames * double(geometry.Bytes()) / 1e6);
            reported[c] = frames;
        }
        std::printf("\n");
        std::fflush(stdout);
    }
    std::array<KvCaptureStatistics, 4> stats{};
    for (int c : channels) {
        manager.StopRecord(c);
        manager.StopCapture(c);
        manager.GetCaptureStatistics(c, stats[c]);
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    const QString recordFolder = QCoreApplication::applicationDirPath() + "/VideoRecord/Capture";
    QJsonArray figures;
    for (int c : channels) {
        const std::uint64_t frames = sinks[c].frames.load();
        QJsonObject channel{{"channel", c},
                            {"frames", static_cast<qint64>(frames)},
                            {"seconds", elapsed},
                            {"framesPerSecond", frames / elapsed},
                            {"framesFailed", static_cast<qint64>(stats[c].framesFailed)},
                            {"errorFrames", static_cast<qint64>(stats[c].errorFrames)}};
        if (simulated) {
            channel["droppedByCard"] = static_cast<qint64>(manager.ReadReg(ControlBlock(c) + 0x0C));
        }
        if (arguments.Has("--record")) {
            channel["framesRecorded"] = static_cast<qint64>(stats[c].framesRecorded);
            channel["framesNotRecorded"] = static_cast<qint64>(stats[c].framesNotRecorded);
            channel["recordFolder"] = recordFolder + QString::number(c + 1);
        }
        figures.append(channel);
        std::printf("ch%d: %llu frames in %.1f s (%.1f fps)\n", c,
                    static_cast<unsigned long long>(frames), elapsed, frames / elapsed);
        if (arguments.Has("--record")) {
            std::printf(
                "ch%d: %llu frames recorded, %llu not recorded, in %s/VideoRecord/Capture%d/\n", c,
                static_cast<unsigned long long>(stats[c].framesRecorded),
                static_cast<unsigned long long>(stats[c].framesNotRecorded),
                qPrintable(QCoreApplication::applicationDirPath()), c + 1);
        }
        if (snapshotDir && !sinks[c].snapshot.empty()) {
            const std::string path = *snapshotDir + "/channel" + std::to_string(c) + ".png";
            if (!SaveFramePng(path, geometry, sinks[c].snapshot.data())) {
                manager.CloseCard();
                throw RuntimeError{"cannot write " + path};
            }
            std::printf("ch%d: snapshot %s\n", c, path.c_str());
        }
    }
    const bool lost = CardIsGone(manager);
    manager.CloseCard();
    if (asJson) {
        json.Print(QJsonObject{{"channels", figures}, {"cardLost", lost}});
    }
    return lost ? 1 : 0;
}

}  // namespace kvpcie::cli
