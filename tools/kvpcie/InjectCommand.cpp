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
    "usage: kvpcie inject [--channel C] [--file RAW | --width W --height H --type TYPE]\n"
    "                     [--rate FPS] [--frames N | --seconds S] [--json]\n"
    "Feeds the channel with the frames of a raw recording (geometry from its name, played in a\n"
    "loop) or with a moving pattern (640 x 512 Y16 by default) at FPS frames per second (25),\n"
    "until N frames were queued, S seconds passed (10 by default) or Ctrl-C. Prints the frames\n"
    "queued and how often the 15-frame queue was full once a second, and at the end what went\n"
    "to the card (--json: as one JSON document).\n";

}  // namespace

int RunInject(const std::vector<std::string>& args) {
    if (PrintHelpIfAsked(args, kHelp)) {
        return 0;
    }
    const Arguments arguments(args, {"--channel", "--file", "--width", "--height", "--type",
                                     "--rate", "--frames", "--seconds"});
    arguments.AllowOnly({"--channel", "--file", "--width", "--height", "--type", "--rate",
                         "--frames", "--seconds", "--json"});
    if (!arguments.Words().empty()) {
        throw UsageError{"unexpected \"" + arguments.Words().front() + "\""};
    }
    const int channel =
        static_cast<int>(ParseNumber(arguments.Value("--channel").value_or("0"), "channel", 0, 3));
    const int rate =
        static_cast<int>(ParseNumber(arguments.Value("--rate").value_or("25"), "rate", 1, 10000));
    const RunLimits limits = ParseRunLimits(arguments);
    const std::uint64_t frameLimit = limits.frames;
    const double seconds = limits.seconds;
    FrameGeometry geometry;
    std::unique_ptr<tools::RawFrameFile> raw;
    if (const auto file = arguments.Value("--file")) {
        const auto info = tools::ParseRawRecordingName(*file);
        if (!info) {
            throw UsageError{
                "the name of " + *file +
                " does not say its frames (<n>_<W>x<H>_ParamLine<p>_Fps<r>_<TYPE>.raw)"};
        }
        // Parameter lines travel as further lines of the picture.
        geometry = ParseGeometry(
            arguments,
            FrameGeometry{info->width, info->height + info->paramLines, info->pixelType});
        RequireReadableFile(*file);
        raw = std::make_unique<tools::RawFrameFile>();
        switch (raw->Open(*file, geometry.Bytes())) {
            case tools::RawFrameFile::OpenResult::Opened:
                break;
            case tools::RawFrameFile::OpenResult::Unreadable:
                throw RuntimeError{"cannot read " + *file};
            case tools::RawFrameFile::OpenResult::NotWholeFrames:
                throw UsageError{*file + " is not a whole number of " +
                                 std::to_string(geometry.Bytes()) + "-byte frames"};
        }
    } else {
        geometry = ParseGeometry(arguments);
    }

    const bool asJson = arguments.Has("--json");
    JsonOutput json(asJson);
    CatchInterrupts();
    PCIeDataManager manager;
    OpenChosenCard(manager);
    const bool simulated = IsSimulatedCard(manager);
    std::vector<char> frame(geometry.Bytes());
    std::uint64_t queued = 0;
    std::uint64_t refused = 0;
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
    while (!interrupted.load() && !CardIsGone(manager) &&
           (seconds == 0 || Clock::now() - start < std::chrono::duration<double>(seconds)) &&
           (frameLimit == 0 || queued < frameLimit)) {
        eErrorCode error = ERR_NONE;
        if (manager.StartInject(channel, rate, geometry.width, geometry.height, geometry.type, 0,
                                frame.data(), error)) {
            ++queued;
            ++number;
            nextFrame();
        } else if (error == ERR_QUEUE_FULL) {
            ++refused;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        } else {
            const std::string reason = manager.LastErrorText();
            manager.CloseCard();
            throw RuntimeError{"the card refused the channel's frames: " + reason};
        }
        if (Clock::now() >= nextReport) {
            nextReport += std::chrono::seconds(1);
            std::printf("ch%d: %llu frames queued, queue full %llu times", channel,
                        static_cast<unsigned long long>(queued),
                        static_cast<unsigned long long>(refused));
            if (simulated) {
                std::printf(", the card played %u, underruns on the card %u",
                            manager.ReadReg(ControlBlock(channel) + 0x10),
                            manager.ReadReg(ControlBlock(channel) + 0x14));
            }
            std::printf("\n");
            std::fflush(stdout);
        }
    }
    const double queuedSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    // The last frames still wait in the queue and the card's buffers, and a stop drops them.
    // Ctrl-C stops at once.
    if (queued > 0 && !CardIsGone(manager)) {
        tools::WaitUntilQueuedFramesPlayed(manager, channel, rate, [&] {
            return interrupted.load() || manager.IsCardLost();
        });
    }
    KvInjectStatistics stats;
    manager.StopInject(channel);
    manager.GetInjectStatistics(channel, stats);
    std::printf(
        "ch%d: %llu frames queued in %.1f s, %llu handed to the card, %llu dropped at the "
        "stop, %llu periods without a new frame, queue full %llu times\n",
        channel, static_cast<unsigned long long>(queued), queuedSeconds,
        static_cast<unsigned long long>(stats.framesToCard),
        static_cast<unsigned long long>(stats.framesDroppedAtStop),
        static_cast<unsigned long long>(stats.periodsWithoutFrame),
        static_cast<unsigned long long>(refused));
    const bool lost = CardIsGone(manager);
    manager.CloseCard();
    if (asJson) {
        json.Print(
            QJsonObject{{"cardLost", lost},
                        {"channel", channel},
                        {"framesQueued", static_cast<qint64>(queued)},
                        {"seconds", queuedSeconds},
                        {"framesToCard", static_cast<qint64>(stats.framesToCard)},
                        {"framesDroppedAtStop", static_cast<qint64>(stats.framesDroppedAtStop)},
                        {"periodsWithoutFrame", static_cast<qint64>(stats.periodsWithoutFrame)},
                        {"queueFull", static_cast<qint64>(refused)}});
    }
    return lost ? 1 : 0;
}

}  // namespace kvpcie::cli
