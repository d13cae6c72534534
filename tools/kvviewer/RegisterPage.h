// The register panel: read a register, write one after a confirmation, and a watch list of
// registers read again a few times a second.
#pragma once

#include "StudioContext.h"

#include <QWidget>

#include <functional>
#include <optional>

class QLabel;
class QLineEdit;
class QPushButton;
class QTableWidget;

namespace kvpcie::viewer {

class RegisterPage : public QWidget {
    Q_OBJECT

public:
    explicit RegisterPage(StudioContext& context, QWidget* parent = nullptr);

    // Asks before a write; the default asks with a dialog. True: write.
    using Confirmation = std::function<bool(const QString& question)>;
    void SetConfirmation(Confirmation confirm) { confirm_ = std::move(confirm); }
    // Whose registers: the XDMA card's (the default) or a RIFFA device's manager.
    void SetRegisters(PCIeDataManager* manager) { registers_ = manager; }

    std::optional<unsigned> Read(unsigned address);
    // After the confirmation; false when declined or refused (logged).
    bool Write(unsigned address, unsigned value);
    void Watch(unsigned address);
    void Unwatch(unsigned address);
    // The watched value as last shown ("0x00000000"), empty when not watched.
    QString WatchedText(unsigned address) const;

    // "0x1F1000", "1F1000h", "2035712" -> the number; nothing for anything else or > 32 bits.
    static std::optional<unsigned> ParseNumber(const QString& text);

private:
    void RefreshWatches();
    int WatchRow(unsigned address) const;

    StudioContext& context_;
    Confirmation confirm_;
    PCIeDataManager* registers_;
    QLineEdit* addressEdit_;
    QLineEdit* valueEdit_;
    QPushButton* readButton_;
    QPushButton* writeButton_;
    QPushButton* watchButton_;
    QPushButton* unwatchButton_;
    QLabel* result_;
    QTableWidget* watches_;
};

}  // namespace kvpcie::viewer
