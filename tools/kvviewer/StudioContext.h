// What every part of the viewer's window shares: the card's manager and the log pane.
#pragma once

#include "LogPane.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <QString>

namespace kvpcie::viewer {

struct StudioContext {
    PCIeDataManager& manager;
    LogPane& log;

    // Logs what the window did.
    void Did(const QString& what) const { log.Add(what); }
    // Logs a refusal with the library's reason; returns the line.
    QString Refused(const QString& what) const {
        const QString line =
            what + QStringLiteral(": refused: ") + QString::fromLocal8Bit(manager.LastErrorText());
        log.Add(line);
        return line;
    }
};

}  // namespace kvpcie::viewer
