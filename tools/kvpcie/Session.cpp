// What every kvpcie command that talks to a card needs: the card, and Ctrl-C.
#include "Commands.h"

#include <QFile>
#include <QFileInfo>

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace kvpcie::cli {

std::atomic<bool> interrupted{false};

namespace {
extern "C" void OnInterrupt(int) {
    interrupted.store(true);
}
}  // namespace

void CatchInterrupts() {
    std::signal(SIGINT, OnInterrupt);
    std::signal(SIGTERM, OnInterrupt);
}

bool PrintHelpIfAsked(const std::vector<std::string>& args, const char* help) {
    for (const std::string& arg : args) {
        if (arg == "--help" || arg == "-h") {
            std::fputs(help, stdout);
            return true;
        }
    }
    return false;
}

void RequireReadableFile(const std::string& path) {
    const QFileInfo info(QString::fromLocal8Bit(path.c_str()));
    if (!info.exists()) {
        throw RuntimeError{"cannot read " + path + ": no such file"};
    }
    if (!info.isFile()) {
        throw RuntimeError{"cannot read " + path + ": not a regular file"};
    }
    QFile file(info.filePath());
    if (!file.open(QIODevice::ReadOnly)) {
        throw RuntimeError{"cannot read " + path + ": " + file.errorString().toStdString()};
    }
}

std::vector<int> chosenCards{0};

std::string OpenChosenCard(PCIeDataManager& manager, int card) {
    if (card < 0) {
        card = chosenCards.front();
    }
    char* paths[4] = {};
    const int count = manager.GetDevices(paths);
    const bool listed = card < count;
    const bool opened = listed && manager.OpenCard(paths[card]);
    const std::string reason = manager.LastErrorText();
    const std::string path = listed ? paths[card] : "";
    for (char* path : paths) {
        std::free(path);
    }
    if (count <= 0) {
        throw RuntimeError{"no XDMA card found (use --sim or KVPCIE_SIM=1 for the simulated card)"};
    }
    if (!listed) {
        throw RuntimeError{"card " + std::to_string(card) + " is not listed (" +
                           std::to_string(count) + " listed: see kvpcie list)"};
    }
    if (!opened) {
        throw RuntimeError{"card " + std::to_string(card) + " did not open: " + reason};
    }
    return path;
}

bool CardIsGone(PCIeDataManager& manager, int card) {
    static std::vector<int> told;
    if (!manager.IsCardLost()) {
        return false;
    }
    if (card < 0) {
        card = chosenCards.front();
    }
    if (std::find(told.begin(), told.end(), card) == told.end()) {
        told.push_back(card);
        std::fprintf(stderr,
                     "kvpcie: card %d is gone (removed, or its driver ended): the run ends here\n",
                     card);
    }
    return true;
}

int InProcessSimCardNumber(const std::string& path) {
    for (int card : KvPCIeSim::XdmaCardNumbers()) {
        if (KvPCIeSim::XdmaCardPath(card) == path) {
            return card;
        }
    }
    return -1;
}

bool IsSimulatedCard(PCIeDataManager& manager) {
    return manager.ReadReg(KvPCIeSim::kRegIdentity) == KvPCIeSim::kIdentityValue;
}

}  // namespace kvpcie::cli
