// The card a suite drives: a fresh simulated card in the process, or the driver model's (which
// lives as long as the model: what one test leaves in it, the next meets).
#pragma once

#include "Environment.h"
#include "ModelCards.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#ifdef __linux__
#include <fcntl.h>
#include <unistd.h>
#elif defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#endif

namespace kvpcie::testing {

// A test that needs the in-process card's hooks is skipped on the driver model, saying which.
#define KVPCIE_IN_PROCESS_CARD_ONLY(why)                                  \
    if (::kvpcie::testing::OnDriverModel()) {                             \
        GTEST_SKIP() << "needs the in-process simulated card: " << (why); \
    }

// Readies card 0: a new simulated card in this process, or nothing on the driver model.
inline bool PrepareTestCard() {
    if (OnDriverModel()) {
        return true;
    }
    UnsetEnvironment("KVPCIE_SIM");
    return KvPCIeSim::Configure("xdma:1");
}

// The path that OpenCard takes for card 0.
inline std::string TestCardPath() {
    return CardPath(0);
}

// A register of the driver model's card, through kvpcie-simd's node (under Wine, drive Z:).
inline bool MoveModelRegister(int card, std::uint32_t address, std::uint32_t& value, bool write) {
    if (!OnDriverModel()) {
        return false;
    }
    const std::string node =
        std::string(DriverModelRoot()) + "/dev/xdma" + std::to_string(card) + "_user";
#ifdef __linux__
    const int fd = ::open(node.c_str(), (write ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool moved =
        (write ? ::pwrite(fd, &value, 4, address) : ::pread(fd, &value, 4, address)) == 4;
    ::close(fd);
    return moved;
#elif defined(_WIN32)
    const std::string windowsPath = "Z:" + node;
    const HANDLE file = ::CreateFileA(windowsPath.c_str(), write ? GENERIC_WRITE : GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return false;
    }
    OVERLAPPED at{};
    at.Offset = address;
    DWORD count = 0;
    const BOOL done = write ? ::WriteFile(file, &value, 4, &count, &at)
                            : ::ReadFile(file, &value, 4, &count, &at);
    ::CloseHandle(file);
    return done && count == 4;
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
