// The inject engine of RIFFA mode. Nothing is injected into a RIFFA card and no command is sent
// to one: the engine keeps its two logs open for its life.
#pragma once

#include "Common/LogFile.h"

#include <QObject>

#include <memory>

namespace kvpcie::riffa {

class RiffaDevice;

// Created and destroyed by the facade on the caller's thread, when OpenCard(int) opens a device.
class DataInject4Riffa : public QObject {
    Q_OBJECT

public:
    // `device` is kept, not owned. Opens the "Inject_AllChannel" and "InjectReadFile" logs.
    explicit DataInject4Riffa(RiffaDevice* device);
    // Stops both logs, joining their writers.
    ~DataInject4Riffa() override;

private:
    RiffaDevice* const device_;
    std::unique_ptr<LogFile> logAllChannel_;
    std::unique_ptr<LogFile> logReadFile_;
};

}  // namespace kvpcie::riffa
