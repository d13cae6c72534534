// Which manager holds which XDMA card. Every manager opens a card object of its own, and two
// objects open on one card would restart it under each other's channels. So while a manager
// (or a copy of it) has a channel capturing or injecting on its card, another manager that
// opens that card is refused; a card that another manager holds idle is taken over (that
// manager's card object closes, and its calls fail from then on instead of reaching a card
// that it no longer holds).
#pragma once

#include <mutex>

struct PCIeDataManagerPrivate;

namespace kvpcie {

// Held from the check of who holds a card to the end of its open, so that two managers that
// open one card at once cannot both pass the check.
std::unique_lock<std::mutex> LockCardOpening();
// True when another manager's record has the card at `path` open with a channel running.
bool IsCardHeldByAnother(PCIeDataManagerPrivate* record, const char* path);
// The same, with the reason as the thread's error text.
bool CardHeldByAnother(PCIeDataManagerPrivate* record, const char* path, const char* operation);
// Closes the card objects of the other managers that have the card at `path` open.
void TakeOverCard(PCIeDataManagerPrivate* record, const char* path);

}  // namespace kvpcie
