// The control command channel: the commands' handover to the worker, its mailbox writes and
// the messages that trace each command.
#include "ControlCommandChannel.h"

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

ControlCommandChannel::ControlCommandChannel(XdmaCard& card, CpuCoreSource* cores)
    : card_(card), cores_(cores) {
    for (std::atomic<bool>& sent : sent_) {
        sent.store(true, std::memory_order_relaxed);
    }
}

bool ControlCommandChannel::Write(unsigned c, QByteArray command) {
    // Printed outside every lock: a stalled stderr must not hold up the other callers.
    EmitCommandMessage("1.Call WriteControlCmd: ");
    {
        std::lock_guard<std::mutex> lock(lock_);
        if (!sent_[c].load(std::memory_order_acquire) && !pending_[c].isEmpty()) {
            counters_[c].replaced.Add();
        }
        pending_[c] = std::move(command);
        ++generation_[c];
        sent_[c].store(false, std::memory_order_release);
        if (!run_.load(std::memory_order_acquire)) {
            run_.store(true, std::memory_order_release);
            worker_.Start(cores_, [this] { WorkerLoop(); }, "kvpcie-command");
        }
        wakeUp_.notify_one();
    }
    bool sent = false;
    {
        std::unique_lock<std::mutex> done(doneLock_);
        sent = done_.wait_for(done, kCommandWait,
                                 [&] { return sent_[c].load(std::memory_order_acquire); });
    }
    if (!sent) {
        counters_[c].notSentInTime.Add();
    }
    EmitCommandMessage("4.WriteControlCmd Function return true: ", "\n\n");
    return sent;
}

void ControlCommandChannel::WorkerLoop() {
    const auto anyPending = [this] {
        return std::any_of(sent_.begin(), sent_.end(), [](const std::atomic<bool>& sent) {
            return !sent.load(std::memory_order_acquire);
        });
    };
    while (run_.load(std::memory_order_acquire)) {
        {
            std::unique_lock<std::mutex> lock(lock_);
            wakeUp_.wait(lock, [&] {
                return !run_.load(std::memory_order_acquire) || anyPending();
            });
        }
        if (!run_.load(std::memory_order_acquire)) {
            return;
        }
        EmitCommandMessage("2.ThreadWakeUp: ");
        for (unsigned c = 0; c < static_cast<unsigned>(kChannelCount); ++c) {
            if (SendPending(c)) {
                EmitCommandMessage("3.Finish Send To Fpga: ");
            }
        }
        std::this_thread::sleep_for(kCommandRetryPeriod);
    }
}

bool ControlCommandChannel::SendPending(unsigned c) {
    QByteArray command;
    std::uint64_t generation = 0;
    {
        std::lock_guard<std::mutex> lock(lock_);
        if (sent_[c].load(std::memory_order_acquire)) {
            return false;
        }
        command = pending_[c];
        generation = generation_[c];
    }
    if (command.isEmpty()) {
        return false;  // stays pending until a real command replaces it
    }
    const std::uint32_t block = InjectBlock(c);
    if ((card_.XdmaReadReg(block + kInjCommandControl) & kCommandBusy) != 0) {
        return false;  // the card has not taken the previous one; retried next pass
    }
    const int length = command.size();
    for (int offset = 0; offset < length; offset += 4) {
        unsigned char word[4] = {};
        std::memcpy(word, command.constData() + offset,
                    static_cast<std::size_t>(std::min(4, length - offset)));
        card_.XdmaWriteUser(block + kInjCommandData + static_cast<std::uint32_t>(offset), word,
                      sizeof word);
    }
    const unsigned control = static_cast<unsigned>(length - 1) | kCommandBusy;
    card_.XdmaWriteReg(block + kInjCommandControl, &control);
    counters_[c].sent.Add();
    {
        // A command handed in while this one went out stays pending: its caller must not be
        // told that the older one was its own.
        std::lock_guard<std::mutex> lock(lock_);
        std::lock_guard<std::mutex> done(doneLock_);
        if (generation_[c] == generation) {
            sent_[c].store(true, std::memory_order_release);
        }
        // Every waiter re-checks its own channel, so none misses its completion.
        done_.notify_all();
    }
    return true;
}

void ControlCommandChannel::StopWorker() {
    if (!run_.load(std::memory_order_acquire)) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(lock_);
        run_.store(false, std::memory_order_release);
        wakeUp_.notify_all();
    }
    worker_.Stop();
}

void ControlCommandChannel::AddTo(unsigned c, KvInjectStatistics& out) const {
    out.commandsSent = counters_[c].sent.Get();
    out.commandsNotSentInTime = counters_[c].notSentInTime.Get();
    out.commandsReplaced = counters_[c].replaced.Get();
}

}  // namespace kvpcie::xdma
