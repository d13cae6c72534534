// The card that a suite drives: a fresh simulated card in the process, or, when the suite runs
// under tests/driver-model/with-model.sh (KVPCIE_MODEL_ROOT set), the driver model's card,
// reached through the Linux backend as a card under the XDMA driver is. Suites that run both
// ways check the card through its registers only; the model's card lives as long as the model,
// so what one test leaves in it the next test of the run meets.
#pragma once

#include "Environment.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#ifdef __linux__
#include <fcntl.h>
#include <unistd.h>
#endif

namespace kvpcie::testing {

inline const char* DriverModelRoot() {
    const char* root = std::getenv("KVPCIE_MODEL_ROOT");
    return root != nullptr && *root != '\0' ? root : nullptr;
}

inline bool OnDriverModel() {
    return DriverModelRoot() != nullptr;
}

// For a test that needs what only a simulated card in the test's own process offers (its access
// log, frames made on demand, registers set without the card acting on them, absent files):
// on the driver model it is skipped, saying which.
#define KVPCIE_IN_PROCESS_CARD_ONLY(why)                                  \
    if (::kvpcie::testing::OnDriverModel()) {                             \
        GTEST_SKIP() << "needs the in-process simulated card: " << (why); \
    }

// Readies card 0 for a test: a new simulated card in this process (and no other listed), or
// nothing on the driver model, whose card is already there. False when that failed.
inline bool PrepareTestCard() {
    if (OnDriverModel()) {
        return true;
    }
    UnsetEnvironment("KVPCIE_SIM");
    return KvPCIeSim::Configure("xdma:1");
}

// The path that OpenCard takes for card 0.
inline std::string TestCardPath() {
    return OnDriverModel() ? std::string(DriverModelRoot()) + "/dev/xdma0" : "sim:xdma0";
}

// A register of the driver model's card `card`, read from or written to its register node
// beside the library's own files; false when that failed or there is no driver model (it
// exists only on Linux).
inline bool MoveModelRegister(int card, std::uint32_t address, std::uint32_t& value, bool write) {
#ifdef __linux__
    if (!OnDriverModel()) {
        return false;
    }
    const std::string node =
        std::string(DriverModelRoot()) + "/dev/xdma" + std::to_string(card) + "_user";
    const int fd = ::open(node.c_str(), (write ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool moved =
        (write ? ::pwrite(fd, &value, 4, address) : ::pread(fd, &value, 4, address)) == 4;
    ::close(fd);
    return moved;
#else
    (void)card;
    (void)address;
    (void)value;
    (void)write;
    return false;
#endif
}

inline bool ReadModelRegister(int card, std::uint32_t address, std::uint32_t& value) {
    return MoveModelRegister(card, address, value, false);
}

// Makes card `card` drop off the bus, as the control block's register 0x1F0008 does: every
// later transfer and event read fails until a restart finds the card again.
inline bool DropCardOffTheBus(int card) {
    if (OnDriverModel()) {
        std::uint32_t one = 1;
        return MoveModelRegister(card, 0x1F0008, one, true);
    }
    return KvPCIeSim::SetSurpriseRemoved(card, true);
}

}  // namespace kvpcie::testing
