// kvpcie list, reg, mem, cmd and status: the card's registers, memory and mailboxes.
#include "Commands.h"
#include "JsonOutput.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonArray>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace kvpcie::cli {
namespace {

// The card's user register space and card memory.
constexpr std::uint64_t kRegisterSpaceBytes = 0x200000;
constexpr std::uint64_t kCardMemoryBytes = std::uint64_t{1} << 31;

unsigned RegisterAddress(const std::string& text) {
    const auto address = ParseNumber(text, "register address", 0, kRegisterSpaceBytes - 4);
    if (address % 4 != 0) {
        throw UsageError{"register addresses are multiples of 4: " + text};
    }
    return static_cast<unsigned>(address);
}

void HexDump(std::uint64_t address, const std::vector<unsigned char>& bytes) {
    for (std::size_t row = 0; row < bytes.size(); row += 16) {
        std::printf("%08llx ", static_cast<unsigned long long>(address + row));
        for (std::size_t i = row; i < row + 16 && i < bytes.size(); ++i) {
            std::printf(" %02x", bytes[i]);
        }
        std::printf("\n");
    }
}

}  // namespace

int RunList(const std::vector<std::string>& args) {
    if (PrintHelpIfAsked(args,
                         "usage: kvpcie list [--riffa] [--json]\n"
                         "Lists the XDMA cards (paths for OpenCard), or the RIFFA devices.\n")) {
        return 0;
    }
    const Arguments arguments(args, {});
    arguments.AllowOnly({"--riffa", "--json"});
    if (!arguments.Words().empty()) {
        throw UsageError{"unexpected \"" + arguments.Words().front() + "\""};
    }
    const bool asJson = arguments.Has("--json");
    JsonOutput json(asJson);
    if (arguments.Has("--riffa")) {
        PCIeDataManager manager(RIFFA);
        fpga_info_list list{};
        const bool listed = manager.GetDevices(&list);
        QJsonArray devices;
        const int shown = std::min(list.fpgaCount, 5);
        for (int i = 0; i < shown; ++i) {
            const QString name =
                QString::fromLatin1(list.name[i], static_cast<int>(qstrnlen(list.name[i], 16)));
            devices.append(QJsonObject{{"index", i},
                                       {"name", name},
                                       {"id", list.id[i]},
                                       {"channels", list.channelCount[i]},
                                       {"vendorId", list.vendorId[i]},
                                       {"deviceId", list.deviceId[i]}});
        }
        if (asJson) {
            json.Print(QJsonObject{{"riffa", devices}, {"complete", listed}});
        } else {
            std::printf("%d RIFFA device(s)%s\n", list.fpgaCount,
                        listed ? "" : " (the listing stopped early)");
            for (int i = 0; i < shown; ++i) {
                std::printf("  [%d] %.16s  id %d, %d channels, vendor 0x%04x device 0x%04x\n", i,
                            list.name[i], list.id[i], list.channelCount[i], list.vendorId[i],
                            list.deviceId[i]);
            }
        }
        return listed ? 0 : 1;
    }
    PCIeDataManager manager;
    char* paths[4] = {};
    const int count = manager.GetDevices(paths);
    QJsonArray cards;
    for (int i = 0; i < count; ++i) {
        cards.append(QString::fromLocal8Bit(paths[i]));
    }
    for (char* path : paths) {
        std::free(path);
    }
    if (asJson) {
        json.Print(QJsonObject{{"xdma", cards}});
        return 0;
    }
    std::printf("%d XDMA card(s)\n", count);
    for (int i = 0; i < count; ++i) {
        std::printf("  [%d] %s\n", i, qPrintable(cards[i].toString()));
    }
    return 0;
}

int RunReg(const std::vector<std::string>& args) {
    if (PrintHelpIfAsked(args,
                         "usage: kvpcie reg read ADDR\n"
                         "       kvpcie reg write ADDR VALUE\n"
                         "ADDR and VALUE in decimal or 0x hex; ADDR a multiple of 4 below "
                         "0x200000.\n")) {
        return 0;
    }
    const Arguments arguments(args, {});
    arguments.AllowOnly({});
    const auto& words = arguments.Words();
    if (words.size() == 2 && words[0] == "read") {
        const unsigned address = RegisterAddress(words[1]);
        OpenedCard card;
        std::printf("0x%08x\n", card.Manager().ReadReg(address));
        return 0;
    }
    if (words.size() == 3 && words[0] == "write") {
        const unsigned address = RegisterAddress(words[1]);
        const auto value = static_cast<unsigned>(ParseNumber(words[2], "value", 0, 0xFFFFFFFF));
        OpenedCard card;
        const int result = card.Manager().WriteReg(address, static_cast<int>(value));
        const std::string reason = card.Manager().LastErrorText();
        if (result != 4) {
            throw RuntimeError{reason.empty() ? "the register write failed (" +
                                                    std::to_string(result) + ")"
                                              : reason};
        }
        return 0;
    }
    throw UsageError{"expected \"read ADDR\" or \"write ADDR VALUE\""};
}

int RunMem(const std::vector<std::string>& args) {
    if (PrintHelpIfAsked(args,
                         "usage: kvpcie mem read ADDR SIZE [-o FILE]\n"
                         "       kvpcie mem write ADDR FILE\n"
                         "Card memory by DMA; without -o, read prints a hex dump.\n")) {
        return 0;
    }
    const Arguments arguments(args, {});
    arguments.AllowOnly({"-o"});
    const auto& words = arguments.Words();
    if (words.size() == 3 && words[0] == "read") {
        const auto address = ParseNumber(words[1], "address", 0, kCardMemoryBytes - 1);
        const auto size = ParseNumber(words[2], "size", 1, kCardMemoryBytes - address);
        std::vector<unsigned char> bytes(static_cast<std::size_t>(size));
        {
            OpenedCard card;
            if (!card.Manager().ReadData(static_cast<unsigned>(address),
                                         static_cast<unsigned>(size), bytes.data())) {
                throw RuntimeError{std::string("the DMA read failed: ") +
                                   card.Manager().LastErrorText()};
            }
        }
        if (const auto file = arguments.Value("-o")) {
            std::ofstream out(*file, std::ios::binary);
            if (!out.write(reinterpret_cast<const char*>(bytes.data()),
                           static_cast<std::streamsize>(bytes.size()))) {
                throw RuntimeError{"cannot write " + *file};
            }
        } else {
            HexDump(address, bytes);
        }
        return 0;
    }
    if (words.size() == 3 && words[0] == "write") {
        const auto address = ParseNumber(words[1], "address", 0, kCardMemoryBytes - 1);
        RequireReadableFile(words[2]);
        std::ifstream in(words[2], std::ios::binary);
        if (!in) {
            throw RuntimeError{"cannot read " + words[2]};
        }
        std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)),
                                         std::istreambuf_iterator<char>());
        if (bytes.empty() || bytes.size() > kCardMemoryBytes - address) {
            throw UsageError{words[2] + " is empty or does not fit in card memory from there"};
        }
        OpenedCard card;
        if (!card.Manager().WriteData(static_cast<unsigned>(address),
                                      static_cast<unsigned>(bytes.size()), bytes.data())) {
            throw RuntimeError{std::string("the DMA write failed: ") +
                               card.Manager().LastErrorText()};
        }
        std::printf("%zu bytes written at 0x%llx\n", bytes.size(),
                    static_cast<unsigned long long>(address));
        return 0;
    }
    throw UsageError{"expected \"read ADDR SIZE\" or \"write ADDR FILE\""};
}

int RunCmd(const std::vector<std::string>& args) {
    if (PrintHelpIfAsked(args,
                         "usage: kvpcie cmd CHANNEL HEXBYTES\n"
                         "Sends 1 to 1024 bytes to the channel's command mailbox, e.g. "
                         "\"01 02 0a\".\n")) {
        return 0;
    }
    const Arguments arguments(args, {});
    arguments.AllowOnly({});
    const auto& words = arguments.Words();
    if (words.size() < 2) {
        throw UsageError{"expected CHANNEL HEXBYTES"};
    }
    const int channel = static_cast<int>(ParseNumber(words[0], "channel", 0, 3));
    std::string hex;
    for (std::size_t i = 1; i < words.size(); ++i) {
        hex += words[i];
    }
    const std::vector<unsigned char> bytes = ParseHexBytes(hex);
    if (bytes.size() > 1024) {
        throw UsageError{"a command is at most 1024 bytes"};
    }
    // The library prints its four timing messages through Qt; they are not for this tool's user.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    OpenedCard card;
    const bool sent = card.Manager().WriteControlCmd(
        channel,
        QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size())));
    if (!sent) {
        throw RuntimeError{"the card did not take the command within 40 ms"};
    }
    std::printf("%zu bytes sent to channel %d\n", bytes.size(), channel);
    return 0;
}

int RunStatus(const std::vector<std::string>& args) {
    if (PrintHelpIfAsked(args,
                         "usage: kvpcie status CHANNEL [--seconds S] [--json]\n"
                         "Prints the status blocks the card posts on the channel (until Ctrl-C, "
                         "or for S seconds).\n")) {
        return 0;
    }
    const Arguments arguments(args, {"--seconds"});
    arguments.AllowOnly({"--seconds", "--json"});
    if (arguments.Words().size() != 1) {
        throw UsageError{"expected CHANNEL"};
    }
    const bool asJson = arguments.Has("--json");
    JsonOutput json(asJson);
    const int channel = static_cast<int>(ParseNumber(arguments.Words()[0], "channel", 0, 3));
    const double seconds =
        arguments.Value("--seconds") ? ParseSeconds(*arguments.Value("--seconds"), 86400) : 0;
    CatchInterrupts();
    OpenedCard card;
    PCIeDataManager& manager = card.Manager();
    struct Received {
        std::uint64_t deliveries = 0;
        std::uint64_t bytes = 0;
        QJsonArray blocks;  // hex, one per delivery
    } received;
    // Blocks arrive on this thread, from the event loop run below.
    manager.SetSystemStatusCallback(
        channel,
        [](int c, const QByteArray& data, void* context) {
            auto* total = static_cast<Received*>(context);
            ++total->deliveries;
            total->bytes += static_cast<std::uint64_t>(data.size());
            total->blocks.append(QString::fromLatin1(data.toHex()));
            std::printf("channel %d: %d bytes:", c, data.size());
            for (char byte : data) {
                std::printf(" %02x", static_cast<unsigned char>(byte));
            }
            std::printf("\n");
            std::fflush(stdout);
        },
        &received, true);
    if (seconds == 0) {
        std::printf("waiting for status blocks on channel %d (Ctrl-C ends)\n", channel);
    } else {
        std::printf("waiting %g s for status blocks on channel %d (Ctrl-C ends)\n", seconds,
                    channel);
    }
    std::fflush(stdout);
    QElapsedTimer clock;
    clock.start();
    while (!interrupted.load() && (seconds == 0 || clock.elapsed() < seconds * 1000)) {
        // The library's 20 ms status timer wakes the loop, so Ctrl-C is seen soon.
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }
    KvCaptureStatistics stats;
    manager.GetCaptureStatistics(channel, stats);
    manager.SetSystemStatusCallback(channel, nullptr, nullptr, false);
    if (asJson) {
        json.Print(QJsonObject{{"channel", channel},
                               {"deliveries", static_cast<qint64>(received.deliveries)},
                               {"bytes", static_cast<qint64>(received.bytes)},
                               {"bytesDropped", static_cast<qint64>(stats.statusBytesDropped)},
                               {"blocks", received.blocks}});
        return 0;
    }
    // Blocks that arrive together are handed over in one delivery.
    std::printf("%llu deliveries, %llu bytes received; %llu bytes dropped (host buffer full)\n",
                static_cast<unsigned long long>(received.deliveries),
                static_cast<unsigned long long>(received.bytes),
                static_cast<unsigned long long>(stats.statusBytesDropped));
    return 0;
}

}  // namespace kvpcie::cli
