// The reads of event nodes that wait for the card: kept here, not on a serving thread, and
// answered from a thread of their own once the event is raised, the card fails or goes, or the
// client is interrupted.
#pragma once

#include "ModelNodes.h"

#include <chrono>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
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
    using Clock = std::chrono::steady_clock;

    // How a read is answered: as the Linux driver does (the 32-bit value 1, no time limit), or
    // as the Windows driver does (the byte 1, or the byte 0 once `giveUpAt` has passed).
    struct Answer {
        bool oneByte = false;
        std::optional<Clock::time_point> giveUpAt;
    };

    // Takes over `request`, a read of event `event` of card `cardNumber`: it is answered as
    // `answer` says once the event is raised (at once if it is pending), EIO when the card
    // fails, ENODEV when it leaves the bus, EINTR when the client is interrupted or killed. Any
    // serving thread; never blocks on the card. The card's event timeout must be zero, so that
    // its wait only takes an event already raised.
    void Add(fuse_req* request, std::shared_ptr<sim::SimXdmaCard> card, int cardNumber, int event,
             Answer answer);
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
        Answer answer;
    };

    static void Interrupted(fuse_req* request, void* self);
    static void AnswerAll(std::list<Read>& reads, int error);
    void Run();
    void AnswerDue();
    void AnswerGivenUp();
    std::optional<Clock::time_point> EarliestGiveUp();
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
