// kvpcie loopback: every channel injects frames that carry their own number, captures them back
// through the simulated card's loopback, checks each byte for byte and records them.
#include "Commands.h"
#include "FrameOptions.h"
#include "JsonOutput.h"
#include "TestFrames.h"

#include <KvPCIeInjectSdk/KvPCIeRecording.h>
#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <QCoreApplication>
#include <QDirIterator>
#include <QFileInfo>
#include <QJsonArray>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <thread>

namespace kvpcie::cli {

using tools::CheckLoopbackFrame;
using tools::FillTestFrame;
using tools::kTestFrameHeaderBytes;
using tools::LoopbackCheck;
using tools::NewTestRun;
using tools::TestFrameNumber;
namespace {

const char kHelp[] =
    "usage: kvpcie [--card N]... loopback [--channels 0,1,2,3] [--seconds S] [--rate FPS]\n"
    "                       [--width W] [--height H] [--type TYPE] [--record [--output DIR]]\n"
    "                       [--json]\n"
    "The self-test on the simulated card (kvpcie --sim loopback): each channel injects frames\n"
    "at FPS (25) that the card plays into its capture channel (card-timed, 25 fps); every\n"
    "captured frame is checked byte for byte against the frame injected, and with --record\n"
    "recorded into a take folder below DIR/Capture<N>/ (DIR: the program's VideoRecord folder\n"
    "unless --output says), printed at the end. After S seconds (5) a table\n"
    "gives frames, drops, underruns, capture latency and throughput per channel, and PASS or\n"
    "FAIL (--json: the same as one JSON document). With --card given more than once the cards\n"
    "run side by side, each channel's frames tagged for that card and channel alone, and the\n"
    "table has a card column (--record then is refused: the cards' channels would share\n"
    "their recording folders).\n";

constexpr unsigned kCaptureSourceLoopback = 1;
constexpr unsigned kCtlDropped = 0x0C;
constexpr unsigned kCtlUnderruns = 0x14;
constexpr std::size_t kLatencySamples = 1 << 14;

struct Channel {
    int number = 0;
    int simCard = -1;  // the simulated card in this process that gives ready times, if any
    // Otherwise the card (a driver model's) gives them through its registers.
    PCIeDataManager* card = nullptr;
    FrameGeometry geometry;
    std::vector<char> buffer;    // the capture target
    std::vector<char> injected;
    std::uint32_t run = 0;  // this run's tag in every frame it injects
    std::uint32_t nextInjected = 0;
    // Written on the capture thread, read after the stop.
    std::uint64_t captured = 0;
    std::uint64_t verified = 0;
    std::uint64_t blank = 0;
    std::uint64_t mismatched = 0;
    // Intact frames older than one seen before: the card played a buffer that held an old
    // frame, which must never happen.
    std::uint64_t replayed = 0;
    std::int64_t lastNumber = -1;
    std::vector<std::int64_t> latencies = std::vector<std::int64_t>(kLatencySamples);
    std::size_t latencyCount = 0;
};

// A block at a time with memcmp: a byte loop on the capture thread is slow under a sanitizer.
bool AllZero(const char* frame, std::size_t bytes) {
    static const std::array<char, 4096> zeros{};
    for (std::size_t at = 0; at < bytes; at += zeros.size()) {
        if (std::memcmp(frame + at, zeros.data(), std::min(zeros.size(), bytes - at)) != 0) {
            return false;
        }
    }
    return true;
}

// When the card made frame `index` of the channel ready, on the steady clock; false when it
// no longer knows.
bool ReadyTime(Channel& state, int channel, std::uint32_t index, std::int64_t& ready) {
    if (state.simCard >= 0) {
        return KvPCIeSim::CaptureReadyTime(state.simCard, channel, index, ready);
    }
#ifdef _WIN32
    // A driver model's card keeps its times on its own machine's clock, which under Wine is
    // not this process's steady clock: no figure rather than a wrong one.
    return false;
#endif
    if (state.card == nullptr) {
        return false;
    }
    const auto block = ControlBlock(static_cast<unsigned>(channel));
    state.card->WriteReg(block + KvPCIeSim::kCtlReadyTimeFrame, static_cast<int>(index));
    const std::uint64_t low = state.card->ReadReg(block + KvPCIeSim::kCtlReadyTimeLow);
    const std::uint64_t high = state.card->ReadReg(block + KvPCIeSim::kCtlReadyTimeHigh);
    ready = static_cast<std::int64_t>(high << 32 | low);
    return ready != 0;
}

void OnFrame(int channel, const char* frame, void* context) {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    auto* state = static_cast<Channel*>(context);
    const std::uint64_t index = state->captured++;
    std::int64_t ready = 0;
    if (state->latencyCount < state->latencies.size() &&
        ReadyTime(*state, channel, static_cast<std::uint32_t>(index), ready)) {
        state->latencies[state->latencyCount++] =
            std::chrono::duration_cast<std::chrono::nanoseconds>(now).count() - ready;
    }
    const std::size_t bytes = state->buffer.size();
    if (AllZero(frame, bytes)) {
        ++state->blank;  // the card has played nothing yet
        return;
    }
    switch (CheckLoopbackFrame(frame, bytes, channel, state->run,
                               StampBytes(state->geometry.type), state->lastNumber)) {
        case LoopbackCheck::Verified:
            ++state->verified;
            state->lastNumber = TestFrameNumber(frame);
            break;
        case LoopbackCheck::EarlierRun:
            // Until this run's first frame is played the card shows what an earlier run left;
            // after it, an earlier run's frame is a replay.
            ++(state->lastNumber < 0 ? state->blank : state->replayed);
            break;
        case LoopbackCheck::Replayed:
            ++state->replayed;
            break;
        case LoopbackCheck::Mismatched:
            ++state->mismatched;
            break;
    }
}

double Percentile(std::vector<std::int64_t> samples, double share) {
    if (samples.empty()) {
        return 0;
    }
    std::sort(samples.begin(), samples.end());
    return samples[static_cast<std::size_t>(share * (samples.size() - 1))] / 1e6;
}

std::uint64_t RecordedBytes(const QString& takeFolder) {
    std::uint64_t bytes = 0;
    if (takeFolder.isEmpty()) {
        return 0;
    }
    QDirIterator files(takeFolder, QDir::Files);
    while (files.hasNext()) {
        bytes += static_cast<std::uint64_t>(QFileInfo(files.next()).size());
    }
    return bytes;
}

struct LoopbackOptions {
    std::vector<int> channels;
    double seconds = 5;
    int rate = 25;
    FrameGeometry geometry;
    bool record = false;
    std::optional<std::string> recordRoot;  // --output
    bool json = false;
};

// One card of the run and its channels; the card is closed when it goes, on every way out.
struct LoopbackCard {
    LoopbackCard() = default;
    ~LoopbackCard() { manager.CloseCard(); }
    LoopbackCard(const LoopbackCard&) = delete;
    LoopbackCard& operator=(const LoopbackCard&) = delete;

    int number = 0;  // in the listing
    bool named = false;  // several cards run: messages and the table name it
    PCIeDataManager manager;
    std::array<Channel, 4> channels;

    std::string Label(int c) const {
        return (named ? "card " + std::to_string(number) + " channel " : "channel ") +
               std::to_string(c);
    }
    [[noreturn]] void Fail(int c, const std::string& what) {
        throw RuntimeError{Label(c) + " " + what + ": " + manager.LastErrorText()};
    }
};

LoopbackOptions ParseLoopbackOptions(const std::vector<std::string>& args) {
    const Arguments arguments(
        args, {"--channels", "--seconds", "--rate", "--width", "--height", "--type", "--output"});
    // --no-record is still taken: it was the way to switch off what is now off by default.
    arguments.AllowOnly({"--channels", "--seconds", "--rate", "--width", "--height", "--type",
                         "--record", "--no-record", "--output", "--json"});
    if (!arguments.Words().empty()) {
        throw UsageError{"unexpected \"" + arguments.Words().front() + "\""};
    }
    LoopbackOptions options;
    options.channels = ParseChannels(arguments.Value("--channels").value_or("0,1,2,3"));
    options.seconds = ParseSeconds(arguments.Value("--seconds").value_or("5"), 86400);
    options.rate =
        static_cast<int>(ParseNumber(arguments.Value("--rate").value_or("25"), "rate", 1, 1000));
    options.geometry = ParseGeometry(arguments);
    if (options.geometry.Bytes() < kTestFrameHeaderBytes) {
        throw UsageError{"frames of fewer than " + std::to_string(kTestFrameHeaderBytes) +
                         " bytes cannot carry their number"};
    }
    options.record = arguments.Has("--record") && !arguments.Has("--no-record");
    if (options.record && chosenCards.size() > 1) {
        throw UsageError{"--record takes one card: the cards' channels would share their "
                         "recording folders"};
    }
    options.recordRoot = arguments.Value("--output");
    if (options.recordRoot && !options.record) {
        throw UsageError{"--output DIR is where --record writes: add --record"};
    }
    options.json = arguments.Has("--json");
    return options;
}

// Opens the card and starts its channels capturing in loopback (and recording).
void StartCard(LoopbackCard& card, const LoopbackOptions& options) {
    const int simCard = InProcessSimCardNumber(OpenChosenCard(card.manager, card.number));
    if (!IsSimulatedCard(card.manager)) {
        throw RuntimeError{
            "loopback needs the simulated card's loopback source (run kvpcie --sim "
            "loopback)"};
    }
    const FrameGeometry& geometry = options.geometry;
    for (int c : options.channels) {
        Channel& state = card.channels[c];
        state.number = c;
        state.simCard = simCard;
        state.card = &card.manager;
        state.geometry = geometry;
        state.buffer.assign(geometry.Bytes(), 0);
        state.injected.assign(geometry.Bytes(), 0);
        // Each card's channel has a tag of its own: a frame of another card or channel fails.
        state.run = NewTestRun();
        card.manager.WriteReg(ControlBlock(c), static_cast<int>(kCaptureSourceLoopback));
        eErrorCode error = ERR_NONE;
        if (!card.manager.StartCapture(c, true, geometry.width, geometry.height, geometry.type,
                                       error, &OnFrame, &state, state.buffer.data())) {
            card.Fail(c, "did not start capturing");
        }
        if (options.record && !card.manager.StartRecord(c)) {
            card.Fail(c, "did not start recording");
        }
    }
}

// Queues the next frame of every channel that has room; false when none had.
bool FeedChannels(LoopbackCard& card, const LoopbackOptions& options) {
    const FrameGeometry& geometry = options.geometry;
    bool queuedAny = false;
    for (int c : options.channels) {
        Channel& state = card.channels[c];
        FillTestFrame(state.injected, c, state.run, state.nextInjected);
        eErrorCode error = ERR_NONE;
        if (card.manager.StartInject(c, options.rate, geometry.width, geometry.height,
                                     geometry.type, 0, state.injected.data(), error)) {
            ++state.nextInjected;
            queuedAny = true;
        } else if (error != ERR_QUEUE_FULL) {
            card.Fail(c, "refused the frames");
        }
    }
    return queuedAny;
}

// Prints the card's rows and adds them to `figures`; false when a channel failed.
bool ReportCard(LoopbackCard& card, const LoopbackOptions& options, double elapsed,
                QJsonArray& figures) {
    const std::size_t frameBytes = options.geometry.Bytes();
    bool pass = true;
    for (int c : options.channels) {
        const Channel& state = card.channels[c];
        const unsigned dropped = card.manager.ReadReg(ControlBlock(c) + kCtlDropped);
        const unsigned underruns = card.manager.ReadReg(ControlBlock(c) + kCtlUnderruns);
        const QString takeFolder = options.record ? card.manager.GetRecordTakeFolder(c) : QString();
        const std::uint64_t recorded = RecordedBytes(takeFolder) / frameBytes;
        const std::vector<std::int64_t> latencies(
            state.latencies.begin(),
            state.latencies.begin() + static_cast<long>(state.latencyCount));
        // Ready times come from a simulated card in this process; a card elsewhere (real, or
        // the driver model) gives none, and the columns say so rather than show zeros.
        char p50[16] = "     -";
        char p99[16] = "     -";
        if (!latencies.empty()) {
            std::snprintf(p50, sizeof p50, "%6.2f", Percentile(latencies, 0.5));
            std::snprintf(p99, sizeof p99, "%6.2f", Percentile(latencies, 0.99));
        }
        const double megabytesPerSecond = state.captured * double(frameBytes) / elapsed / 1e6;
        if (card.named) {
            std::printf("%4d  ", card.number);
        }
        std::printf("%7d  %8llu  %8llu  %5llu  %10llu  %8llu  %7u  %9u  %8llu  %s  %s  %6.1f\n", c,
                    static_cast<unsigned long long>(state.captured),
                    static_cast<unsigned long long>(state.verified),
                    static_cast<unsigned long long>(state.blank),
                    static_cast<unsigned long long>(state.mismatched),
                    static_cast<unsigned long long>(state.replayed), dropped, underruns,
                    static_cast<unsigned long long>(recorded), p50, p99, megabytesPerSecond);
        // An underrun repeats the newest frame, which counts as verified; a frame older than
        // one already seen is a fault whatever happened.
        pass = pass && state.verified > 0 && state.mismatched == 0 && dropped == 0 &&
               state.replayed == 0 && (!options.record || recorded > 0);
        QJsonObject row{
            {"channel", c},
            {"captured", static_cast<qint64>(state.captured)},
            {"verified", static_cast<qint64>(state.verified)},
            {"blank", static_cast<qint64>(state.blank)},
            {"mismatched", static_cast<qint64>(state.mismatched)},
            {"replayed", static_cast<qint64>(state.replayed)},
            {"dropped", static_cast<qint64>(dropped)},
            {"underruns", static_cast<qint64>(underruns)},
            {"recorded", static_cast<qint64>(recorded)},
            {"p50Ms", latencies.empty() ? QJsonValue() : QJsonValue(Percentile(latencies, 0.5))},
            {"p99Ms", latencies.empty() ? QJsonValue() : QJsonValue(Percentile(latencies, 0.99))},
            {"megabytesPerSecond", megabytesPerSecond}};
        if (options.record) {
            row["recordFolder"] = QDir::toNativeSeparators(takeFolder);
        }
        if (card.named) {
            row["card"] = card.number;
        }
        figures.append(row);
    }
    return pass;
}

}  // namespace

int RunLoopback(const std::vector<std::string>& args) {
    if (PrintHelpIfAsked(args, kHelp)) {
        return 0;
    }
    const LoopbackOptions options = ParseLoopbackOptions(args);
    JsonOutput json(options.json);
    if (options.recordRoot) {
        KvPCIe::SetRecordRoot(QString::fromLocal8Bit(options.recordRoot->c_str()));
    }
    CatchInterrupts();
    std::vector<std::unique_ptr<LoopbackCard>> cards;
    for (int number : chosenCards) {
        cards.push_back(std::make_unique<LoopbackCard>());
        cards.back()->number = number;
        cards.back()->named = chosenCards.size() > 1;
        StartCard(*cards.back(), options);
    }
    const auto anyGone = [&cards] {
        return std::any_of(cards.begin(), cards.end(), [](const std::unique_ptr<LoopbackCard>& card) {
            return CardIsGone(card->manager, card->number);
        });
    };

    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    while (!interrupted.load() && !anyGone() &&
           Clock::now() - start < std::chrono::duration<double>(options.seconds)) {
        bool queuedAny = false;
        for (const std::unique_ptr<LoopbackCard>& card : cards) {
            queuedAny = FeedChannels(*card, options) || queuedAny;
        }
        if (!queuedAny) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    for (const std::unique_ptr<LoopbackCard>& card : cards) {
        for (int c : options.channels) {
            card->manager.StopRecord(c);
            card->manager.StopCapture(c);
            card->manager.StopInject(c);
        }
    }

    bool pass = !anyGone();
    QJsonArray figures;
    std::printf("\n%schannel  captured  verified  blank  mismatched  replayed  dropped  underruns"
                "  recorded  p50 ms  p99 ms    MB/s\n",
                cards.size() > 1 ? "card  " : "");
    for (const std::unique_ptr<LoopbackCard>& card : cards) {
        pass = ReportCard(*card, options, elapsed, figures) && pass;
    }
    if (options.record) {
        for (int c : options.channels) {
            std::printf("channel %d recorded into %s\n", c,
                        qPrintable(QDir::toNativeSeparators(
                            cards.front()->manager.GetRecordTakeFolder(c))));
        }
    }
    std::printf("%s\n", pass ? "PASS" : "FAIL");
    if (options.json) {
        json.Print(QJsonObject{{"channels", figures}, {"pass", pass}});
    }
    return pass ? 0 : 1;
}

}  // namespace kvpcie::cli
