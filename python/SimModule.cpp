// kvpcie.sim: the simulated card's control, for tests and demonstrations without hardware.
#include "SimModule.h"

#include "Arguments.h"
#include "CardCore.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <algorithm>
#include <string>

namespace py = pybind11;

namespace kvpcie::python {
namespace {

void CheckCard(int card) {
    const auto cards = KvPCIeSim::XdmaCardNumbers();
    if (std::find(cards.begin(), cards.end(), card) == cards.end()) {
        throw py::value_error("there is no simulated card " + std::to_string(card));
    }
}


std::uint32_t CheckRegister(std::int64_t address) {
    if (address < 0 || address > 0x1FFFFC || address % 4 != 0) {
        throw py::value_error("register address " + std::to_string(address) +
                              " is not a 4-byte aligned address below 0x200000");
    }
    return static_cast<std::uint32_t>(address);
}

// The card posts a status block when the host writes its length to the post register, so the
// write goes through a card that this process holds open.
bool PostStatusBlock(int card, int channel, const std::string& block) {
    const std::string path = KvPCIeSim::XdmaCardPath(card);
    for (CardCore* core : OpenCores()) {
        if (!core->card || core->card->Path() != path) {
            continue;
        }
        const std::uint32_t control = KvPCIeSim::ControlBlock(static_cast<unsigned>(channel));
        for (std::size_t at = 0; at < block.size(); at += 4) {
            std::uint32_t word = 0;
            for (std::size_t k = 0; k < 4 && at + k < block.size(); ++k) {
                word |= std::uint32_t(static_cast<unsigned char>(block[at + k])) << (8 * k);
            }
            KvPCIeSim::PokeRegister(card, control + KvPCIeSim::kCtlStatusStaging +
                                              static_cast<std::uint32_t>(at), word);
        }
        core->Run([&](PCIeDataManager& manager) {
            manager.WriteReg(control + KvPCIeSim::kCtlPostStatus, static_cast<int>(block.size()));
        });
        return true;
    }
    return false;
}

}  // namespace

void BindSim(py::module_& sim) {
    sim.doc() =
        "Control of the simulated card: create cards, set and read their registers, play a "
        "channel's injected frames back into its capture channel, make frames and post status "
        "blocks. Cards are numbered from 0; the first is listed as 'sim:xdma0'.";

    sim.def(
        "configure",
        [](const std::string& value) {
            if (!KvPCIeSim::Configure(value.c_str())) {
                throw py::value_error("\"" + value + "\" names no simulated devices "
                                      "(\"1\", or \"xdma:N,riffa:M\" with N and M from 0 to 8)");
            }
        },
        py::arg("value"),
        "Replaces every simulated device with those the value names, as KVPCIE_SIM does: '1' "
        "gives one XDMA card and one RIFFA device, 'xdma:N,riffa:M' gives N and M.");
    sim.def("add_card", &KvPCIeSim::AddXdmaCard,
            "Adds a simulated XDMA card and returns its number.");
    sim.def(
        "poke_register",
        [](int card, std::int64_t address, std::int64_t value) {
            CheckCard(card);
            if (value < 0 || value > 0xFFFFFFFFLL) {
                throw py::value_error("a register holds 32 bits; " + std::to_string(value) +
                                      " does not fit");
            }
            KvPCIeSim::PokeRegister(card, CheckRegister(address),
                                    static_cast<std::uint32_t>(value));
        },
        py::arg("card"), py::arg("address"), py::arg("value"),
        "Sets a register as the card itself would, without what a host's write sets off.");
    sim.def(
        "peek_register",
        [](int card, std::int64_t address) {
            CheckCard(card);
            std::uint32_t value = 0;
            KvPCIeSim::PeekRegister(card, CheckRegister(address), value);
            return value;
        },
        py::arg("card"), py::arg("address"), "Reads a register as the card sees it.");
    sim.def(
        "set_loopback",
        [](int card, int channel, bool on) {
            CheckCard(card);
            CheckChannel(channel);
            KvPCIeSim::PokeRegister(card,
                                    KvPCIeSim::ControlBlock(static_cast<unsigned>(channel)) +
                                        KvPCIeSim::kCtlCaptureSource,
                                    on ? 1 : 0);
        },
        py::arg("card"), py::arg("channel"), py::arg("on"),
        "On: capture channel `channel` shows the frame last played on inject channel "
        "`channel`; off: the card's test pattern.");
    sim.def(
        "produce_frames",
        [](int card, int channel, int count) {
            CheckCard(card);
            CheckChannel(channel);
            if (count < 1 || count > 8) {
                throw py::value_error("produce_frames makes 1 to 8 frames, not " +
                                      std::to_string(count));
            }
            if (!KvPCIeSim::ProduceCaptureFrames(card, channel, count)) {
                throw std::runtime_error("capture channel " + std::to_string(channel) +
                                         " of simulated card " + std::to_string(card) +
                                         " is not capturing");
            }
        },
        py::arg("card"), py::arg("channel"), py::arg("count"),
        "The channel's outside source sends `count` frames at once (the channel must capture).");
    sim.def(
        "post_status",
        [](int card, int channel, const py::bytes& data) {
            CheckCard(card);
            CheckChannel(channel);
            const std::string block = data;
            if (block.empty() || block.size() > 1024) {
                throw py::value_error("a status block is 1 to 1024 bytes, not " +
                                      std::to_string(block.size()));
            }
            if (!PostStatusBlock(card, channel, block)) {
                throw std::runtime_error("simulated card " + std::to_string(card) +
                                         " is not open in this process (open it with kvpcie.Card)");
            }
        },
        py::arg("card"), py::arg("channel"), py::arg("data"),
        "The card posts a status block for the channel, as its firmware would; it reaches the "
        "callback of Card.on_status. The card must be open in this process.");
    sim.def(
        "counters",
        [](int card) {
            CheckCard(card);
            KvPCIeSim::CardCounters counters{};
            KvPCIeSim::ReadCounters(card, counters);
            py::dict result;
            result["register_reads"] = counters.registerReads;
            result["register_writes"] = counters.registerWrites;
            result["card_to_host_transfers"] = counters.cardToHostTransfers;
            result["host_to_card_transfers"] = counters.hostToCardTransfers;
            result["refused_transfers"] = counters.refusedTransfers;
            result["restarts"] = counters.restarts;
            result["user_events_raised"] = counters.userEventsRaised;
            result["open_files"] = counters.openFiles;
            return result;
        },
        py::arg("card"), "The card's running counts of what the host did to it.");
}

}  // namespace kvpcie::python
