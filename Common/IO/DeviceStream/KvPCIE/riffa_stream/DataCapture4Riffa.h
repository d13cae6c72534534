// The capture engine of RIFFA mode. No frames move between the host and a RIFFA card: the engine
// keeps its log open for its life and answers StopCapture.
#pragma once

#include "Common/LogFile.h"

#include <QObject>

#include <memory>

namespace kvpcie::riffa {

class RiffaDevice;

// Created and destroyed by the facade on the caller's thread, when OpenCard(int) opens a device.
class DataCapture4Riffa : public QObject {
    Q_OBJECT

public:
    // `device` is kept, not owned. Opens the "Capture_AllChannel" log.
    explicit DataCapture4Riffa(RiffaDevice* device);
    // Stops the log, joining its writer.
    ~DataCapture4Riffa() override;

    // No channel ever captures here, so there is nothing to stop, whatever the channel.
    void StopCapture(int channel);

private slots:
    // The status timer's slot of the XDMA engine; no timer reaches it here.
    void OnSlotCaptureCmdDataTimeOut();

private:
    RiffaDevice* const device_;
    std::unique_ptr<LogFile> log_;
};

}  // namespace kvpcie::riffa
