// kvpcie inject: a raw recording or a moving pattern into one channel, at the card's pace.
#include "Commands.h"
#include "FrameOptions.h"
#include "InjectDrain.h"
#include "JsonOutput.h"
#include "RawFrameFile.h"
#include "RawRecordingName.h"
#include "TestFrames.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

namespace kvpcie::cli {

using tools::FillTestFrame;
using tools::NewTestRun;
namespace {

const char kHelp[] =
    "usage: kvpcie inject [--channel C] [--file RAW] [--width W --height H --type TYPE]\n"
    "                     [--rate FPS] [--frames N | --seconds S] [--json]\n"
    "Feeds the channel with the frames of a raw recording (geometry from its name, played in a\n"
    "loop) or with a moving pattern (640 x 512 Y16 by default) at FPS frames per second (25),\n"
    "until N frames were queued, S seconds passed (10 by default) or Ctrl-C. --width, --height\n"
    "and --type override what a raw file's name says, and are needed when it says nothing.\n"
    "Prints the frames queued and how often the 15-frame queue was full once a second, and at\n"
    "the end what went to the card (--json: as one JSON document).\n";

struct InjectOptions {
    int channel = 0;
    int rate = 25;
    RunLimits limits;
    FrameGeometry geometry;
    std::string file;  // a raw recording; empty: the moving pattern
    bool json = false;
};

struct InjectResult {
    std::uint64_t queued = 0;
    std::uint64_t refused = 0;
    double seconds = 0;
    KvInjectStatistics stats{};
    bool cardLost = false;
};

InjectOptions ParseInject(const std::vector<std::string>& args) {
    const Arguments arguments(args, {"--channel", "--file", "--width", "--height", "--type",
                                     "--rate", "--frames", "--seconds"});
    arguments.AllowOnly({"--channel", "--file", "--width", "--height", "--type", "--rate",
                         "--frames", "--seconds", "--json"});
    if (!arguments.Words().empty()) {
        throw UsageError{"unexpected \"" + arguments.Words().front() + "\""};
    }
    InjectOptions options;
    options.channel =
        static_cast<int>(ParseNumber(arguments.Value("--channel").value_or("0"), "channel", 0, 3));
    options.rate =
        static_cast<int>(ParseNumber(arguments.Value("--rate").value_or("25"), "rate", 1, 10000));
    options.limits = ParseRunLimits(arguments);
    options.json = arguments.Has("--json");
    const auto file = arguments.Value("--file");
    if (!file) {
        options.geometry = ParseGeometry(arguments);
        return options;
    }
    options.file = *file;
    const auto info = tools::ParseRawRecordingName(*file);
    const bool allGiven =
        arguments.Has("--width") && arguments.Has("--height") && arguments.Has("--type");
    if (!info && !allGiven) {
        throw UsageError{"the name of " + *file +
                         " does not say its frames (<n>_<W>x<H>_ParamLine<p>_Fps<r>_<TYPE>.raw): "
                         "give --width, --height and --type"};
    }
    // What the options say wins over the name; parameter lines travel as further lines of the
    // picture.
    options.geometry =
        info ? ParseGeometry(arguments, FrameGeometry{info->width, info->height + info->paramLines,
                                                      info->pixelType})
             : ParseGeometry(arguments);
    return options;
}

std::unique_ptr<tools::RawFrameFile> OpenRawFile(const InjectOptions& options) {
    RequireReadableFile(options.file);
    auto raw = std::make_unique<tools::RawFrameFile>();
    switch (raw->Open(options.file, options.geometry.Bytes())) {
        case tools::RawFrameFile::OpenResult::Opened:
            break;
        case tools::RawFrameFile::OpenResult::Unreadable:
            throw RuntimeError{"cannot read " + options.file};
        case tools::RawFrameFile::OpenResult::NotWholeFrames:
            throw UsageError{options.file + " is not a whole number of " +
                             std::to_string(options.geometry.Bytes()) + "-byte frames"};
    }
    return raw;
}

InjectResult RunInjectSession(const InjectOptions& options) {
    const FrameGeometry& geometry = options.geometry;
    const int channel = options.channel;
    std::unique_ptr<tools::RawFrameFile> raw;
    if (!options.file.empty()) {
        raw = OpenRawFile(options);
    }
    CatchInterrupts();
    OpenedCard card;
    PCIeDataManager& manager = card.Manager();
    const bool simulated = IsSimulatedCard(manager);
    std::vector<char> frame(geometry.Bytes());
    InjectResult result;
    std::uint32_t number = 0;
    const std::uint32_t run = NewTestRun();
    const auto nextFrame = [&] {
        if (raw) {
            bool wrapped = false;
            raw->Next(frame.data(), wrapped);
        } else {
            FillTestFrame(frame, channel, run, number);
        }
    };
    nextFrame();
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    auto nextReport = start + std::chrono::seconds(1);
    const double seconds = options.limits.seconds;
    const std::uint64_t frameLimit = options.limits.frames;
    while (!interrupted.load() && !CardIsGone(manager) &&
           (seconds == 0 || Clock::now() - start < std::chrono::duration<double>(seconds)) &&
           (frameLimit == 0 || result.queued < frameLimit)) {
        eErrorCode error = ERR_NONE;
        if (manager.StartInject(channel, options.rate, geometry.width, geometry.height,
                                geometry.type, 0, frame.data(), error)) {
            ++result.queued;
            ++number;
            nextFrame();
        } else if (error == ERR_QUEUE_FULL) {
            ++result.refused;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        } else {
            throw RuntimeError{std::string("the card refused the channel's frames: ") +
                               manager.LastErrorText()};
        }
        if (Clock::now() >= nextReport) {
            nextReport += std::chrono::seconds(1);
            std::printf("ch%d: %llu frames queued, queue full %llu times", channel,
                        static_cast<unsigned long long>(result.queued),
                        static_cast<unsigned long long>(result.refused));
            if (simulated) {
                std::printf(", the card played %u, underruns on the card %u",
                            manager.ReadReg(ControlBlock(channel) + 0x10),
                            manager.ReadReg(ControlBlock(channel) + 0x14));
            }
            std::printf("\n");
            std::fflush(stdout);
        }
    }
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    // The last frames still wait in the queue and the card's buffers, and a stop drops them.
    // Ctrl-C stops at once.
    if (result.queued > 0 && !CardIsGone(manager)) {
        tools::WaitUntilQueuedFramesPlayed(manager, channel, options.rate, [&] {
            return interrupted.load() || manager.IsCardLost();
        });
    }
    manager.StopInject(channel);
    manager.GetInjectStatistics(channel, result.stats);
    result.cardLost = CardIsGone(manager);
    return result;
}

int ReportInject(const InjectOptions& options, const InjectResult& result, JsonOutput& json) {
    const KvInjectStatistics& stats = result.stats;
    std::printf(
        "ch%d: %llu frames queued in %.1f s, %llu handed to the card, %llu dropped at the "
        "stop, %llu periods without a new frame, queue full %llu times\n",
        options.channel, static_cast<unsigned long long>(result.queued), result.seconds,
        static_cast<unsigned long long>(stats.framesToCard),
        static_cast<unsigned long long>(stats.framesDroppedAtStop),
        static_cast<unsigned long long>(stats.periodsWithoutFrame),
        static_cast<unsigned long long>(result.refused));
    if (json.On()) {
        json.Print(
            QJsonObject{{"cardLost", result.cardLost},
                        {"channel", options.channel},
                        {"framesQueued", static_cast<qint64>(result.queued)},
                        {"seconds", result.seconds},
                        {"framesToCard", static_cast<qint64>(stats.framesToCard)},
                        {"framesDroppedAtStop", static_cast<qint64>(stats.framesDroppedAtStop)},
                        {"periodsWithoutFrame", static_cast<qint64>(stats.periodsWithoutFrame)},
                        {"queueFull", static_cast<qint64>(result.refused)}});
    }
    return result.cardLost ? 1 : 0;
}

}  // namespace

int RunInject(const std::vector<std::string>& args) {
    if (PrintHelpIfAsked(args, kHelp)) {
        return 0;
    }
    const InjectOptions options = ParseInject(args);
    JsonOutput json(options.json);
    const InjectResult result = RunInjectSession(options);
    return ReportInject(options, result, json);
}

}  // namespace kvpcie::cli
