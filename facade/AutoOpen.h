// Opening the first XDMA card when a start finds none open.
#pragma once

class PCIeDataManager;

// True when a card is open afterwards: already, or the first listed card opened through
// `manager.OpenCard`, which creates the engines. False with the reason as the error text.
bool OpenFirstXdmaCardIfNone(PCIeDataManager& manager);
