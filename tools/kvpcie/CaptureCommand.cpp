// kvpcie capture: channels into host buffers, with one line of statistics a second; their frames
// into a raw file or a picture, or recorded by the library.
#include "Commands.h"
#include "FrameFileWriter.h"
#include "FrameOptions.h"
#include "JsonOutput.h"

#include <KvPCIeInjectSdk/KvPCIeRecording.h>

#include <QDir>
#include <QJsonArray>

#include <array>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace kvpcie::cli {
namespace {

const char kHelp[] =
    "usage: kvpcie capture [--channels 0,1,2,3] [--width W] [--height H] [--type TYPE]\n"
    "                      [--card-timing] [-n N | --frames N] [--seconds S]\n"
    "                      [-o FILE] [--record [--output DIR]] [--snapshot DIR] [--json]\n"
    "Captures until N frames arrived on every channel, S seconds passed (10 by default) or\n"
    "Ctrl-C. Prints frames, frame rate, frames the card dropped (simulated card) and bytes per\n"
    "channel once a second.\n"
    "-o FILE writes one channel's frames to FILE: raw frames one after the other, or with a\n"
    "name ending in .png or .pgm (Y8 and Y16) one frame as a picture (-n 1 implied).\n"
    "--record has the library record raw files into a take folder below DIR/Capture<N>/\n"
    "(DIR: the program's VideoRecord folder unless --output says); the folder is printed.\n"
    "--snapshot writes each channel's first frame as DIR/channel<N>.png. --json prints the\n"
    "figures at the end as one JSON document instead.\n"
    "TYPE: UYVY422, Y8, Y16 (default), Y16&Y8, BGR24; W x H 640 x 512 by default.\n";

enum class OutputKind { None, Raw, Png, Pgm };

struct CaptureOptions {
    std::vector<int> channels;
    FrameGeometry geometry;
    RunLimits limits;
    bool cardTiming = false;
    bool record = false;
    bool json = false;
    std::optional<std::string> recordRoot;   // --output
    std::optional<std::string> snapshotDir;  // --snapshot
    std::string outputFile;                  // -o
    OutputKind outputKind = OutputKind::None;
};

bool EndsWith(const std::string& text, const char* suffix) {
    const std::string end(suffix);
    if (text.size() < end.size()) {
        return false;
    }
    for (std::size_t i = 0; i < end.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(text[text.size() - end.size() + i])) !=
            end[i]) {
            return false;
        }
    }
    return true;
}

CaptureOptions ParseCapture(const std::vector<std::string>& args) {
    const Arguments arguments(args, {"--channels", "--width", "--height", "--type", "--frames",
                                     "-n", "--seconds", "--snapshot", "--output", "-o"});
    arguments.AllowOnly({"--channels", "--width", "--height", "--type", "--frames", "-n",
                         "--seconds", "--snapshot", "--output", "-o", "--card-timing", "--record",
                         "--json"});
    if (!arguments.Words().empty()) {
        throw UsageError{"unexpected \"" + arguments.Words().front() + "\""};
    }
    if (arguments.Has("-n") && arguments.Has("--frames")) {
        throw UsageError{"-n and --frames say the same: give one"};
    }
    CaptureOptions options;
    options.channels = ParseChannels(arguments.Value("--channels").value_or("0"));
    options.geometry = ParseGeometry(arguments);
    options.limits = ParseRunLimits(arguments);
    if (const auto n = arguments.Value("-n")) {
        options.limits.frames = ParseNumber(*n, "frames", 1, 1000000000);
        if (!arguments.Has("--seconds")) {
            options.limits.seconds = 0;
        }
    }
    options.cardTiming = arguments.Has("--card-timing");
    options.record = arguments.Has("--record");
    options.json = arguments.Has("--json");
    options.snapshotDir = arguments.Value("--snapshot");
    options.recordRoot = arguments.Value("--output");
    if (options.recordRoot && !options.record) {
        throw UsageError{
            "--output DIR is where --record writes: add --record (or -o FILE for "
            "the frames themselves)"};
    }
    if (const auto file = arguments.Value("-o")) {
        options.outputFile = *file;
        if (options.channels.size() != 1) {
            throw UsageError{"-o FILE takes the frames of one channel: choose it with --channels"};
        }
        const bool png = EndsWith(*file, ".png");
        const bool pgm = EndsWith(*file, ".pgm");
        options.outputKind = png ? OutputKind::Png : pgm ? OutputKind::Pgm : OutputKind::Raw;
        if (png || pgm) {
            if (options.limits.frames > 1 && (arguments.Has("-n") || arguments.Has("--frames"))) {
                throw UsageError{"a picture holds one frame: -n 1, or a raw file name for more"};
            }
            options.limits.frames = 1;
        }
        if (pgm && options.geometry.type != Y8 && options.geometry.type != Y16) {
            throw UsageError{"a .pgm picture holds Y8 or Y16 frames: use .png for this type"};
        }
        if (options.outputKind == OutputKind::Raw && options.limits.frames == 0) {
            throw UsageError{"-o FILE needs the number of frames: -n N"};
        }
    }
    return options;
}

// What one channel's frame callback feeds.
struct ChannelSink {
    std::vector<char> buffer;
    std::atomic<std::uint64_t> frames{0};
    bool wantPicture = false;
    std::mutex pictureLock;
    std::vector<char> picture;  // the first frame, for --snapshot or a picture -o
    std::unique_ptr<FrameFileWriter> file;
};

void OnFrame(int, const char* frame, void* context) {
    auto* sink = static_cast<ChannelSink*>(context);
    if (sink->wantPicture && sink->frames.load() == 0) {
        std::lock_guard<std::mutex> lock(sink->pictureLock);
        sink->picture.assign(frame, frame + sink->buffer.size());
    }
    if (sink->file) {
        sink->file->Offer(frame);
    }
    sink->frames.fetch_add(1);
}

struct ChannelResult {
    int channel = 0;
    std::uint64_t frames = 0;
    KvCaptureStatistics stats{};
    std::optional<std::uint32_t> droppedByCard;  // simulated card only
    QString takeFolder;
};

struct CaptureResult {
    std::vector<ChannelResult> channels;
    double seconds = 0;
    bool cardLost = false;
    std::uint64_t framesWritten = 0;  // -o raw
    std::uint64_t framesNotWritten = 0;
    std::string writeError;
};

// Writes a Y8 or Y16 frame as a binary PGM (16-bit samples big-endian, as the format wants).
bool SaveFramePgm(const std::string& path, const FrameGeometry& geometry, const char* frame) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        return false;
    }
    const bool wide = geometry.type == Y16;
    std::fprintf(file, "P5\n%d %d\n%d\n", geometry.width, geometry.height, wide ? 65535 : 255);
    const std::size_t samples = static_cast<std::size_t>(geometry.width) * geometry.height;
    bool ok = true;
    if (wide) {
        std::vector<unsigned char> row(static_cast<std::size_t>(geometry.width) * 2);
        const auto* in = reinterpret_cast<const unsigned char*>(frame);
        for (std::size_t i = 0; i < samples && ok; i += geometry.width) {
            for (int x = 0; x < geometry.width; ++x) {
                row[2 * x] = in[2 * (i + x) + 1];
                row[2 * x + 1] = in[2 * (i + x)];
            }
            ok = std::fwrite(row.data(), 1, row.size(), file) == row.size();
        }
    } else {
        ok = std::fwrite(frame, 1, samples, file) == samples;
    }
    return std::fclose(file) == 0 && ok;
}

void PrintProgress(PCIeDataManager& manager, const CaptureOptions& options, bool simulated,
                   std::array<ChannelSink, 4>& sinks, std::array<std::uint64_t, 4>& reported) {
    for (int c : options.channels) {
        const std::uint64_t frames = sinks[c].frames.load();
        std::printf("ch%d: %llu frames, %llu fps, ", c, static_cast<unsigned long long>(frames),
                    static_cast<unsigned long long>(frames - reported[c]));
        if (simulated) {
            std::printf("%u dropped by the card, ", manager.ReadReg(ControlBlock(c) + 0x0C));
        }
        std::printf("%.1f MB   ", frames * double(options.geometry.Bytes()) / 1e6);
        reported[c] = frames;
    }
    std::printf("\n");
    std::fflush(stdout);
}

CaptureResult RunCaptureSession(const CaptureOptions& options) {
    const FrameGeometry& geometry = options.geometry;
    std::array<ChannelSink, 4> sinks;
    for (int c : options.channels) {
        sinks[c].buffer.assign(geometry.Bytes(), 0);
        sinks[c].wantPicture = options.snapshotDir.has_value() ||
                               options.outputKind == OutputKind::Png ||
                               options.outputKind == OutputKind::Pgm;
    }
    if (options.snapshotDir &&
        !QDir().mkpath(QString::fromLocal8Bit(options.snapshotDir->c_str()))) {
        throw RuntimeError{"cannot create " + *options.snapshotDir};
    }
    if (options.outputKind == OutputKind::Raw) {
        sinks[options.channels.front()].file = std::make_unique<FrameFileWriter>(
            options.outputFile, geometry.Bytes(), options.limits.frames);
    }
    if (options.recordRoot) {
        KvPCIe::SetRecordRoot(QString::fromLocal8Bit(options.recordRoot->c_str()));
    }

    CatchInterrupts();
    OpenedCard card;
    PCIeDataManager& manager = card.Manager();
    const bool simulated = IsSimulatedCard(manager);
    for (int c : options.channels) {
        eErrorCode error = ERR_NONE;
        if (!manager.StartCapture(c, options.cardTiming, geometry.width, geometry.height,
                                  geometry.type, error, &OnFrame, &sinks[c],
                                  sinks[c].buffer.data())) {
            throw RuntimeError{"channel " + std::to_string(c) +
                               " did not start: " + manager.LastErrorText()};
        }
        if (options.record) {
            if (!manager.StartRecord(c)) {
                throw RuntimeError{"channel " + std::to_string(c) +
                                   " did not start recording: " + manager.LastErrorText()};
            }
            if (!options.json) {
                std::printf("ch%d: recording into %s\n", c,
                            qPrintable(QDir::toNativeSeparators(manager.GetRecordTakeFolder(c))));
            }
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
        if (options.limits.seconds != 0 &&
            Clock::now() - start >= std::chrono::duration<double>(options.limits.seconds)) {
            return true;
        }
        if (options.limits.frames == 0) {
            return false;
        }
        for (int c : options.channels) {
            if (sinks[c].frames.load() < options.limits.frames) {
                return false;
            }
        }
        return true;
    };
    while (!done() && !CardIsGone(manager)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (Clock::now() >= nextReport) {
            nextReport += std::chrono::seconds(1);
            PrintProgress(manager, options, simulated, sinks, reported);
        }
    }

    CaptureResult result;
    for (int c : options.channels) {
        manager.StopRecord(c);
        manager.StopCapture(c);
        ChannelResult channel;
        channel.channel = c;
        channel.frames = sinks[c].frames.load();
        manager.GetCaptureStatistics(c, channel.stats);
        if (simulated) {
            channel.droppedByCard = manager.ReadReg(ControlBlock(c) + 0x0C);
        }
        channel.takeFolder = manager.GetRecordTakeFolder(c);
        result.channels.push_back(channel);
    }
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    result.cardLost = CardIsGone(manager);

    // The pictures and files, now that no callback runs.
    ChannelSink& first = sinks[options.channels.front()];
    if (first.file) {
        first.file->Finish();
        result.framesWritten = first.file->FramesWritten();
        result.framesNotWritten = first.file->FramesLost();
        result.writeError = first.file->Error();
    }
    if ((options.outputKind == OutputKind::Png || options.outputKind == OutputKind::Pgm) &&
        !first.picture.empty()) {
        const bool saved = options.outputKind == OutputKind::Png
                               ? SaveFramePng(options.outputFile, geometry, first.picture.data())
                               : SaveFramePgm(options.outputFile, geometry, first.picture.data());
        if (!saved) {
            throw RuntimeError{"cannot write " + options.outputFile};
        }
        result.framesWritten = 1;
    }
    if (options.snapshotDir) {
        for (int c : options.channels) {
            if (sinks[c].picture.empty()) {
                continue;
            }
            const std::string path = *options.snapshotDir + "/channel" + std::to_string(c) + ".png";
            if (!SaveFramePng(path, geometry, sinks[c].picture.data())) {
                throw RuntimeError{"cannot write " + path};
            }
            if (!options.json) {
                std::printf("ch%d: snapshot %s\n", c, path.c_str());
            }
        }
    }
    return result;
}

// Exit code: 1 when the card went away or -o did not get every frame it asked for.
int ReportCapture(const CaptureOptions& options, const CaptureResult& result, JsonOutput& json) {
    const bool toFile = options.outputKind != OutputKind::None;
    const bool fileShort =
        toFile && !interrupted.load() && result.framesWritten < options.limits.frames;
    QJsonArray figures;
    for (const ChannelResult& channel : result.channels) {
        const double fps = channel.frames / result.seconds;
        QJsonObject figure{{"channel", channel.channel},
                           {"frames", static_cast<qint64>(channel.frames)},
                           {"seconds", result.seconds},
                           {"framesPerSecond", fps},
                           {"framesFailed", static_cast<qint64>(channel.stats.framesFailed)},
                           {"errorFrames", static_cast<qint64>(channel.stats.errorFrames)}};
        if (channel.droppedByCard) {
            figure["droppedByCard"] = static_cast<qint64>(*channel.droppedByCard);
        }
        std::printf("ch%d: %llu frames in %.1f s (%.1f fps)\n", channel.channel,
                    static_cast<unsigned long long>(channel.frames), result.seconds, fps);
        if (options.record) {
            const QString folder = QDir::toNativeSeparators(channel.takeFolder);
            figure["framesRecorded"] = static_cast<qint64>(channel.stats.framesRecorded);
            figure["framesNotRecorded"] = static_cast<qint64>(channel.stats.framesNotRecorded);
            figure["recordFolder"] = folder;
            std::printf("ch%d: %llu frames recorded, %llu not recorded, in %s\n", channel.channel,
                        static_cast<unsigned long long>(channel.stats.framesRecorded),
                        static_cast<unsigned long long>(channel.stats.framesNotRecorded),
                        qPrintable(folder));
        }
        figures.append(figure);
    }
    QJsonObject document{{"channels", figures}, {"cardLost", result.cardLost}};
    if (toFile) {
        document["output"] = QString::fromLocal8Bit(options.outputFile.c_str());
        document["framesWritten"] = static_cast<qint64>(result.framesWritten);
        document["framesNotWritten"] = static_cast<qint64>(result.framesNotWritten);
        std::printf("%llu frame(s) written to %s",
                    static_cast<unsigned long long>(result.framesWritten),
                    options.outputFile.c_str());
        if (result.framesNotWritten != 0) {
            std::printf(", %llu lost (the disk was slower than the channel)",
                        static_cast<unsigned long long>(result.framesNotWritten));
        }
        std::printf("\n");
    }
    if (json.On()) {
        json.Print(document);
    }
    if (!result.writeError.empty()) {
        std::fprintf(stderr, "kvpcie capture: writing %s failed: %s\n", options.outputFile.c_str(),
                     result.writeError.c_str());
    } else if (fileShort) {
        std::fprintf(stderr, "kvpcie capture: %s has %llu of the %llu frames asked for\n",
                     options.outputFile.c_str(),
                     static_cast<unsigned long long>(result.framesWritten),
                     static_cast<unsigned long long>(options.limits.frames));
    }
    return result.cardLost || fileShort || !result.writeError.empty() ? 1 : 0;
}

}  // namespace

int RunCapture(const std::vector<std::string>& args) {
    if (PrintHelpIfAsked(args, kHelp)) {
        return 0;
    }
    const CaptureOptions options = ParseCapture(args);
    JsonOutput json(options.json);
    const CaptureResult result = RunCaptureSession(options);
    return ReportCapture(options, result, json);
}

}  // namespace kvpcie::cli
