// The exported facade: card handling, register and memory access, and forwarding to engines.
#include "AutoOpen.h"
#include "CaptureRequest.h"
#include "PCIeDataManagerPrivate.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/InjectFormat.h"
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

namespace {
// The path that an engine-only OpenCard gives the capture engine; no such interface exists, so
// its event files do not open.
constexpr const char* kNoCardPath = "7028";
}  // namespace

bool PCIeDataManager::OpenCard(char* devicePath) {
    bool opened = true;
    if (devicePath != nullptr) {
        CloseCard();
        opened = xdma::XdmaOpen(devicePath);
    } else {
        // Engines that exist are replaced here too, not leaked: their threads must stop.
        d->xdmaInject.reset();
        d->xdmaCapture.reset();
    }
    d->xdmaCapture = std::make_unique<xdma::DataCapture4XdmaMM>(
        d, devicePath != nullptr ? devicePath : kNoCardPath);
    d->xdmaInject = std::make_unique<xdma::DataInject4XdmaMM>(d);
    return opened;
}

bool PCIeDataManager::OpenCard(int deviceIndex) {
    if (d->riffaDevice->Open(deviceIndex) == nullptr) {
        return false;
    }
    // Each engine goes, its logs stopped, before its successor opens them again.
    d->riffaCapture.reset();
    d->riffaCapture = std::make_unique<riffa::DataCapture4Riffa>(d->riffaDevice.get());
    d->riffaInject.reset();
    d->riffaInject = std::make_unique<riffa::DataInject4Riffa>(d->riffaDevice.get());
    return true;
}

void PCIeDataManager::CloseCard() {
    xdma::XdmaClose();
    d->xdmaCapture.reset();
    d->xdmaInject.reset();
}

bool PCIeDataManager::IsCardOpen() {
    return true;
}

int PCIeDataManager::GetDevices(char** paths) {
    return xdma::XdmaGetDevices(platform::kXdmaInterfaceClass, paths);
}

bool PCIeDataManager::GetDevices(fpga_info_list* list) {
    return list != nullptr && d->riffaDevice->List(list) == 0;
}

// ---------------------------------------------------------------- capture

namespace {

template <typename Callback, typename Prepare>
bool StartCaptureWith(PCIeDataManagerPrivate* d, Prepare prepare, unsigned channel, int width,
                      int height, ePixelType pixelType, eErrorCode& error, Callback callback,
                      void* userContext, char* frameBuffer) {
    if (d->framework != XDMA_MM) {
        return false;
    }
    KvFrameFormat format;
    if (!IsCaptureRequestAcceptable(channel, width, height, pixelType, frameBuffer) ||
        !prepare(format)) {
        error = ERR_NO_CARD;
        return false;
    }
    error = ERR_NONE;
    return d->xdmaCapture != nullptr &&
           d->xdmaCapture->StartCapture(format, error, callback, userContext, frameBuffer);
}

}  // namespace

bool PCIeDataManager::StartCapture(unsigned int channel, bool cardTiming, int width, int height,
                                   ePixelType pixelType, eErrorCode& error,
                                   CaptureFrameCallback callback, void* userContext,
                                   char* frameBuffer) {
    const auto prepare = [&](KvFrameFormat& format) {
        return PreProcCapture(format, channel, cardTiming, width, height, pixelType);
    };
    return StartCaptureWith(d, prepare, channel, width, height, pixelType, error, callback,
                            userContext, frameBuffer);
}

bool PCIeDataManager::StartCapture(unsigned int channel, bool cardTiming, int width, int height,
                                   ePixelType pixelType, eErrorCode& error,
                                   CaptureFrameCallbackEx callback, void* userContext,
                                   char* frameBuffer) {
    const auto prepare = [&](KvFrameFormat& format) {
        return PreProcCapture(format, channel, cardTiming, width, height, pixelType);
    };
    return StartCaptureWith(d, prepare, channel, width, height, pixelType, error, callback,
                            userContext, frameBuffer);
}

void PCIeDataManager::StopCapture(int channel) {
    if (d->framework == XDMA_MM && d->xdmaCapture != nullptr) {
        d->xdmaCapture->StopCapture(channel);
    } else if (d->framework == RIFFA && d->riffaCapture != nullptr) {
        d->riffaCapture->StopCapture(channel);
    }
}

bool PCIeDataManager::IsStartCapture(int channel) {
    return d->xdmaCapture != nullptr && d->xdmaCapture->IsStartCapture(channel);
}

bool PCIeDataManager::StartRecord(int channel) {
    return d->xdmaCapture != nullptr && d->xdmaCapture->StartRecord(channel);
}

void PCIeDataManager::StopRecord(int channel) {
    if (d->xdmaCapture != nullptr) {
        d->xdmaCapture->StopRecord(channel);
    }
}

void PCIeDataManager::ImgSnapShot(int channel) {
    if (d->xdmaCapture != nullptr) {
        d->xdmaCapture->ImgSnapShot(channel);
    }
}

void PCIeDataManager::SetSystemStatusCallback(int channel, SystemStatusCallback callback,
                                              void* userContext, bool enable) {
    if (d->xdmaCapture != nullptr) {
        d->xdmaCapture->SetSystemStatusCallback(channel, callback, userContext, enable);
    }
}

tagCaptureDelayStatusInfo* PCIeDataManager::GetCaptureDelayStatus(int channel) {
    return d->xdmaCapture != nullptr ? d->xdmaCapture->GetCaptureDelayStatus(channel) : nullptr;
}

void PCIeDataManager::SetImgDisplayDelayTest(int channel, bool enable) {
    if (d->xdmaCapture != nullptr) {
        d->xdmaCapture->SetImgDisplayDelayTest(channel, enable);
    }
}

void PCIeDataManager::SetCaptureFullScreenWgt(int channel, void* widget) {
    if (d->xdmaCapture != nullptr) {
        d->xdmaCapture->SetCaptureFullScreenWgt(channel, widget);
    }
}

// ---------------------------------------------------------------- injection

bool PCIeDataManager::StartInject(unsigned int channel, int frameRate, int width, int height,
                                  ePixelType pixelType, int linePeriod, char* frameData,
                                  eErrorCode& error) {
    if (d->framework != XDMA_MM) {
        return false;
    }
    KvFrameFormat format;
    format.channel = channel;
    format.width = width;
    format.height = height;
    format.height2 = height;
    format.paramLines = 0;
    format.frameRate = frameRate;
    format.pixelType = pixelType;
    format.linePeriod = linePeriod;
    format.injectSyncMode = 0;
    // Refused before any card is opened or touched; a parameter line switched on for the
    // channel is checked by the engine when it starts the channel.
    if (frameData == nullptr || !xdma::IsInjectFormatAcceptable(format, false) ||
        !OpenFirstXdmaCardIfNone(*this)) {
        error = ERR_NO_CARD;
        return false;
    }
    if (d->xdmaInject == nullptr) {
        return false;
    }
    error = ERR_NONE;
    return d->xdmaInject->StartInject(format, frameData, error);
}

void PCIeDataManager::StopInject(int channel) {
    if (d->xdmaInject != nullptr) {
        d->xdmaInject->StopInject(channel);
    }
}

bool PCIeDataManager::IsStartInject(int channel) {
    return d->xdmaInject != nullptr && d->xdmaInject->IsStartInject(channel);
}

tagInjectDelayStatusInfo* PCIeDataManager::GetInjectDelayStatus(int channel) {
    return d->xdmaInject != nullptr ? d->xdmaInject->GetInjectDelayStatus(channel) : nullptr;
}

void PCIeDataManager::SetInjectFullScreenWgt(int channel, void* widget) {
    if (d->xdmaInject != nullptr) {
        d->xdmaInject->SetInjectFullScreenWgt(channel, widget);
    }
}

void PCIeDataManager::UpdateParamSimulate(int channel, bool enable, tagThermalImgParams params) {
    if (d->xdmaInject != nullptr) {
        d->xdmaInject->UpdateParamSimulate(channel, enable, params);
    }
}

bool PCIeDataManager::WriteControlCmd(int channel, QByteArray command) {
    return d->xdmaInject != nullptr && d->xdmaInject->WriteControlCmd(channel, std::move(command));
}

// ---------------------------------------------------------------- registers and memory

unsigned int PCIeDataManager::ReadReg(unsigned int address) {
    if (d->framework == XDMA_MM) {
        return xdma::XdmaIsOpen() ? xdma::XdmaReadReg(address) : 0;
    }
    if (d->framework == RIFFA) {
        return d->riffaDevice->ReadReg(address);
    }
    return 0;  // other values name no framework
}

int PCIeDataManager::WriteReg(unsigned int address, int value) {
    if (d->framework == XDMA_MM) {
        if (!xdma::XdmaIsOpen()) {
            return 0;
        }
        const auto word = static_cast<unsigned>(value);
        return xdma::XdmaWriteReg(address, &word);
    }
    if (d->framework == RIFFA) {
        d->riffaDevice->WriteReg(static_cast<unsigned>(value), address);
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

void PCIeDataManager::SetSaveLog(bool on) {
    if (d->xdmaCapture != nullptr) {
        d->xdmaCapture->SetSaveLog(on);
    }
    if (d->xdmaInject != nullptr) {
        d->xdmaInject->SetSaveLog(on);
    }
}

void PCIeDataManager::SetOsdHidden(bool on) {
    if (d->xdmaCapture != nullptr) {
        d->xdmaCapture->SetOsdHidden(on);
    }
    if (d->xdmaInject != nullptr) {
        d->xdmaInject->SetOsdHidden(on);
    }
}

void PCIeDataManager::SetShowErrorFrame(bool on) {
    if (d->xdmaCapture != nullptr) {
        d->xdmaCapture->SetShowErrorFrame(on);
    }
}
