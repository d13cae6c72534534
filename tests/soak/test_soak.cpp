// The bounded soak (KVPCIE_SOAK_SECONDS, 60): four channels of loopback at 50 fps with commands,
// status blocks and recording, one channel restarted every few seconds. Every captured frame must
// be the next injected one, every frame made delivered or counted, threads and heap given back.
#include "../capture/CaptureTestSupport.h"
#include "../support/Application.h"
#include "../support/Environment.h"
#include "../support/ProcessCounters.h"
#include "../support/TempDir.h"

#include <QCoreApplication>
#include <QDirIterator>
#include <QFileInfo>
#include <QLoggingCategory>

#include <array>
#include <cstdio>
#include <cstdlib>

namespace kvpcie::testing {
namespace {

using KvPCIeSim::kCtlCaptureSource;
using KvPCIeSim::kCtlCommandsTaken;
using KvPCIeSim::kCtlExternalFrameRate;
using KvPCIeSim::kCtlFramesDropped;
using KvPCIeSim::kCtlFramesProduced;
using KvPCIeSim::kCtlInjectUnderruns;
using KvPCIeSim::kCtlPostStatus;
using KvPCIeSim::kCtlStatusStaging;
using Clock = std::chrono::steady_clock;

constexpr int kCard = 0;
constexpr int kWidth = 160;
constexpr int kHeight = 120;
constexpr std::size_t kFrameBytes = kWidth * kHeight * 2;  // Y16: a two-byte counter stamp
constexpr int kFrameRate = 50;
constexpr int kRingBuffers = 8;
constexpr int kInjectQueue = 15;
constexpr auto kRestartEvery = std::chrono::seconds(3);
constexpr auto kCommandEvery = std::chrono::milliseconds(100);
constexpr auto kStatusEvery = std::chrono::milliseconds(50);
// Heap that may stay behind after a full cycle: caches of Qt and the C library, not frames.
constexpr long kHeapSlackBytes = 1 << 20;

// Bytes 0-1: the library's counter stamp; then the sequence number, channel, run and a pattern.
void MakeFrame(std::vector<char>& frame, int channel, std::uint32_t run, std::uint32_t seq) {
    const std::uint32_t owner = static_cast<std::uint32_t>(channel);
    std::memcpy(frame.data() + 4, &seq, 4);
    std::memcpy(frame.data() + 8, &owner, 4);
    std::memcpy(frame.data() + 12, &run, 4);
    for (std::size_t k = 16; k < kFrameBytes; ++k) {
        frame[k] = static_cast<char>((k + seq * 7) & 0xFF);
    }
}

// What one capture channel saw in its current run, checked on the polling thread.
struct CaptureRun {
    int channel = 0;
    std::uint32_t run = 0;
    std::vector<char> buffer = std::vector<char>(kFrameBytes);
    std::atomic<int> delivered{0};
    // Frames of an earlier run come until this run's first one (the card loops back the last
    // frame played), never after it.
    std::atomic<int> stale{0};
    std::atomic<int> staleAfterCurrent{0};
    std::atomic<int> replayed{0};
    std::atomic<int> wrong{0};
    std::atomic<std::int64_t> lastSeq{-1};
    // The first late frame of an earlier run: its run, and this run's frame before it.
    std::atomic<std::int64_t> lateStaleRun{-1};
    std::atomic<std::int64_t> lateStaleAfterSeq{-1};

    static void OnFrame(int channel, const char* frame, void* context) {
        static_cast<CaptureRun*>(context)->Take(channel, frame);
    }
    void Take(int from, const char* frame) {
        ++delivered;
        std::uint16_t stamp = 0;
        std::uint32_t seq = 0;
        std::uint32_t owner = 0;
        std::uint32_t frameRun = 0;
        std::memcpy(&stamp, frame, 2);
        std::memcpy(&seq, frame + 4, 4);
        std::memcpy(&owner, frame + 8, 4);
        std::memcpy(&frameRun, frame + 12, 4);
        if (frameRun < run) {
            ++stale;
            if (lastSeq.load() >= 0 && staleAfterCurrent++ == 0) {
                lateStaleRun = frameRun;
                lateStaleAfterSeq = lastSeq.load();
            }
            return;
        }
        bool exact = from == channel && owner == static_cast<std::uint32_t>(channel) &&
                     frameRun == run && stamp == (seq & 0xFFFF);
        for (std::size_t k = 16; exact && k < kFrameBytes; ++k) {
            exact = frame[k] == static_cast<char>((k + seq * 7) & 0xFF);
        }
        if (!exact) {
            ++wrong;
            return;
        }
        // A dry queue hands the card the newest frame again; an older one is a replay.
        if (static_cast<std::int64_t>(seq) < lastSeq.load()) {
            ++replayed;
            return;
        }
        lastSeq = seq;
    }
};

struct StatusSink {
    std::array<std::uint32_t, 4> received{};
    std::array<int, 4> outOfOrder{};
    static void OnStatus(int channel, const QByteArray& data, void* context) {
        auto* sink = static_cast<StatusSink*>(context);
        // Blocks may arrive together; each is 8 bytes: channel and number.
        for (int at = 0; at + 8 <= data.size(); at += 8) {
            std::uint32_t owner = 0;
            std::uint32_t number = 0;
            std::memcpy(&owner, data.constData() + at, 4);
            std::memcpy(&number, data.constData() + at + 4, 4);
            if (owner != static_cast<std::uint32_t>(channel) || number != sink->received[channel]) {
                ++sink->outOfOrder[channel];
            }
            sink->received[channel] = number + 1;
        }
    }
};

class Soak : public ::testing::Test {
protected:
    void SetUp() override {
        Application();
        // Each command logs four lines; a few hundred of them would bury a failure's message.
        QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
        ASSERT_TRUE(PrepareTestCard());
        if (const char* seconds = std::getenv("KVPCIE_SOAK_SECONDS")) {
            length_ = std::chrono::seconds(std::max(1, std::atoi(seconds)));
        }
    }

    void Write(std::uint32_t address, std::uint32_t value) {
        ASSERT_EQ(manager_.WriteReg(address, static_cast<int>(value)), 4);
    }
    void PumpEvents(std::chrono::milliseconds span) {
        const auto until = Clock::now() + span;
        while (Clock::now() < until) {
            QCoreApplication::processEvents();
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    void StartChannel(int channel) {
        Write(ControlBlock(channel) + kCtlCaptureSource, 1);  // loopback
        Write(ControlBlock(channel) + kCtlExternalFrameRate, kFrameRate);
        runs_[channel] = std::make_unique<CaptureRun>();
        runs_[channel]->channel = channel;
        runs_[channel]->run = ++runNumbers_[channel];
        eErrorCode error = ERR_NO_CARD;
        ASSERT_TRUE(manager_.StartCapture(channel, false, kWidth, kHeight, Y16, error,
                                          &CaptureRun::OnFrame, runs_[channel].get(),
                                          runs_[channel]->buffer.data()));
        ASSERT_TRUE(manager_.StartRecord(channel));
        ++starts_;
        // Frames delivered before the recording began may be missing from the files uncounted.
        beforeRecording_ += runs_[channel]->delivered.load() + 1;
        accepted_[channel] = 0;
        OfferFrames(channel);
    }

    // Keeps the channel's queue full; the library refuses what does not fit.
    void OfferFrames(int channel) {
        eErrorCode error = ERR_NONE;
        for (;;) {
            MakeFrame(frame_, channel, runNumbers_[channel], accepted_[channel]);
            if (!manager_.StartInject(channel, kFrameRate, kWidth, kHeight, Y16, 0, frame_.data(),
                                      error)) {
                ASSERT_EQ(error, ERR_QUEUE_FULL);
                return;
            }
            ++accepted_[channel];
            ++acceptedTotal_;
        }
    }

    // Stops the channel's capture, recording and injection and checks what its run saw.
    void StopChannel(int channel) {
        manager_.StopCapture(channel);
        manager_.StopRecord(channel);
        KvCaptureStatistics statistics;
        ASSERT_TRUE(manager_.GetCaptureStatistics(channel, statistics));
        notRecorded_ += static_cast<long>(statistics.framesNotRecorded);
        CaptureRun& run = *runs_[channel];
        const std::uint32_t produced = Peek(ControlBlock(channel) + kCtlFramesProduced);
        const std::uint32_t dropped = Peek(ControlBlock(channel) + kCtlFramesDropped);
        underruns_ += Peek(ControlBlock(channel) + kCtlInjectUnderruns);
        manager_.StopInject(channel);
        SCOPED_TRACE(::testing::Message() << "channel " << channel);
        EXPECT_EQ(run.wrong, 0) << "a captured frame that was not the next injected one";
        EXPECT_EQ(run.replayed, 0) << "a frame older than one already captured came again";
        EXPECT_EQ(run.staleAfterCurrent, 0)
            << "an earlier run's frame came after this run's frames had begun: run "
            << run.lateStaleRun << " (this run is " << run.run << ") after frame "
            << run.lateStaleAfterSeq << " of this run";
        // Made ready by the card = delivered + still in the ring at the stop.
        const auto delivered = static_cast<std::uint32_t>(run.delivered);
        EXPECT_LE(delivered, produced);
        EXPECT_LE(produced, delivered + kRingBuffers);
        // Frames flowed to the end: what is missing waits in the queue and the rings or was
        // dropped by the card; one period each way for the phase between the channels' clocks.
        const std::int64_t captureBacklog = static_cast<std::int64_t>(produced) - delivered;
        EXPECT_GE(run.lastSeq.load(), static_cast<std::int64_t>(accepted_[channel]) -
                                          kInjectQueue - kRingBuffers - captureBacklog -
                                          static_cast<std::int64_t>(dropped) - 3);
        delivered_ += run.delivered;
        dropped_ += dropped;
        stale_ += run.stale;
        replayed_ += run.replayed;
    }

    void PostStatus(int channel) {
        const std::uint32_t words[2] = {static_cast<std::uint32_t>(channel), posted_[channel]};
        Write(ControlBlock(channel) + kCtlStatusStaging, words[0]);
        Write(ControlBlock(channel) + kCtlStatusStaging + 4, words[1]);
        Write(ControlBlock(channel) + kCtlPostStatus, 8);
        ++posted_[channel];
    }

    // One full cycle of everything on the card, `length` long.
    void Cycle(std::chrono::seconds length) {
        std::string path = TestCardPath();
        ASSERT_TRUE(manager_.OpenCard(path.data()));
        // The card counts commands for as long as it exists.
        std::array<std::uint32_t, 4> takenBefore{};
        for (int channel = 0; channel < 4; ++channel) {
            takenBefore[channel] = Peek(ControlBlock(channel) + kCtlCommandsTaken);
            manager_.SetSystemStatusCallback(channel, &StatusSink::OnStatus, &status_, true);
            ASSERT_NO_FATAL_FAILURE(StartChannel(channel));
        }
        const auto begin = Clock::now();
        auto nextRestart = begin + kRestartEvery;
        auto nextCommand = begin;
        auto nextStatus = begin;
        int turn = 0;
        while (Clock::now() - begin < length) {
            for (int channel = 0; channel < 4; ++channel) {
                ASSERT_NO_FATAL_FAILURE(OfferFrames(channel));
            }
            QCoreApplication::processEvents();
            const auto now = Clock::now();
            if (now >= nextCommand) {
                const int channel = turn % 4;
                ++commandsSent_[channel];
                commandsRefused_ +=
                    !manager_.WriteControlCmd(channel, QByteArray(16, static_cast<char>(turn)));
                nextCommand += kCommandEvery;
            }
            if (now >= nextStatus) {
                PostStatus(turn % 4);
                nextStatus += kStatusEvery;
            }
            if (now >= nextRestart) {
                const int channel = turn % 4;
                ASSERT_NO_FATAL_FAILURE(StopChannel(channel));
                ASSERT_NO_FATAL_FAILURE(StartChannel(channel));
                nextRestart += kRestartEvery;
            }
            ++turn;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        for (int channel = 0; channel < 4; ++channel) {
            ASSERT_NO_FATAL_FAILURE(StopChannel(channel));
        }
        // Status blocks still on their way arrive within a few timer periods.
        ASSERT_TRUE(WaitFor([&] {
            QCoreApplication::processEvents();
            for (int channel = 0; channel < 4; ++channel) {
                if (status_.received[channel] != posted_[channel]) {
                    return false;
                }
            }
            return true;
        }));
        for (int channel = 0; channel < 4; ++channel) {
            manager_.SetSystemStatusCallback(channel, nullptr, nullptr, false);
            EXPECT_EQ(status_.outOfOrder[channel], 0);
            commandsTaken_ +=
                Peek(ControlBlock(channel) + kCtlCommandsTaken) - takenBefore[channel];
        }
        manager_.CloseCard();
        PumpEvents(std::chrono::milliseconds(50));  // deferred deletions of the engines' objects
    }

    // With an application object, recordings go below the application's directory.
    static QString RecordDir() { return QCoreApplication::applicationDirPath() + "/VideoRecord"; }

    std::int64_t RecordedBytes() {
        std::int64_t bytes = 0;
        QDirIterator it(RecordDir(), QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const std::int64_t size = QFileInfo(it.next()).size();
            EXPECT_EQ(size % static_cast<std::int64_t>(kFrameBytes), 0);
            bytes += size;
        }
        return bytes;
    }

    void ResetCounts() {
        delivered_ = dropped_ = stale_ = replayed_ = underruns_ = notRecorded_ = 0;
        starts_ = commandsRefused_ = beforeRecording_ = 0;
        acceptedTotal_ = commandsTaken_ = 0;
        commandsSent_ = {};
        posted_ = {};
        status_ = StatusSink{};
        QDir(RecordDir()).removeRecursively();
    }

    ScratchDir scratch_{true};
    std::chrono::seconds length_{60};
    PCIeDataManager manager_;
    std::vector<char> frame_ = std::vector<char>(kFrameBytes);
    std::array<std::unique_ptr<CaptureRun>, 4> runs_;
    std::array<std::uint32_t, 4> accepted_{};
    std::array<std::uint32_t, 4> runNumbers_{};
    std::array<std::uint32_t, 4> posted_{};
    std::array<int, 4> commandsSent_{};
    StatusSink status_;
    long delivered_ = 0, dropped_ = 0, stale_ = 0, replayed_ = 0, underruns_ = 0;
    long notRecorded_ = 0;
    long starts_ = 0, commandsRefused_ = 0, beforeRecording_ = 0;
    long acceptedTotal_ = 0, commandsTaken_ = 0;
};

TEST_F(Soak, FourChannelsOfLoopbackWithCommandsStatusAndRecording) {
    // A short first cycle brings up what lives as long as the process: the heap settles.
    ASSERT_NO_FATAL_FAILURE(Cycle(std::chrono::seconds(2)));
    ResetCounts();
    const int threadsBefore = ThreadCount();
    const long heapBefore = HeapInUse();

    ASSERT_NO_FATAL_FAILURE(Cycle(length_));

    const std::int64_t recorded = RecordedBytes() / static_cast<std::int64_t>(kFrameBytes);
    std::printf(
        "soak of %lld s: %ld frames injected, %ld captured (%ld replayed from an earlier run, "
        "%ld after the queue ran dry), "
        "%ld dropped by the card, %ld inject underruns, %lld recorded (%ld counted as not "
        "recorded); %d commands sent, "
        "%ld taken, %ld refused; %u status blocks; %ld channel starts\n",
        static_cast<long long>(length_.count()), acceptedTotal_, delivered_, stale_, replayed_,
        dropped_, underruns_, static_cast<long long>(recorded), notRecorded_,
        commandsSent_[0] + commandsSent_[1] + commandsSent_[2] + commandsSent_[3], commandsTaken_,
        commandsRefused_, posted_[0] + posted_[1] + posted_[2] + posted_[3], starts_);
    // Frames delivered while recording are in the files or counted as not recorded.
    EXPECT_LE(recorded, delivered_);
    EXPECT_GE(recorded, delivered_ - beforeRecording_ - notRecorded_);
    // A command late for the mailbox is sent later or replaced by a newer one.
    const int sent = commandsSent_[0] + commandsSent_[1] + commandsSent_[2] + commandsSent_[3];
    EXPECT_GE(commandsTaken_, sent - commandsRefused_);
    EXPECT_LE(commandsTaken_, sent);
    EXPECT_GT(delivered_, 0);

    EXPECT_EQ(ThreadCount(), threadsBefore);
    EXPECT_LE(HeapInUse() - heapBefore, kHeapSlackBytes)
        << "heap before " << heapBefore << ", after " << HeapInUse();
}

}  // namespace
}  // namespace kvpcie::testing
