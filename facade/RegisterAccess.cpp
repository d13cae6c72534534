// The facade's register and card memory access, for both frameworks.
#include "CardOpening.h"
#include "ErrorText.h"
#include "PCIeDataManagerPrivate.h"

#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaDevice.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

using namespace kvpcie;

namespace {

bool XdmaCardOpen(PCIeDataManagerPrivate* d) {
    if (d->card->XdmaIsOpen()) {
        return CardIsThere(d);
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
        return XdmaCardOpen(d) ? d->card->XdmaReadReg(address) : 0;
    }
    if (d->framework == RIFFA) {
        return d->riffaDevice->ReadReg(address);
    }
    return 0;  // other values name no framework
}

bool PCIeDataManager::ReadReg(unsigned int address, unsigned int& value) {
    ClearErrorText();
    value = 0;
    if (d->framework == XDMA_MM) {
        if (!XdmaCardOpen(d)) {
            return false;
        }
        if (!d->card->ReadRegChecked(address, value)) {
            // The read that failed may be the one that found the card gone.
            if (CardIsThere(d)) {
                SetErrorText("reading register 0x%08X failed", address);
            }
            return false;
        }
        return true;
    }
    if (d->framework == RIFFA) {
        if (!d->riffaDevice->IsOpen()) {
            SetErrorText("no RIFFA device is open");
            return false;
        }
        value = d->riffaDevice->ReadReg(address);
        return true;
    }
    return false;
}

int PCIeDataManager::WriteReg(unsigned int address, int value) {
    ClearErrorText();
    if (d->framework == XDMA_MM) {
        if (!XdmaCardOpen(d)) {
            return 0;
        }
        const auto word = static_cast<unsigned>(value);
        const int result = d->card->XdmaWriteReg(address, &word);
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
    return XdmaCardOpen(d) &&
           TransferDone(d->card->XdmaReadData(address, size, buffer), "reading", address, size);
}

bool PCIeDataManager::WriteData(unsigned int address, unsigned int size, unsigned char* buffer) {
    ClearErrorText();
    if (buffer == nullptr) {
        SetErrorText("buffer is null");
        return false;
    }
    return XdmaCardOpen(d) &&
           TransferDone(d->card->XdmaWriteData(address, size, buffer), "writing", address, size);
}

