// The event files: /dev/xdmaN_events_E, whose read waits for user event E and answers the
// 32-bit value 1, and the Windows driver model's /wine/xdmaN_event_E, whose read answers one
// byte and gives up after its offset in ms.
#pragma once

#include "ModelNodes.h"
#include "NodeHandler.h"
#include "PendingEventReads.h"
#include "PollWaiters.h"

namespace kvpcie::simd {

class EventNode final : public CardFileNode {
public:
    // `node` is an Events or WineEvent node; the others must outlive this object.
    EventNode(std::shared_ptr<sim::SimXdmaCard> card, const Node& node,
              const CardPresence& presence, PendingEventReads& reads, PollWaiters& pollers)
        : CardFileNode(std::move(card)),
          node_(node),
          presence_(presence),
          reads_(reads),
          pollers_(pollers) {}

    // Refused at once, or left to wait in PendingEventReads.
    bool TakeRead(fuse_req* request, std::size_t size, std::int64_t offset) override;
    unsigned Poll(fuse_pollhandle* handle) override;
    void Release() override;

private:
    const Node node_;
    const CardPresence& presence_;
    PendingEventReads& reads_;
    PollWaiters& pollers_;
};

}  // namespace kvpcie::simd
