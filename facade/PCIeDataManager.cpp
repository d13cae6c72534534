// The exported facade: card handling, register and memory access, and forwarding to engines.
#include "AutoOpen.h"
#include "CaptureRequest.h"
#include "CardHolder.h"
#include "ErrorText.h"
#include "InjectRequest.h"
#include "PCIeDataManagerPrivate.h"

#include "Common/ApplicationDir.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/InjectFormat.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaDevice.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <algorithm>
#include <shared_mutex>

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

bool ChannelInRange(int channel) {
    if (channel >= 0 && channel < xdma::kChannelCount) {
        return true;
    }
    SetErrorText("channel %d is outside 0 to 3", channel);
    return false;
}

// False, with the reason, when the manager drives RIFFA: the operation is XDMA's.
bool IsXdma(const PCIeDataManagerPrivate* d, const char* operation) {
    if (d->framework == XDMA_MM) {
        return true;
    }
    SetErrorText("%s needs the XDMA framework; this manager drives RIFFA", operation);
    return false;
}

// Held while an operation uses an engine: a frame callback may call in while the control
// thread replaces the engines.
std::shared_lock<WriterFirstSharedMutex> SharedEngines(PCIeDataManagerPrivate* d) {
    return std::shared_lock<WriterFirstSharedMutex>(d->xdmaEngineLock);
}

// True, with the reason, when the caller is inside one of the engines' callbacks, where the
// engines must not be destroyed.
bool InsideCallback(PCIeDataManagerPrivate* d, const char* operation) {
    const auto engines = SharedEngines(d);
    const auto* capture = d->xdmaCapture.get();
    if (capture == nullptr || (!capture->OnPollingThread() && !capture->InStatusDelivery())) {
        return false;
    }
    SetErrorText(
        "%s is refused inside a frame or status callback: it would destroy the engine "
        "that runs the callback; call it from the control thread",
        operation);
    return true;
}

template <typename Engine>
bool HasEngine(const std::unique_ptr<Engine>& engine, const char* kind) {
    if (engine != nullptr) {
        return true;
    }
    SetErrorText("no %s engine: no XDMA card has been opened, or CloseCard closed it", kind);
    return false;
}

}  // namespace

const char* PCIeDataManager::LastErrorText() {
    return ErrorText();
}

bool PCIeDataManager::OpenCard(char* devicePath) {
    ClearErrorText();
    if (InsideCallback(d, "OpenCard") || CardHeldByAnother(d, "OpenCard")) {
        return false;
    }
    bool opened = true;
    if (devicePath != nullptr) {
        CloseCard();
        opened = xdma::XdmaOpen(devicePath);
        SetCardHolder(opened ? d : nullptr);
        ClearErrorText();
        if (!opened) {
            SetErrorText("the XDMA card \"%s\" did not open; its engines were created anyway",
                         devicePath);
        }
    } else {
        ClearErrorText();
        // Engines that exist are replaced here too, not leaked: their threads must stop.
        PCIeDataManagerPrivate::XdmaEngines old = d->TakeXdmaEngines();
        old.inject.reset();
        old.capture.reset();
    }
    PCIeDataManagerPrivate::XdmaEngines engines;
    engines.capture = std::make_unique<xdma::DataCapture4XdmaMM>(
        d, devicePath != nullptr ? devicePath : kNoCardPath);
    engines.inject = std::make_unique<xdma::DataInject4XdmaMM>(d);
    d->InstallXdmaEngines(std::move(engines));
    return opened;
}

bool PCIeDataManager::OpenCard(int deviceIndex) {
    ClearErrorText();
    if (d->riffaDevice->Open(deviceIndex) == nullptr) {
        if (deviceIndex < 0) {
            SetErrorText("RIFFA device index %d is negative", deviceIndex);
        } else {
            SetErrorText("RIFFA device %d is not listed or did not open", deviceIndex);
        }
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
    ClearErrorText();
    if (InsideCallback(d, "CloseCard")) {
        return;
    }
    // A manager that does not hold the card only lets go of its engines.
    if (!IsCardHeldByAnother(d)) {
        xdma::XdmaClose();
        SetCardHolder(nullptr);
    }
    PCIeDataManagerPrivate::XdmaEngines old = d->TakeXdmaEngines();
    old.capture.reset();
    old.inject.reset();
}

bool PCIeDataManager::IsCardOpen() {
    ClearErrorText();
    return true;
}

int PCIeDataManager::GetDevices(char** paths) {
    ClearErrorText();
    if (paths == nullptr) {
        SetErrorText("paths is null");
        return 0;
    }
    const int found = xdma::XdmaGetDevices(platform::kXdmaInterfaceClass, paths);
    if (found == 0) {
        SetErrorText("no XDMA card is listed");
    }
    return found;
}

bool PCIeDataManager::GetDevices(fpga_info_list* list) {
    ClearErrorText();
    if (list == nullptr) {
        SetErrorText("list is null");
        return false;
    }
    const int result = d->riffaDevice->List(list);
    if (result != 0) {
        SetErrorText("listing the RIFFA devices failed with system error %d%s", result,
                     list->fpgaCount >= 5 ? ": more than five devices are present" : "");
    }
    return result == 0;
}

// ---------------------------------------------------------------- capture

namespace {

template <typename Callback, typename Prepare>
bool StartCaptureWith(PCIeDataManagerPrivate* d, Prepare prepare, unsigned channel, int width,
                      int height, ePixelType pixelType, eErrorCode& error, Callback callback,
                      void* userContext, char* frameBuffer) {
    ClearErrorText();
    if (!IsXdma(d, "StartCapture")) {
        return false;
    }
    if (CardHeldByAnother(d, "StartCapture")) {
        error = ERR_NO_CARD;
        return false;
    }
    KvFrameFormat format;
    if (!IsCaptureRequestAcceptable(channel, width, height, pixelType, frameBuffer) ||
        !prepare(format)) {
        error = ERR_NO_CARD;
        return false;
    }
    error = ERR_NONE;
    const auto engines = SharedEngines(d);  // not before: the start may have opened the card
    return HasEngine(d->xdmaCapture, "capture") &&
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
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (!ChannelInRange(channel)) {
        return;
    }
    if (d->framework == XDMA_MM && d->xdmaCapture != nullptr) {
        d->xdmaCapture->StopCapture(channel);
    } else if (d->framework == RIFFA && d->riffaCapture != nullptr) {
        d->riffaCapture->StopCapture(channel);
    }
}

bool PCIeDataManager::IsStartCapture(int channel) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (!ChannelInRange(channel) || !HasEngine(d->xdmaCapture, "capture")) {
        return false;
    }
    const bool started = d->xdmaCapture->IsStartCapture(channel);
    if (!started) {
        SetErrorText("channel %d is not capturing", channel);
    }
    return started;
}

bool PCIeDataManager::StartRecord(int channel) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (!ChannelInRange(channel) || !HasEngine(d->xdmaCapture, "capture")) {
        return false;
    }
    const bool started = d->xdmaCapture->StartRecord(channel);
    if (!started && !d->xdmaCapture->IsStartCapture(channel)) {
        SetErrorText("channel %d is not capturing: start it before recording it", channel);
    } else if (!started) {
        SetErrorText(
            "channel %d's recording folder or file below \"%s/VideoRecord\" could not "
            "be created",
            channel, qPrintable(ApplicationDir()));
    }
    return started;
}

void PCIeDataManager::StopRecord(int channel) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (ChannelInRange(channel) && HasEngine(d->xdmaCapture, "capture")) {
        d->xdmaCapture->StopRecord(channel);
    }
}

void PCIeDataManager::ImgSnapShot(int channel) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (ChannelInRange(channel) && HasEngine(d->xdmaCapture, "capture")) {
        d->xdmaCapture->ImgSnapShot(channel);
    }
}

void PCIeDataManager::SetSystemStatusCallback(int channel, SystemStatusCallback callback,
                                              void* userContext, bool enable) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (ChannelInRange(channel) && HasEngine(d->xdmaCapture, "capture")) {
        d->xdmaCapture->SetSystemStatusCallback(channel, callback, userContext, enable);
    }
}

tagCaptureDelayStatusInfo* PCIeDataManager::GetCaptureDelayStatus(int channel) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (!ChannelInRange(channel) || !HasEngine(d->xdmaCapture, "capture")) {
        return nullptr;
    }
    const tagCaptureDelayStatusInfo* records = d->xdmaCapture->GetCaptureDelayStatus(channel);
    std::copy(records, records + d->captureDelay.size(), d->captureDelay.begin());
    return d->captureDelay.data();
}

void PCIeDataManager::SetImgDisplayDelayTest(int channel, bool enable) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (ChannelInRange(channel) && HasEngine(d->xdmaCapture, "capture")) {
        d->xdmaCapture->SetImgDisplayDelayTest(channel, enable);
    }
}

void PCIeDataManager::SetCaptureFullScreenWgt(int channel, void* widget) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (ChannelInRange(channel) && HasEngine(d->xdmaCapture, "capture")) {
        d->xdmaCapture->SetCaptureFullScreenWgt(channel, widget);
    }
}

bool PCIeDataManager::GetCaptureStatistics(int channel, KvCaptureStatistics& out) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    return ChannelInRange(channel) && HasEngine(d->xdmaCapture, "capture") &&
           d->xdmaCapture->GetCaptureStatistics(channel, out);
}

// ---------------------------------------------------------------- injection

bool PCIeDataManager::StartInject(unsigned int channel, int frameRate, int width, int height,
                                  ePixelType pixelType, int linePeriod, char* frameData,
                                  eErrorCode& error) {
    ClearErrorText();
    if (!IsXdma(d, "StartInject")) {
        return false;
    }
    if (CardHeldByAnother(d, "StartInject")) {
        error = ERR_NO_CARD;
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
    // Once the channel injects, a frame's other fields are not looked at: the run's format was
    // fixed by its first call, so only the channel and the data count.
    bool injecting = false;
    if (ChannelInRange(static_cast<int>(channel)) && frameData != nullptr) {
        const auto engines = SharedEngines(d);
        injecting = d->xdmaInject && d->xdmaInject->IsStartInject(static_cast<int>(channel));
    }
    // Refused before any card is opened or touched; a parameter line switched on for the
    // channel is checked by the engine when it starts the channel.
    if (!injecting &&
        (!IsInjectRequestAcceptable(format, frameData) || !OpenFirstXdmaCardIfNone(*this))) {
        error = ERR_NO_CARD;
        return false;
    }
    const auto engines = SharedEngines(d);  // not before: the start may have opened the card
    if (!HasEngine(d->xdmaInject, "inject")) {
        return false;
    }
    error = ERR_NONE;
    if (d->xdmaInject->StartInject(format, frameData, error)) {
        return true;
    }
    if (error == ERR_QUEUE_FULL) {
        SetErrorText("channel %u's queue holds 15 frames: offer the frame again later", channel);
    } else {
        SetErrorText(
            "channel %u cannot start: the frame with its parameter line exceeds the "
            "card's limits, or the queue's memory could not be had",
            channel);
    }
    return false;
}

void PCIeDataManager::StopInject(int channel) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (ChannelInRange(channel) && HasEngine(d->xdmaInject, "inject")) {
        d->xdmaInject->StopInject(channel);
    }
}

bool PCIeDataManager::IsStartInject(int channel) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (!ChannelInRange(channel) || !HasEngine(d->xdmaInject, "inject")) {
        return false;
    }
    const bool started = d->xdmaInject->IsStartInject(channel);
    if (!started) {
        SetErrorText("channel %d is not injecting", channel);
    }
    return started;
}

tagInjectDelayStatusInfo* PCIeDataManager::GetInjectDelayStatus(int channel) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (!ChannelInRange(channel) || !HasEngine(d->xdmaInject, "inject")) {
        return nullptr;
    }
    const tagInjectDelayStatusInfo* records = d->xdmaInject->GetInjectDelayStatus(channel);
    std::copy(records, records + d->injectDelay.size(), d->injectDelay.begin());
    return d->injectDelay.data();
}

void PCIeDataManager::SetInjectFullScreenWgt(int channel, void* widget) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (ChannelInRange(channel) && HasEngine(d->xdmaInject, "inject")) {
        d->xdmaInject->SetInjectFullScreenWgt(channel, widget);
    }
}

void PCIeDataManager::UpdateParamSimulate(int channel, bool enable, tagThermalImgParams params) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (ChannelInRange(channel) && HasEngine(d->xdmaInject, "inject")) {
        d->xdmaInject->UpdateParamSimulate(channel, enable, params);
    }
}

bool PCIeDataManager::WriteControlCmd(int channel, QByteArray command) {
    ClearErrorText();
    // From any thread: the engine stays while this call uses it.
    const auto engines = SharedEngines(d);
    if (!ChannelInRange(channel) || !HasEngine(d->xdmaInject, "inject")) {
        return false;
    }
    const int size = command.size();
    if (size > xdma::kCommandMaxBytes) {
        SetErrorText("command of %s bytes exceeds 1,024 bytes",
                     GroupedDigits(static_cast<std::uint64_t>(size)).c_str());
        return false;
    }
    if (d->xdmaInject->WriteControlCmd(channel, std::move(command))) {
        return true;
    }
    if (size == 0) {
        SetErrorText("the command is empty: an empty command is never sent");
    } else {
        SetErrorText(
            "the command did not reach channel %d's mailbox within 40 ms; it stays "
            "pending until the card is free or a newer command replaces it",
            channel);
    }
    return false;
}

bool PCIeDataManager::GetInjectStatistics(int channel, KvInjectStatistics& out) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    return ChannelInRange(channel) && HasEngine(d->xdmaInject, "inject") &&
           d->xdmaInject->GetInjectStatistics(channel, out);
}

// ---------------------------------------------------------------- registers and memory

namespace {

bool XdmaCardOpen() {
    if (xdma::XdmaIsOpen()) {
        return true;
    }
    SetErrorText("no XDMA card is open");
    return false;
}

bool TransferDone(bool done, const char* direction, unsigned address, unsigned size) {
    if (!done) {
        SetErrorText("%s %s bytes at card address 0x%08X failed%s", direction,
                     GroupedDigits(size).c_str(), address,
                     address >= 0x80000000u ? ": the address is at or past 2 GiB" : "");
    }
    return done;
}

}  // namespace

unsigned int PCIeDataManager::ReadReg(unsigned int address) {
    ClearErrorText();
    if (d->framework == XDMA_MM) {
        return XdmaCardOpen() ? xdma::XdmaReadReg(address) : 0;
    }
    if (d->framework == RIFFA) {
        return d->riffaDevice->ReadReg(address);
    }
    return 0;  // other values name no framework
}

int PCIeDataManager::WriteReg(unsigned int address, int value) {
    ClearErrorText();
    if (d->framework == XDMA_MM) {
        if (!XdmaCardOpen()) {
            return 0;
        }
        const auto word = static_cast<unsigned>(value);
        const int result = xdma::XdmaWriteReg(address, &word);
        if (result != 4) {
            SetErrorText("writing register 0x%08X failed (%d)", address, result);
        }
        return result;
    }
    if (d->framework == RIFFA) {
        d->riffaDevice->WriteReg(static_cast<unsigned>(value), address);
    }
    return 0;
}

bool PCIeDataManager::ReadData(unsigned int address, unsigned int size, unsigned char* buffer) {
    ClearErrorText();
    if (buffer == nullptr) {
        SetErrorText("buffer is null");
        return false;
    }
    return XdmaCardOpen() &&
           TransferDone(xdma::XdmaReadData(address, size, buffer), "reading", address, size);
}

bool PCIeDataManager::WriteData(unsigned int address, unsigned int size, unsigned char* buffer) {
    ClearErrorText();
    if (buffer == nullptr) {
        SetErrorText("buffer is null");
        return false;
    }
    return XdmaCardOpen() &&
           TransferDone(xdma::XdmaWriteData(address, size, buffer), "writing", address, size);
}

// ---------------------------------------------------------------- settings
// Kept by the engines; with none present there is nothing to set.

void PCIeDataManager::SetSaveLog(bool on) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (d->xdmaCapture != nullptr) {
        d->xdmaCapture->SetSaveLog(on);
    }
    if (d->xdmaInject != nullptr) {
        d->xdmaInject->SetSaveLog(on);
    }
}

void PCIeDataManager::SetOsdHidden(bool on) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (d->xdmaCapture != nullptr) {
        d->xdmaCapture->SetOsdHidden(on);
    }
    if (d->xdmaInject != nullptr) {
        d->xdmaInject->SetOsdHidden(on);
    }
}

void PCIeDataManager::SetShowErrorFrame(bool on) {
    ClearErrorText();
    const auto engines = SharedEngines(d);
    if (d->xdmaCapture != nullptr) {
        d->xdmaCapture->SetShowErrorFrame(on);
    }
}
