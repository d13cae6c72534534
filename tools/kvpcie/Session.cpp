// What every kvpcie command that talks to a card needs: the card, and Ctrl-C.
#include "Commands.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

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

void OpenFirstCard(PCIeDataManager& manager) {
    char* paths[4] = {};
    const int count = manager.GetDevices(paths);
    const bool opened = count > 0 && manager.OpenCard(paths[0]);
    for (char* path : paths) {
        std::free(path);
    }
    if (count <= 0) {
        throw RuntimeError{"no XDMA card found (use --sim or KVPCIE_SIM=1 for the simulated card)"};
    }
    if (!opened) {
        throw RuntimeError{"the first XDMA card did not open"};
    }
}

bool IsSimulatedCard(PCIeDataManager& manager) {
    return manager.ReadReg(KvPCIeSim::kRegIdentity) == KvPCIeSim::kIdentityValue;
}

}  // namespace kvpcie::cli
