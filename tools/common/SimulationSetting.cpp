// The tools' check of KVPCIE_SIM.
#include "SimulationSetting.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <cstdlib>

namespace kvpcie::tools {
namespace {

constexpr std::size_t kListedCards = 4;  // the slots of an XDMA listing

}  // namespace

std::string SimulationSettingProblem() {
    const char* raw = std::getenv("KVPCIE_SIM");
    if (raw == nullptr || *raw == '\0') {
        return {};
    }
    const std::string value = raw;
    if (!KvPCIeSim::Configure(raw)) {
        return "KVPCIE_SIM=\"" + value +
               "\" is not understood: use 1, or xdma:N,riffa:M with N and M from 0 to 8";
    }
    const std::size_t cards = KvPCIeSim::XdmaCardNumbers().size();
    if (cards > kListedCards) {
        return "KVPCIE_SIM=\"" + value + "\" asks for " + std::to_string(cards) +
               " XDMA cards, but a listing holds " + std::to_string(kListedCards) +
               ", so the later ones could not be chosen: use xdma:1 to xdma:4";
    }
    return {};
}

}  // namespace kvpcie::tools
