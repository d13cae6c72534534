// The exported facade: card handling, register and memory access, and forwarding to engines.
#include "AutoOpen.h"
#include "PCIeDataManagerPrivate.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaDevice.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

using namespace kvpcie;

const char* KvPCIeInjectSdkVersionString() {
    return KVPCIE_VERSION_STRING;
}

PCIeDataManager::PCIeDataManager(ePCIeFrameworkType type, QObject* /*parent*/)
    : d(CreatePCIeDataManagerPrivate(type)) {}

PCIeDataManager::PCIeDataManager(const PCIeDataManager& other) : d(other.d) {}

PCIeDataManager& PCIeDataManager::operator=(const PCIeDataManager& other) {
    d = other.d;
    return *this;
}

PCIeDataManager& PCIeDataManager::operator=(PCIeDataManager&& other) {
    d = other.d;
    return *this;
}

// ---------------------------------------------------------------- cards

bool PCIeDataManager::OpenCard(char* devicePath) {
    if (devicePath == nullptr) {
        return true;  // engines only; the card is neither closed nor opened
    }
    CloseCard();
    return xdma::XdmaOpen(devicePath);
}

bool PCIeDataManager::OpenCard(int /*deviceIndex*/) {
    return false;  // no RIFFA device library in the library yet
}

void PCIeDataManager::CloseCard() {
    xdma::XdmaClose();
}

bool PCIeDataManager::IsCardOpen() {
    return true;
}

int PCIeDataManager::GetDevices(char** paths) {
    return xdma::XdmaGetDevices(platform::kXdmaInterfaceClass, paths);
}

bool PCIeDataManager::GetDevices(fpga_info_list* /*list*/) {
    return false;  // no RIFFA device library in the library yet
}

// ---------------------------------------------------------------- capture
// The capture engine is not in the library yet: every capture operation gives the result of a
// missing engine after the facade's own steps.

bool PCIeDataManager::StartCapture(unsigned int channel, bool cardTiming, int width, int height,
                                   ePixelType pixelType, eErrorCode& error,
                                   CaptureFrameCallback /*callback*/, void* /*userContext*/,
                                   char* /*frameBuffer*/) {
    if (d->framework != XDMA_MM) {
        return false;
    }
    KvFrameFormat format;
    if (!PreProcCapture(format, channel, cardTiming, width, height, pixelType)) {
        error = ERR_NO_CARD;
        return false;
    }
    error = ERR_NONE;
    return false;
}

bool PCIeDataManager::StartCapture(unsigned int channel, bool cardTiming, int width, int height,
                                   ePixelType pixelType, eErrorCode& error,
                                   CaptureFrameCallbackEx /*callback*/, void* userContext,
                                   char* frameBuffer) {
    return StartCapture(channel, cardTiming, width, height, pixelType, error,
                        CaptureFrameCallback{nullptr}, userContext, frameBuffer);
}

void PCIeDataManager::StopCapture(int /*channel*/) {}

bool PCIeDataManager::IsStartCapture(int /*channel*/) {
    return false;
}

bool PCIeDataManager::StartRecord(int /*channel*/) {
    return false;
}

void PCIeDataManager::StopRecord(int /*channel*/) {}

void PCIeDataManager::ImgSnapShot(int /*channel*/) {}

void PCIeDataManager::SetSystemStatusCallback(int /*channel*/, SystemStatusCallback /*callback*/,
                                              void* /*userContext*/, bool /*enable*/) {}

tagCaptureDelayStatusInfo* PCIeDataManager::GetCaptureDelayStatus(int /*channel*/) {
    return nullptr;
}

void PCIeDataManager::SetImgDisplayDelayTest(int /*channel*/, bool /*enable*/) {}

void PCIeDataManager::SetCaptureFullScreenWgt(int /*channel*/, void* /*widget*/) {}

// ---------------------------------------------------------------- injection
// The inject engine is not in the library yet: likewise.

bool PCIeDataManager::StartInject(unsigned int /*channel*/, int /*frameRate*/, int /*width*/,
                                  int /*height*/, ePixelType /*pixelType*/, int /*linePeriod*/,
                                  char* /*frameData*/, eErrorCode& error) {
    if (d->framework != XDMA_MM) {
        return false;
    }
    if (!OpenFirstXdmaCardIfNone(*this)) {
        error = ERR_NO_CARD;
        return false;
    }
    return false;
}

void PCIeDataManager::StopInject(int /*channel*/) {}

bool PCIeDataManager::IsStartInject(int /*channel*/) {
    return false;
}

tagInjectDelayStatusInfo* PCIeDataManager::GetInjectDelayStatus(int /*channel*/) {
    return nullptr;
}

void PCIeDataManager::SetInjectFullScreenWgt(int /*channel*/, void* /*widget*/) {}

void PCIeDataManager::UpdateParamSimulate(int /*channel*/, bool /*enable*/,
                                          tagThermalImgParams /*params*/) {}

bool PCIeDataManager::WriteControlCmd(int /*channel*/, QByteArray /*command*/) {
    return false;
}

// ---------------------------------------------------------------- registers and memory

unsigned int PCIeDataManager::ReadReg(unsigned int address) {
    if (d->framework == XDMA_MM) {
        return xdma::XdmaIsOpen() ? xdma::XdmaReadReg(address) : 0;
    }
    return 0;  // RIFFA: no device library yet; other values name no framework
}

int PCIeDataManager::WriteReg(unsigned int address, int value) {
    if (d->framework == XDMA_MM) {
        if (!xdma::XdmaIsOpen()) {
            return 0;
        }
        const auto word = static_cast<unsigned>(value);
        return xdma::XdmaWriteReg(address, &word);
    }
    return 0;
}

bool PCIeDataManager::ReadData(unsigned int address, unsigned int size, unsigned char* buffer) {
    return buffer != nullptr && xdma::XdmaIsOpen() && xdma::XdmaReadData(address, size, buffer);
}

bool PCIeDataManager::WriteData(unsigned int address, unsigned int size, unsigned char* buffer) {
    return buffer != nullptr && xdma::XdmaIsOpen() && xdma::XdmaWriteData(address, size, buffer);
}

// ---------------------------------------------------------------- settings
// Kept by the engines; with none present there is nothing to set.

void PCIeDataManager::SetSaveLog(bool /*on*/) {}

void PCIeDataManager::SetOsdHidden(bool /*on*/) {}

void PCIeDataManager::SetShowErrorFrame(bool /*on*/) {}
