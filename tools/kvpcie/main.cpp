// kvpcie: the command-line tool for XDMA and RIFFA frame cards and the simulated card.
#include "Commands.h"
#include "SimulationSetting.h"

#include <KvPCIeInjectSdk/KvPCIeInjectSdkVersion.h>

#include <QCoreApplication>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>

namespace {

const char kUsage[] =
    "usage: kvpcie [--sim] [--card N] COMMAND [ARGS]\n"
    "\n"
    "Drives XDMA and RIFFA frame cards through KvPCIeInjectSdk. --sim (or KVPCIE_SIM=1) adds\n"
    "the simulated card, which every command can use without hardware. --card N picks card N\n"
    "of \"kvpcie list\" (0, the first, by default); loopback takes it more than once, to run\n"
    "on several cards at once.\n"
    "\n"
    "commands:\n"
    "  list [--riffa]                    cards and devices present\n"
    "  reg read ADDR | reg write ADDR VALUE\n"
    "                                    a 32-bit card register\n"
    "  mem read ADDR SIZE [-o FILE] | mem write ADDR FILE\n"
    "                                    card memory by DMA\n"
    "  capture [options]                 capture channels, with live statistics\n"
    "  inject [options]                  inject a raw recording or a moving pattern\n"
    "  loopback [options]                inject, capture back, verify and record every frame\n"
    "  cmd CHANNEL HEXBYTES              send a control command\n"
    "  status CHANNEL [--seconds S]      print the channel's status blocks as they arrive\n"
    "  raw info FILE | raw png FILE --frame N -o OUT.png\n"
    "                                    look into a raw recording\n"
    "\n"
    "Run kvpcie COMMAND --help for a command's options.\n";

}  // namespace

int main(int argc, char** argv) {
    using namespace kvpcie::cli;
    // Qt's own messages and the status timer need an application object.
    QCoreApplication application(argc, argv);
    // Standard output holds the command's results alone (v=$(kvpcie reg read ...)): the
    // library's lines about the device files it opens go to standard error.
    if (qEnvironmentVariableIsEmpty("KVPCIE_CONSOLE")) {
        qputenv("KVPCIE_CONSOLE", "stderr");
    }
    std::vector<std::string> words(argv + 1, argv + argc);
    // --sim and --card N may stand before or after the command.
    bool cardGiven = false;
    for (auto it = words.begin(); it != words.end();) {
        if (*it == "--sim") {
            if (qEnvironmentVariableIsEmpty("KVPCIE_SIM")) {
                qputenv("KVPCIE_SIM", "1");
            }
            it = words.erase(it);
        } else if (*it == "--card") {
            const char* value = it + 1 != words.end() ? (it + 1)->c_str() : "";
            char* end = nullptr;
            const long card = std::strtol(value, &end, 10);
            if (*value == '\0' || *end != '\0' || card < 0 || card > 3) {
                std::fprintf(stderr, "kvpcie: --card takes a card number from 0 to 3\n");
                return 2;
            }
            if (!cardGiven) {
                chosenCards.clear();
                cardGiven = true;
            }
            if (std::find(chosenCards.begin(), chosenCards.end(), card) == chosenCards.end()) {
                chosenCards.push_back(static_cast<int>(card));
            }
            it = words.erase(it, it + 2);
        } else {
            ++it;
        }
    }
    if (words.empty() || words.front() == "--help" || words.front() == "-h") {
        std::fputs(kUsage, words.empty() ? stderr : stdout);
        return words.empty() ? 2 : 0;
    }
    if (words.front() == "--version") {
        std::printf("kvpcie %s\n", KVPCIE_VERSION_STRING);
        return 0;
    }
    const std::map<std::string, std::function<int(const std::vector<std::string>&)>> commands = {
        {"list", RunList},       {"reg", RunReg},       {"mem", RunMem},
        {"capture", RunCapture}, {"inject", RunInject}, {"loopback", RunLoopback},
        {"cmd", RunCmd},         {"status", RunStatus}, {"raw", RunRaw},
    };
    if (const std::string problem = kvpcie::tools::SimulationSettingProblem(); !problem.empty()) {
        std::fprintf(stderr, "kvpcie: %s\n", problem.c_str());
        return 2;
    }
    const auto command = commands.find(words.front());
    if (command == commands.end()) {
        std::fprintf(stderr, "kvpcie: unknown command \"%s\" (kvpcie --help lists them)\n",
                     words.front().c_str());
        return 2;
    }
    if (chosenCards.size() > 1 && words.front() != "loopback") {
        std::fprintf(stderr, "kvpcie %s: takes one --card (only loopback runs on several)\n",
                     words.front().c_str());
        return 2;
    }
    const std::vector<std::string> args(words.begin() + 1, words.end());
    try {
        return command->second(args);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "kvpcie %s: %s\n", words.front().c_str(), error.message.c_str());
        return 2;
    } catch (const RuntimeError& error) {
        std::fprintf(stderr, "kvpcie %s: %s\n", words.front().c_str(), error.message.c_str());
        return 1;
    } catch (const std::exception& error) {
        // A library's exception (a stream, an allocation) is one line too, never an abort.
        std::fprintf(stderr, "kvpcie %s: %s\n", words.front().c_str(), error.what());
        return 1;
    }
}
