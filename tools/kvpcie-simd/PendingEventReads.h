// The reads of event nodes that wait for the card: kept here, not on a serving thread, and
// answered from a thread of their own once the event is raised, the card fails or goes, or the
// client is interrupted.
#pragma once

#include "ModelNodes.h"

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

struct fuse_req;

namespace kvpcie::sim {
class SimXdmaCard;
}

namespace kvpcie::simd {

class PendingEventReads {
public:
    // `presence` tells whether a card is still on the bus; it must outlive this object.
    explicit PendingEventReads(const CardPresence& presence) : presence_(presence) {}
    // Stops the thread; reads still waiting get no answer (see Stop).
    ~PendingEventReads();
    PendingEventReads(const PendingEventReads&) = delete;
    PendingEventReads& operator=(const PendingEventReads&) = delete;

    // Starts the answering thread; once.
    void Start();
    // Takes over `request`, a read of event `event` of card `cardNumber`: it is answered with
    // the value 1 once the event is raised (at once if it is pending), EIO when the card fails,
    // ENODEV when it leaves the bus, EINTR when the client is interrupted or killed. Any
    // serving thread; never blocks on the card. The card's event timeout must be zero, so that
    // its wait only takes an event already raised.
    void Add(fuse_req* request, std::shared_ptr<sim::SimXdmaCard> card, int cardNumber, int event);
    // From the card's event observer, with the card's lock held: look again. Never blocks on
    // the card.
    void Wake();
    // Ends the thread and lets go of the reads still waiting without an answer: the unmount
    // that follows ends them, as it ends every request the server has not answered. Call
    // while the session still exists, after its loop has ended.
    void Stop();

private:
    struct Read {
        fuse_req* request;
        std::shared_ptr<sim::SimXdmaCard> card;
        int cardNumber;
        int event;
    };

    static void Interrupted(fuse_req* request, void* self);
    static void AnswerAll(std::list<Read>& reads, int error);
    void Run();
    void AnswerDue();
    void AnswerRaisedEvent(sim::SimXdmaCard& card, int cardNumber, int event);
    std::shared_ptr<sim::SimXdmaCard> CardWaitedOn(int cardNumber);
    // Reads leave the list to be answered outside the lock; a read out of it is answered by
    // whoever took it, and an interruption no longer finds it.
    std::list<Read> TakeOldest(int cardNumber, int event);
    std::list<Read> TakeAll(int cardNumber);
    // Returns a taken read that found no event to take, unless it was interrupted meanwhile.
    void PutBack(std::list<Read>& taken);

    const CardPresence& presence_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::list<Read> reads_;  // oldest first: a raised event goes to the longest waiter
    bool lookAgain_ = false;
    bool stopping_ = false;
    std::thread answerer_;
};

}  // namespace kvpcie::simd
