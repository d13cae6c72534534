// The card picker: the XDMA cards and RIFFA devices of the listing (the simulated card and the
// driver models' cards among them, when present).
#pragma once

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <QComboBox>
#include <QString>

namespace kvpcie::viewer {

struct CardChoice {
    bool riffa = false;
    QString path;     // XDMA: the interface path
    int index = -1;   // RIFFA: the device's index in the listing
    QString name;     // as listed
};

class CardPicker : public QComboBox {
    Q_OBJECT

public:
    explicit CardPicker(QWidget* parent = nullptr);
    // Lists again; the card chosen before stays chosen when it is still there.
    void Refresh(PCIeDataManager& xdma, PCIeDataManager& riffa);
    CardChoice Chosen() const;
    // Chooses the entry of that name; false when there is none.
    bool Choose(const QString& name);
};

}  // namespace kvpcie::viewer
