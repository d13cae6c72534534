// The event files: reads that wait for a user event, and poll() on them.
#define FUSE_USE_VERSION 312
#include "EventNode.h"

#include "NodeSizes.h"

#include <fuse_lowlevel.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace kvpcie::simd {

bool EventNode::TakeRead(fuse_req_t request, std::size_t size, std::int64_t offset) {
    const bool wine = node_.kind == NodeKind::WineEvent;
    if (!presence_.IsPresent(node_.card)) {
        fuse_reply_err(request, ENODEV);
    } else if (size < (wine ? 1u : 4u)) {
        fuse_reply_err(request, EINVAL);
    } else if (!wine) {
        reads_.Add(request, card_, node_.card, node_.event, PendingEventReads::Answer{});
    } else {
        PendingEventReads::Answer answer;
        answer.oneByte = true;
        answer.giveUpAt =
            PendingEventReads::Clock::now() +
            std::chrono::milliseconds(std::clamp<std::int64_t>(offset, 0, kLongestWineEventWaitMs));
        reads_.Add(request, card_, node_.card, node_.event, answer);
    }
    return true;
}

unsigned EventNode::Poll(fuse_pollhandle* handle) {
    // Kept before the test, so that an event raised in between still notifies the handle.
    if (handle != nullptr) {
        pollers_.Keep(this, node_.card, node_.event, handle);
    }
    if (!presence_.IsPresent(node_.card) || card_->IsRemoved()) {
        return POLLERR | POLLHUP;
    }
    return card_->IsUserEventPending(node_.event) ? POLLIN | POLLRDNORM : 0;
}

void EventNode::Release() {
    pollers_.Forget(this);
    CardFileNode::Release();
}

}  // namespace kvpcie::simd
