// Opening and closing the XDMA card and its engines: OpenCard, CloseCard and the automatic
// open of StartCapture and StartInject all come here.
#pragma once

struct PCIeDataManagerPrivate;

namespace kvpcie {

// Closes the card that `d` holds and opens `devicePath` (nullptr: no card, engines only), then
// replaces the engines. Refused inside a callback and while another manager has channels
// running on that card; one that holds it idle loses it.
bool OpenXdmaCard(PCIeDataManagerPrivate* d, char* devicePath);
// Closes `d`'s card, then destroys `d`'s engines. Other managers' cards stay as they are.
void CloseXdmaCard(PCIeDataManagerPrivate* d);
// True when `d` has a card open afterwards: already, or the first listed card opened. False
// with the reason as the error text (`operation` names the call that was refused).
bool OpenFirstXdmaCardIfNone(PCIeDataManagerPrivate* d, const char* operation);
// False, with a text that says so, when `d`'s card was found gone.
bool CardIsThere(PCIeDataManagerPrivate* d);

}  // namespace kvpcie
