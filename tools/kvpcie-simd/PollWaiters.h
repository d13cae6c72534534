// The poll() callers that wait on the event nodes: FUSE hands each one over as a poll handle,
// which must be notified once the event arrives. The card raises events on its own thread with
// its lock held, so the notification is done here, on a thread of our own.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

struct fuse_pollhandle;

namespace kvpcie::simd {

class PollWaiters {
public:
    PollWaiters() = default;
    // Joins the notifier; handles still kept are released without a notification.
    ~PollWaiters();
    PollWaiters(const PollWaiters&) = delete;
    PollWaiters& operator=(const PollWaiters&) = delete;

    // Starts the notifier thread; once.
    void Start();
    // Ends the notifier thread, before the session that it notifies goes; for good.
    void Stop();
    // Keeps `handle` for the file `owner`, which waits on (card, event); a handle that the
    // same file left before is released. Any thread.
    void Keep(const void* owner, int card, int event, fuse_pollhandle* handle);
    // Releases the handle of a file that is closed. Any thread.
    void Forget(const void* owner);
    // From the card's event observer: wake the waiters of (card, event), or of every event of
    // the card when event is -1. Never blocks.
    void EventRaised(int card, int event);

private:
    struct Waiter {
        int card;
        int event;
        fuse_pollhandle* handle;
    };
    void Run();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::map<const void*, Waiter> waiters_;
    std::vector<std::uint32_t> raised_;  // per card, a bit per event
    bool stop_ = false;
    std::thread notifier_;
};

}  // namespace kvpcie::simd
