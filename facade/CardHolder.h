// Which manager holds the process's XDMA card. The device layer has one open card per process;
// a second manager that opened, closed or started channels on it while the first one's channels
// run would switch them off or close their card. So while the manager that opened the card (or
// a copy of it) has a channel capturing or injecting, the card is its own.
#pragma once

struct PCIeDataManagerPrivate;

namespace kvpcie {

// True when the card is open and another manager's record holds it with a channel running.
bool IsCardHeldByAnother(PCIeDataManagerPrivate* record);
// The same, with the reason as the thread's error text.
bool CardHeldByAnother(PCIeDataManagerPrivate* record, const char* operation);
// `record` now holds the card; nullptr: nobody does.
void SetCardHolder(PCIeDataManagerPrivate* record);

}  // namespace kvpcie
