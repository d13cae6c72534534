// A fresh simulated XDMA card seen through the host's device files, as the sim suites drive it.
#pragma once

#include "../support/Environment.h"
#include "platform/DeviceFile.h"
#include "platform/DeviceInterfaces.h"

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>

namespace kvpcie {

class SimCardTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::kvpcie::testing::UnsetEnvironment("KVPCIE_SIM");
        ASSERT_TRUE(KvPCIeSim::Configure("xdma:1"));
        OpenFiles();
    }

    void OpenFiles() {
        user_ = platform::OpenDeviceFile("sim:xdma0\\user", platform::kAccessReadWrite);
        h2c_ = platform::OpenDeviceFile("sim:xdma0\\h2c_0", platform::kAccessWrite);
        c2h_ = platform::OpenDeviceFile("sim:xdma0\\c2h_0", platform::kAccessRead);
        ASSERT_TRUE(user_ && h2c_ && c2h_);
    }

    // As an open does it: the files go, the driver-level restart (which leaves a card in use
    // alone) finds the card, the files open again.
    void RestartCard() {
        user_.reset();
        h2c_.reset();
        c2h_.reset();
        platform::RestartXilinxDevices();
        OpenFiles();
    }

    std::uint32_t Read(std::uint32_t address) {
        std::uint32_t value = 0xDEADBEEF;
        std::uint32_t moved = 0;
        EXPECT_TRUE(user_->Seek(address) && user_->Read(&value, 4, moved));
        return value;
    }
    void Write(std::uint32_t address, std::uint32_t value) {
        std::uint32_t moved = 0;
        EXPECT_TRUE(user_->Seek(address) && user_->Write(&value, 4, moved));
    }
    std::uint32_t Ctl(unsigned channel, std::uint32_t offset) {
        return Read(KvPCIeSim::ControlBlock(channel) + offset);
    }
    bool ReadCard(std::uint64_t address, void* buffer, std::uint32_t size) {
        std::uint32_t moved = 0;
        return c2h_->Seek(static_cast<std::int64_t>(address)) && c2h_->Read(buffer, size, moved) &&
               moved == size;
    }

    platform::DeviceFilePtr user_;
    platform::DeviceFilePtr h2c_;
    platform::DeviceFilePtr c2h_;
};

}  // namespace kvpcie
