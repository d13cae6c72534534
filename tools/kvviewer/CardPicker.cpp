// Listing the cards for the picker.
#include "CardPicker.h"

#include <cstdlib>

namespace kvpcie::viewer {

CardPicker::CardPicker(QWidget* parent) : QComboBox(parent) {
    setSizeAdjustPolicy(QComboBox::AdjustToContents);
    setToolTip(tr("the cards of the listing"));
}

void CardPicker::Refresh(PCIeDataManager& xdma, PCIeDataManager& riffa) {
    const QString before = currentText();
    clear();
    char* paths[4] = {};
    const int count = xdma.GetDevices(paths);
    for (int i = 0; i < count; ++i) {
        const QString path = QString::fromLocal8Bit(paths[i]);
        addItem(tr("XDMA %1").arg(path), QVariantList{false, path, -1});
    }
    for (char* path : paths) {
        std::free(path);  // GetDevices hands the buffers over
    }
    fpga_info_list devices{};
    if (riffa.GetDevices(&devices)) {
        for (int i = 0; i < devices.fpgaCount && i < 5; ++i) {
            const QString name =
                QString::fromLatin1(devices.name[i], int(qstrnlen(devices.name[i], 16)));
            addItem(tr("RIFFA %1: %2 (registers only)").arg(devices.id[i]).arg(name),
                    QVariantList{true, QString(), devices.id[i]});
        }
    }
    Choose(before);
}

CardChoice CardPicker::Chosen() const {
    CardChoice choice;
    const QVariantList data = currentData().toList();
    if (data.size() != 3) {
        return choice;
    }
    choice.riffa = data[0].toBool();
    choice.path = data[1].toString();
    choice.index = data[2].toInt();
    choice.name = currentText();
    return choice;
}

bool CardPicker::Choose(const QString& name) {
    const int found = findText(name);
    if (found < 0) {
        return false;
    }
    setCurrentIndex(found);
    return true;
}

}  // namespace kvpcie::viewer
