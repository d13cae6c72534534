// Opening and closing the XDMA card and its engines: OpenCard, CloseCard and the automatic
// open of StartCapture and StartInject all come here.
#pragma once

struct PCIeDataManagerPrivate;

namespace kvpcie {

// Closes the card that `d` holds and opens `devicePath` (nullptr: no card, engines only), then
// replaces the engines. Refused inside a callback and while another manager holds the card.
bool OpenXdmaCard(PCIeDataManagerPrivate* d, char* devicePath);
// Closes the card unless another manager holds it, then destroys `d`'s engines.
void CloseXdmaCard(PCIeDataManagerPrivate* d);
// True when a card is open afterwards: already, or the first listed card opened. False with
// the reason as the error text.
bool OpenFirstXdmaCardIfNone(PCIeDataManagerPrivate* d);

}  // namespace kvpcie
