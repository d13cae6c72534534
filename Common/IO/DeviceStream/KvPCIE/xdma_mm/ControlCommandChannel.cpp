// The control command channel: one worker hands each channel's latest command to the card's
// mailbox when the card is free.
#include "DataInject4XdmaMM.h"

#include "XdmaDevice.h"

#include "platform/LocalTime.h"

#include <QDate>
#include <QDebug>
#include <QTime>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

namespace kvpcie::xdma {
namespace {

constexpr std::chrono::milliseconds kCommandWait{40};
constexpr std::chrono::milliseconds kCommandRetryPeriod{1};

void EmitCommandMessage(const char* literal, const char* tail = "") {
    // From the OS layer's clock rather than QDateTime::currentDateTime, which re-reads the time
    // zone (mktime) on every call, from the caller's and the worker's threads at once.
    const platform::LocalTime t = platform::LocalTimeNow();
    const QString now =
        QDate(t.year, t.month, t.day).toString(QStringLiteral("yyyyMMdd")) + QLatin1Char(' ') +
        QTime(t.hour, t.minute, t.second, t.millisecond).toString(QStringLiteral("hhmmss.zzz"));
    qDebug("%s%s%s", literal, qPrintable(now), tail);
}

}  // namespace

bool DataInject4XdmaMM::WriteControlCmd(int channel, QByteArray command) {
    // Longer commands would spill into the control word's start bit.
    if (!ValidChannel(channel) || command.size() > kCommandMaxBytes) {
        return false;
    }
    const auto c = static_cast<unsigned>(channel);
    // Printed outside every lock: a stalled stderr must not hold up the other callers.
    EmitCommandMessage("1.Call WriteControlCmd: ");
    {
        std::lock_guard<std::mutex> lock(cmdLock_);
        if (!cmdSent_[c].load(std::memory_order_acquire) && !cmdData_[c].isEmpty()) {
            cmdCounters_[c].replaced.Add();
        }
        cmdData_[c] = std::move(command);
        ++cmdGeneration_[c];
        cmdSent_[c].store(false, std::memory_order_release);
        if (!cmdThreadRun_.load(std::memory_order_acquire)) {
            cmdThreadRun_.store(true, std::memory_order_release);
            cmdThread_.Start(cores_, [this] { ThreadFun_WriteCmdControlData(); }, "kvpcie-command");
        }
        cmdWakeUp_.notify_one();
    }
    bool sent = false;
    {
        std::unique_lock<std::mutex> done(cmdDoneLock_);
        sent = cmdDone_.wait_for(done, kCommandWait,
                                 [&] { return cmdSent_[c].load(std::memory_order_acquire); });
    }
    if (!sent) {
        cmdCounters_[c].notSentInTime.Add();
    }
    EmitCommandMessage("4.WriteControlCmd Function return true: ", "\n\n");
    return sent;
}

void DataInject4XdmaMM::ThreadFun_WriteCmdControlData() {
    const auto anyPending = [this] {
        return std::any_of(cmdSent_.begin(), cmdSent_.end(), [](const std::atomic<bool>& sent) {
            return !sent.load(std::memory_order_acquire);
        });
    };
    while (cmdThreadRun_.load(std::memory_order_acquire)) {
        {
            std::unique_lock<std::mutex> lock(cmdLock_);
            cmdWakeUp_.wait(lock, [&] {
                return !cmdThreadRun_.load(std::memory_order_acquire) || anyPending();
            });
        }
        if (!cmdThreadRun_.load(std::memory_order_acquire)) {
            return;
        }
        EmitCommandMessage("2.ThreadWakeUp: ");
        for (unsigned c = 0; c < static_cast<unsigned>(kChannelCount); ++c) {
            if (SendPendingCommand(c)) {
                EmitCommandMessage("3.Finish Send To Fpga: ");
            }
        }
        std::this_thread::sleep_for(kCommandRetryPeriod);
    }
}

bool DataInject4XdmaMM::SendPendingCommand(unsigned c) {
    QByteArray command;
    std::uint64_t generation = 0;
    {
        std::lock_guard<std::mutex> lock(cmdLock_);
        if (cmdSent_[c].load(std::memory_order_acquire)) {
            return false;
        }
        command = cmdData_[c];
        generation = cmdGeneration_[c];
    }
    if (command.isEmpty()) {
        return false;  // stays pending until a real command replaces it
    }
    const std::uint32_t block = InjectBlock(c);
    if ((XdmaReadReg(block + kInjCommandControl) & kCommandBusy) != 0) {
        return false;  // the card has not taken the previous one; retried next pass
    }
    const int length = command.size();
    for (int offset = 0; offset < length; offset += 4) {
        unsigned char word[4] = {};
        std::memcpy(word, command.constData() + offset,
                    static_cast<std::size_t>(std::min(4, length - offset)));
        XdmaWriteUser(block + kInjCommandData + static_cast<std::uint32_t>(offset), word,
                      sizeof word);
    }
    const unsigned control = static_cast<unsigned>(length - 1) | kCommandBusy;
    XdmaWriteReg(block + kInjCommandControl, &control);
    cmdCounters_[c].sent.Add();
    {
        // A command handed in while this one went out stays pending: its caller must not be
        // told that the older one was its own.
        std::lock_guard<std::mutex> lock(cmdLock_);
        std::lock_guard<std::mutex> done(cmdDoneLock_);
        if (cmdGeneration_[c] == generation) {
            cmdSent_[c].store(true, std::memory_order_release);
        }
        // Every waiter re-checks its own channel, so none misses its completion.
        cmdDone_.notify_all();
    }
    return true;
}

void DataInject4XdmaMM::StopCommandWorker() {
    if (!cmdThreadRun_.load(std::memory_order_acquire)) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(cmdLock_);
        cmdThreadRun_.store(false, std::memory_order_release);
        cmdWakeUp_.notify_all();
    }
    cmdThread_.Stop();
}

}  // namespace kvpcie::xdma
