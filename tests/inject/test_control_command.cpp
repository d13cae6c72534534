// Control commands through the facade: mailbox words, a busy card, replacement, refusals.
#include "InjectTestSupport.h"

#include <QByteArray>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

#include <mutex>
#include <thread>

namespace kvpcie::testing {
namespace {

constexpr std::uint32_t kCtlCommandsTaken = 0x18;
constexpr std::uint32_t kCtlBusyMicros = 0x1C;
constexpr std::uint32_t kCtlLastCommandLength = 0x2C;
constexpr std::uint32_t kCtlLastCommand = 0x800;
constexpr std::uint32_t kNeverTakes = 0xFFFFFFFF;

class Command : public InjectTest {
protected:
    // The mailbox writes of the channel since the last call: data words, then control words.
    std::vector<CardAccess> MailboxWrites(int channel) {
        std::vector<CardAccess> writes;
        for (const CardAccess& access : Accesses(CardAccess::RegisterWrite)) {
            if (access.address == InjectBlock(channel) + 0x028 ||
                (access.address >= InjectBlock(channel) + 0x400 &&
                 access.address < InjectBlock(channel) + 0x800)) {
                writes.push_back(access);
            }
        }
        return writes;
    }
};

QByteArray Bytes(int size, int seed) {
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>((i * 13 + seed) & 0xFF);
    }
    return bytes;
}

TEST_F(Command, ASixByteCommandGoesOutAsTwoWordsAndControlWord0x405) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log");
    const QByteArray command("\x01\x02\x03\x04\x05\x06", 6);
    EXPECT_TRUE(manager.WriteControlCmd(1, command));
    const std::vector<CardAccess> writes = MailboxWrites(1);
    ASSERT_EQ(writes.size(), 3u);
    EXPECT_EQ(writes[0].address, 0x112400u);
    EXPECT_EQ(writes[0].value, 0x04030201u);
    EXPECT_EQ(writes[1].address, 0x112404u);
    EXPECT_EQ(writes[1].value, 0x00000605u);
    EXPECT_EQ(writes[2].address, 0x112028u);
    EXPECT_EQ(writes[2].value, 0x405u);
    // The card took it.
    ASSERT_TRUE(WaitFor([&] { return Peek(ControlBlock(1) + kCtlCommandsTaken) == 1; }));
    EXPECT_EQ(Peek(ControlBlock(1) + kCtlLastCommandLength), 6u);
    EXPECT_EQ(Peek(ControlBlock(1) + kCtlLastCommand), 0x04030201u);
    EXPECT_EQ(Peek(ControlBlock(1) + kCtlLastCommand + 4), 0x00000605u);
}

TEST_F(Command, The1024ByteLimitIsTheMailboxAndLongerOrMisdirectedCommandsAreRefused) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log");
    EXPECT_FALSE(manager.WriteControlCmd(3, Bytes(1025, 0)));
    ExpectReason(manager, "command of 1,025 bytes exceeds 1,024 bytes");
    EXPECT_FALSE(manager.WriteControlCmd(4, Bytes(4, 0)));
    ExpectReason(manager, "channel 4 is outside 0 to 3");
    EXPECT_FALSE(manager.WriteControlCmd(-1, Bytes(4, 0)));
    EXPECT_TRUE(Accesses(CardAccess::RegisterWrite).empty());

    const QByteArray full = Bytes(1024, 5);
    EXPECT_TRUE(manager.WriteControlCmd(3, full));
    EXPECT_STREQ(manager.LastErrorText(), "") << "a command that goes clears the last refusal";
    const std::vector<CardAccess> writes = MailboxWrites(3);
    ASSERT_EQ(writes.size(), 257u);
    for (std::uint32_t k = 0; k < 256; ++k) {
        EXPECT_EQ(writes[k].address, InjectBlock(3) + 0x400 + 4 * k);
        std::uint32_t word = 0;
        std::memcpy(&word, full.constData() + 4 * k, 4);
        EXPECT_EQ(writes[k].value, word) << "word " << k;
    }
    EXPECT_EQ(writes[256].address, InjectBlock(3) + 0x028);
    EXPECT_EQ(writes[256].value, 0x7FFu);
}

TEST_F(Command, ABusyCardDelaysTheNewestCommandAndDropsTheOlderOne) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log");
    ASSERT_EQ(manager.WriteReg(ControlBlock(2) + kCtlBusyMicros, static_cast<int>(kNeverTakes)), 4);
    // The mailbox was free for this one; the card then never lets go of it.
    EXPECT_TRUE(manager.WriteControlCmd(2, Bytes(8, 1)));
    ASSERT_EQ(MailboxWrites(2).size(), 3u);

    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(manager.WriteControlCmd(2, Bytes(8, 2)));
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(40));
    ExpectReason(manager, "the command did not reach channel 2's mailbox within 40 ms");
    EXPECT_FALSE(manager.WriteControlCmd(2, Bytes(12, 3)));
    EXPECT_TRUE(MailboxWrites(2).empty());
    const KvInjectStatistics stats = InjectStats(2);
    EXPECT_EQ(stats.commandsSent, 1u);
    EXPECT_EQ(stats.commandsNotSentInTime, 2u);
    EXPECT_EQ(stats.commandsReplaced, 1u);

    // Once the card is free, only the newest pending command goes out.
    ASSERT_EQ(manager.WriteReg(ControlBlock(2) + kCtlBusyMicros, 50), 4);
    ASSERT_EQ(manager.WriteReg(InjectBlock(2) + 0x028, 0), 4);
    MailboxWrites(2);
    std::vector<CardAccess> writes;
    ASSERT_TRUE(WaitFor([&] {
        for (const CardAccess& write : MailboxWrites(2)) {
            writes.push_back(write);
        }
        return !writes.empty() && writes.back().address == InjectBlock(2) + 0x028;
    }));
    ASSERT_EQ(writes.size(), 4u);
    std::uint32_t first = 0;
    std::memcpy(&first, Bytes(12, 3).constData(), 4);
    EXPECT_EQ(writes[0].value, first);
    EXPECT_EQ(writes[3].value, 0x400u | 11u);

    // A command left pending on a card that never takes it does not hold up the close.
    ASSERT_EQ(manager.WriteReg(ControlBlock(2) + kCtlBusyMicros, static_cast<int>(kNeverTakes)), 4);
    EXPECT_TRUE(manager.WriteControlCmd(2, Bytes(4, 4)));
    EXPECT_FALSE(manager.WriteControlCmd(2, Bytes(4, 5)));
    const auto closing = std::chrono::steady_clock::now();
    manager.CloseCard();
    EXPECT_LT(std::chrono::steady_clock::now() - closing, std::chrono::seconds(2));
}

TEST_F(Command, AnEmptyCommandIsNeverSent) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log");
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(manager.WriteControlCmd(0, QByteArray()));
    ExpectReason(manager, "the command is empty");
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(40));
    EXPECT_TRUE(MailboxWrites(0).empty());
    EXPECT_EQ(Peek(ControlBlock(0) + kCtlCommandsTaken), 0u);
    // A real command replaces it.
    EXPECT_TRUE(manager.WriteControlCmd(0, Bytes(3, 0)));
}

TEST_F(Command, CallersOnEveryChannelAtOnceAreEachToldOfTheirOwnCommand) {
    std::atomic<std::uint64_t> sent{0};
    std::vector<std::thread> callers;
    for (int channel = 0; channel < 4; ++channel) {
        callers.emplace_back([&, channel] {
            for (int n = 0; n < 10; ++n) {
                sent += manager.WriteControlCmd(channel, Bytes(16, channel * 10 + n)) ? 1 : 0;
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    // Each caller was told of its own command: in time, or (on a loaded machine) not in time,
    // and then it still went out. None was replaced, since each channel has one caller.
    std::uint64_t notInTime = 0;
    for (int channel = 0; channel < 4; ++channel) {
        KvInjectStatistics statistics;
        ASSERT_TRUE(manager.GetInjectStatistics(channel, statistics));
        notInTime += statistics.commandsNotSentInTime;
        EXPECT_EQ(statistics.commandsReplaced, 0u);
    }
    EXPECT_EQ(sent + notInTime, 40u);
    for (int channel = 0; channel < 4; ++channel) {
        EXPECT_TRUE(WaitFor([&] { return Peek(ControlBlock(channel) + kCtlCommandsTaken) == 10u; }))
            << channel;
    }
}

// Messages come from the caller's thread and the command worker.
std::mutex capturedLock;
QStringList capturedMessages;

void CaptureMessage(QtMsgType, const QMessageLogContext&, const QString& message) {
    std::lock_guard<std::mutex> lock(capturedLock);
    capturedMessages.append(message);
}

QStringList CapturedMessages() {
    std::lock_guard<std::mutex> lock(capturedLock);
    return capturedMessages;
}

TEST_F(Command, EachStepLeavesItsNumberedDebugMessageWithTheLocalTime) {
    KVPCIE_IN_PROCESS_CARD_ONLY("it reads the card's access log");
    const QtMessageHandler previous = qInstallMessageHandler(CaptureMessage);
    const bool sent = manager.WriteControlCmd(0, Bytes(4, 9));
    // The worker's last message may follow the caller's.
    WaitFor([&] { return CapturedMessages().size() >= 4; });
    qInstallMessageHandler(previous);
    const QStringList messages = CapturedMessages();

    EXPECT_TRUE(sent);
    const QString stamp = QStringLiteral("\\d{8} \\d{6}\\.\\d{3}");
    const QStringList expected = {"^1\\.Call WriteControlCmd: " + stamp + "$",
                                  "^2\\.ThreadWakeUp: " + stamp + "$",
                                  "^3\\.Finish Send To Fpga: " + stamp + "$",
                                  "^4\\.WriteControlCmd Function return true: " + stamp + "\n\n$"};
    ASSERT_EQ(messages.size(), 4) << messages.join('|').toStdString();
    EXPECT_TRUE(QRegularExpression(expected[0]).match(messages[0]).hasMatch());
    for (const QString& pattern : expected) {
        EXPECT_EQ(messages.filter(QRegularExpression(pattern)).size(), 1) << pattern.toStdString();
    }
    EXPECT_LT(messages.indexOf(QRegularExpression(expected[1])),
              messages.indexOf(QRegularExpression(expected[2])));
}

}  // namespace
}  // namespace kvpcie::testing
