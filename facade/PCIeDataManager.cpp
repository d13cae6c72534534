// The exported facade: card handling and the operations that forward to the engines.
#include "CaptureRequest.h"
#include "CardHolder.h"
#include "CardOpening.h"
#include "EngineCall.h"
#include "ErrorText.h"
#include "InjectRequest.h"
#include "PCIeDataManagerPrivate.h"

#include <KvPCIeInjectSdk/KvPCIeRecording.h>
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaDevice.h"

#include <KvPCIeInjectSdk/GLWidget.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <algorithm>

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

// False, with the reason, when the manager drives RIFFA: the operation is XDMA's.
bool IsXdma(const PCIeDataManagerPrivate* d, const char* operation) {
    if (d->framework == XDMA_MM) {
        return true;
    }
    SetErrorText("%s needs the XDMA framework; this manager drives RIFFA", operation);
    return false;
}

}  // namespace

const char* PCIeDataManager::LastErrorText() {
    return ErrorText();
}

bool PCIeDataManager::IsCardLost() {
    return d->card->IsLost();
}

void PCIeDataManager::SetCardLostCallback(CardLostCallback callback, void* userContext) {
    std::lock_guard<std::mutex> lock(d->lostLock);
    d->lostCallback = callback;
    d->lostContext = userContext;
}

bool PCIeDataManager::OpenCard(char* devicePath) {
    return OpenXdmaCard(d, devicePath);
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

void PCIeDataManager::CloseRiffaCard() {
    ClearErrorText();
    d->riffaCapture.reset();
    d->riffaInject.reset();
    d->riffaDevice->Close();
}

void PCIeDataManager::CloseCard() {
    CloseXdmaCard(d);
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
    const auto capture = CaptureEngine(d, channel);
    const bool started = capture && capture->IsStartCapture(channel);
    if (capture && !started) {
        SetErrorText("channel %d is not capturing", channel);
    }
    return started;
}

bool PCIeDataManager::StartRecord(int channel) {
    const auto capture = CaptureEngine(d, channel);
    if (!capture) {
        return false;
    }
    const bool started = capture->StartRecord(channel);
    if (!started && !capture->IsStartCapture(channel)) {
        SetErrorText("channel %d is not capturing: start it before recording it", channel);
    } else if (!started) {
        SetErrorText("channel %d's recording folder or file below \"%s\" could not be created",
                     channel, qPrintable(KvPCIe::RecordRoot()));
    }
    return started;
}

void PCIeDataManager::StopRecord(int channel) {
    if (const auto capture = CaptureEngine(d, channel)) {
        capture->StopRecord(channel);
    }
}

QString PCIeDataManager::GetRecordTakeFolder(int channel) {
    if (const auto capture = CaptureEngine(d, channel)) {
        return capture->RecordTakeFolder(channel);
    }
    return QString();
}

void PCIeDataManager::ImgSnapShot(int channel) {
    if (const auto capture = CaptureEngine(d, channel)) {
        capture->ImgSnapShot(channel);
    }
}

void PCIeDataManager::SetSystemStatusCallback(int channel, SystemStatusCallback callback,
                                              void* userContext, bool enable) {
    if (const auto capture = CaptureEngine(d, channel)) {
        capture->SetSystemStatusCallback(channel, callback, userContext, enable);
    }
}

tagCaptureDelayStatusInfo* PCIeDataManager::GetCaptureDelayStatus(int channel) {
    const auto capture = CaptureEngine(d, channel);
    if (!capture) {
        return nullptr;
    }
    const tagCaptureDelayStatusInfo* records = capture->GetCaptureDelayStatus(channel);
    std::copy(records, records + d->captureDelay.size(), d->captureDelay.begin());
    return d->captureDelay.data();
}

void PCIeDataManager::SetImgDisplayDelayTest(int channel, bool enable) {
    if (const auto capture = CaptureEngine(d, channel)) {
        capture->SetImgDisplayDelayTest(channel, enable);
    }
}

void PCIeDataManager::SetCaptureFullScreenWgt(int channel, void* widget) {
    if (const auto capture = CaptureEngine(d, channel)) {
        capture->SetCaptureFullScreenWgt(channel, widget);
    }
}

bool PCIeDataManager::GetCaptureStatistics(int channel, KvCaptureStatistics& out) {
    const auto capture = CaptureEngine(d, channel);
    return capture && capture->GetCaptureStatistics(channel, out);
}

// ---------------------------------------------------------------- injection

bool PCIeDataManager::StartInject(unsigned int channel, int frameRate, int width, int height,
                                  ePixelType pixelType, int linePeriod, char* frameData,
                                  eErrorCode& error) {
    ClearErrorText();
    if (!IsXdma(d, "StartInject")) {
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
        (!IsInjectRequestAcceptable(format, frameData) || !OpenFirstXdmaCardIfNone(d, "StartInject"))) {
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
    if (const auto inject = InjectEngine(d, channel)) {
        inject->StopInject(channel);
    }
}

bool PCIeDataManager::IsStartInject(int channel) {
    const auto inject = InjectEngine(d, channel);
    const bool started = inject && inject->IsStartInject(channel);
    if (inject && !started) {
        SetErrorText("channel %d is not injecting", channel);
    }
    return started;
}

tagInjectDelayStatusInfo* PCIeDataManager::GetInjectDelayStatus(int channel) {
    const auto inject = InjectEngine(d, channel);
    if (!inject) {
        return nullptr;
    }
    const tagInjectDelayStatusInfo* records = inject->GetInjectDelayStatus(channel);
    std::copy(records, records + d->injectDelay.size(), d->injectDelay.begin());
    return d->injectDelay.data();
}

void PCIeDataManager::SetInjectFullScreenWgt(int channel, void* widget) {
    if (widget == nullptr) {
        return;
    }
    if (const auto inject = InjectEngine(d, channel)) {
        inject->SetInjectFullScreenWgt(channel, [widget](int width, int height) {
            static_cast<GLWidget*>(widget)->SetImageSize(width, height);
        });
    }
}

void PCIeDataManager::UpdateParamSimulate(int channel, bool enable, tagThermalImgParams params) {
    if (const auto inject = InjectEngine(d, channel)) {
        inject->UpdateParamSimulate(channel, enable, params);
    }
}

bool PCIeDataManager::WriteControlCmd(int channel, QByteArray command) {
    // From any thread: the engine stays while this call uses it.
    const auto inject = InjectEngine(d, channel);
    if (!inject) {
        return false;
    }
    const int size = command.size();
    if (size > xdma::kCommandMaxBytes) {
        SetErrorText("command of %s bytes exceeds 1,024 bytes",
                     GroupedDigits(static_cast<std::uint64_t>(size)).c_str());
        return false;
    }
    if (inject->WriteControlCmd(channel, std::move(command))) {
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
    const auto inject = InjectEngine(d, channel);
    return inject && inject->GetInjectStatistics(channel, out);
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
