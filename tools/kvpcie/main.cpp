// kvpcie: the command-line tool for XDMA and RIFFA frame cards and the simulated card.
#include "Commands.h"

#include <KvPCIeInjectSdk/KvPCIeInjectSdkVersion.h>

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>

namespace {

const char kUsage[] =
    "usage: kvpcie [--sim] COMMAND [ARGS]\n"
    "\n"
    "Drives XDMA and RIFFA frame cards through KvPCIeInjectSdk. --sim (or KVPCIE_SIM=1) adds\n"
    "the simulated card, which every command can use without hardware.\n"
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
    std::vector<std::string> words(argv + 1, argv + argc);
    while (!words.empty() && words.front() == "--sim") {
        if (qEnvironmentVariableIsEmpty("KVPCIE_SIM")) {
            qputenv("KVPCIE_SIM", "1");
        }
        words.erase(words.begin());
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
    const auto command = commands.find(words.front());
    if (command == commands.end()) {
        std::fprintf(stderr, "kvpcie: unknown command \"%s\" (kvpcie --help lists them)\n",
                     words.front().c_str());
        return 2;
    }
    std::vector<std::string> args(words.begin() + 1, words.end());
    // --sim may also follow the command.
    for (auto it = args.begin(); it != args.end();) {
        if (*it == "--sim") {
            if (qEnvironmentVariableIsEmpty("KVPCIE_SIM")) {
                qputenv("KVPCIE_SIM", "1");
            }
            it = args.erase(it);
        } else {
            ++it;
        }
    }
    try {
        return command->second(args);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "kvpcie %s: %s\n", words.front().c_str(), error.message.c_str());
        return 2;
    } catch (const RuntimeError& error) {
        std::fprintf(stderr, "kvpcie %s: %s\n", words.front().c_str(), error.message.c_str());
        return 1;
    }
}
