// What the engine suites share: a facade on a fresh card (simulated, or the driver model's).
#pragma once

#include "../capture/CaptureTestSupport.h"
#include "../support/Environment.h"
#include "../support/TempDir.h"
#include "../support/TestCard.h"

#include <QByteArray>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QStringList>

#include <cstdio>
#include <cstdlib>

namespace kvpcie::testing {

using KvPCIeSim::CardAccess;

constexpr std::uint32_t InjectBlock(int channel) {
    return 0x111000 + static_cast<std::uint32_t>(channel) * 0x1000;
}
constexpr std::uint32_t InjectStatus(int channel, int buffer) {
    return InjectBlock(channel) + 0x108 + static_cast<std::uint32_t>(buffer) * 0x10;
}
constexpr std::uint32_t InjectLength(int channel, int buffer) {
    return InjectBlock(channel) + 0x104 + static_cast<std::uint32_t>(buffer) * 0x10;
}
constexpr std::uint32_t InjectBufferAddress(int channel, int buffer) {
    return 0x40000000u + static_cast<std::uint32_t>(channel) * 0xA000000 +
           static_cast<std::uint32_t>(buffer) * 0x1400000;
}
constexpr std::uint32_t kInjectEnableMask = 0x10001C;

// What the engines' log `name` (./Log/<name>/) holds so far, its files one after the other.
inline QByteArray LogText(const QString& name) {
    QByteArray text;
    for (const QString& file : QDir("Log/" + name).entryList(QDir::Files, QDir::Name)) {
        QFile in("Log/" + name + "/" + file);
        text += in.open(QIODevice::ReadOnly) ? in.readAll() : QByteArray();
    }
    return text;
}

// The files of every take below `dir`, in name order.
inline QStringList RecordedFiles(const QString& dir = "VideoRecord") {
    QStringList files;
    QDirIterator it(dir, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        files << it.next();
    }
    files.sort();
    return files;
}

class InjectTest : public ::testing::Test {
protected:
    static constexpr int kCard = 0;

    void SetUp() override {
        ASSERT_TRUE(PrepareTestCard());
        std::snprintf(path, sizeof path, "%s", TestCardPath().c_str());
        // The logs open ./Log/<name>/ in the current directory.
        for (const char* log : {"Capture_AllChannel", "Inject_AllChannel", "InjectReadFile"}) {
            QDir().mkpath(QString("Log/") + log);
        }
        ASSERT_TRUE(manager.OpenCard(path));
        KvPCIeSim::TakeAccessLog(kCard);  // nothing on the driver model: no card in this process
    }
    void TearDown() override { manager.CloseCard(); }

    // Through the host's path: the card acts on writes to its control block.
    void Write(std::uint32_t address, std::uint32_t value) {
        ASSERT_EQ(manager.WriteReg(address, static_cast<int>(value)), 4);
    }
    // A Y16 capture channel started with its external source stopped, so that frames come only
    // when a test produces them.
    template <typename Callback, typename Sink>
    bool StartQuietCapture(int channel, int width, int height, Callback callback, Sink& sink) {
        Write(ControlBlock(channel) + kCtlExternalRate, 0);
        eErrorCode error = ERR_NO_CARD;
        const bool started = manager.StartCapture(channel, false, width, height, Y16, error,
                                                  callback, &sink, sink.buffer.data());
        EXPECT_EQ(error, ERR_NONE);
        return started;
    }
    KvCaptureStatistics CaptureStats(int channel) {
        KvCaptureStatistics stats;
        EXPECT_TRUE(manager.GetCaptureStatistics(channel, stats));
        return stats;
    }
    KvInjectStatistics InjectStats(int channel) {
        KvInjectStatistics stats;
        EXPECT_TRUE(manager.GetInjectStatistics(channel, stats));
        return stats;
    }
    // Cores the manager's table still hands out before it has to share core 0 (taken and given
    // back again).
    unsigned FreeCores() {
        std::vector<unsigned> taken;
        for (;;) {
            const unsigned core = manager.GetIdealCpuCoreIndex();
            if (*manager.LastErrorText() != '\0') {
                break;  // every core is in use: this one is shared
            }
            taken.push_back(core);
        }
        for (const unsigned core : taken) {
            manager.ResetUsedCpuCoreIndex(core);
        }
        return static_cast<unsigned>(taken.size());
    }
    std::vector<CardAccess> Accesses(CardAccess::Kind kind) {
        std::vector<CardAccess> kept;
        for (const CardAccess& access : KvPCIeSim::TakeAccessLog(kCard)) {
            if (access.kind == kind) {
                kept.push_back(access);
            }
        }
        return kept;
    }

    ScratchDir scratch{true};  // the engines' logs go to ./Log
    char path[4096] = {};  // the card's, TestCardPath()
    PCIeDataManager manager;
};

}  // namespace kvpcie::testing
