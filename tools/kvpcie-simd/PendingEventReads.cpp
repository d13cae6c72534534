// Answering event reads later, from the card's notifications, as FUSE's low-level interface allows.
#define FUSE_USE_VERSION 312
#include "PendingEventReads.h"

#include "sim/SimCardRegisters.h"
#include "sim/SimXdmaCard.h"

#include <fuse_lowlevel.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <iterator>

namespace kvpcie::simd {
namespace {

const std::atomic<bool> kNeverCancelled{false};

// Interrupts since the last read merge into one.
void AnswerRaised(fuse_req* request, bool oneByte) {
    const std::uint32_t one = 1;
    fuse_reply_buf(request, reinterpret_cast<const char*>(&one), oneByte ? 1 : sizeof one);
}

}  // namespace

void PendingEventReads::AnswerAll(std::list<Read>& reads, int error) {
    for (const Read& read : reads) {
        fuse_reply_err(read.request, error);
    }
    reads.clear();
}

PendingEventReads::~PendingEventReads() {
    Stop();
}

void PendingEventReads::Start() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!answerer_.joinable() && !stopping_) {
        answerer_ = std::thread([this] { Run(); });
    }
}

void PendingEventReads::Add(fuse_req* request, std::shared_ptr<sim::SimXdmaCard> card,
                            int cardNumber, int event, Answer answer) {
    // Registered before the read is visible to the answerer, so that nothing answers it while
    // FUSE may still call Interrupted from in here; that call then finds nothing, and the
    // check below sees the interruption instead.
    fuse_req_interrupt_func(request, &PendingEventReads::Interrupted, this);
    int refusal = EINTR;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!stopping_ && fuse_req_interrupted(request) == 0) {
            try {
                reads_.push_back(Read{request, std::move(card), cardNumber, event, answer});
                lookAgain_ = true;
                refusal = 0;
            } catch (...) {
                refusal = ENOMEM;
            }
        }
    }
    if (refusal == 0) {
        wake_.notify_one();
    } else {
        fuse_reply_err(request, refusal);
    }
}

void PendingEventReads::Wake() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lookAgain_ = true;
    }
    wake_.notify_one();
}

void PendingEventReads::Stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    if (answerer_.joinable()) {
        answerer_.join();
    }
    std::list<Read> left;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        left.splice(left.end(), reads_);
    }
    for (const Read& read : left) {
        fuse_reply_none(read.request);  // frees it; the kernel's request waits for the unmount
    }
}

// A serving thread calls this when the kernel interrupts the request (a signal, or the client
// killed); FUSE keeps the request alive for the call, so answering it here is safe.
void PendingEventReads::Interrupted(fuse_req* request, void* self) {
    auto& pending = *static_cast<PendingEventReads*>(self);
    bool found = false;
    {
        std::lock_guard<std::mutex> lock(pending.mutex_);
        for (auto at = pending.reads_.begin(); at != pending.reads_.end(); ++at) {
            if (at->request == request) {
                pending.reads_.erase(at);
                found = true;
                break;
            }
        }
    }
    if (found) {
        fuse_reply_err(request, EINTR);
    }
}

void PendingEventReads::Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        const auto due = [this] { return stopping_ || lookAgain_; };
        lock.unlock();
        const std::optional<Clock::time_point> giveUpAt = EarliestGiveUp();
        lock.lock();
        if (giveUpAt) {
            wake_.wait_until(lock, *giveUpAt, due);
        } else {
            wake_.wait(lock, due);
        }
        if (stopping_) {
            return;
        }
        lookAgain_ = false;
        lock.unlock();
        AnswerDue();
        AnswerGivenUp();
        lock.lock();
    }
}

std::optional<PendingEventReads::Clock::time_point> PendingEventReads::EarliestGiveUp() {
    std::optional<Clock::time_point> earliest;
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Read& read : reads_) {
        if (read.answer.giveUpAt && (!earliest || *read.answer.giveUpAt < *earliest)) {
            earliest = read.answer.giveUpAt;
        }
    }
    return earliest;
}

// Reads whose time has passed get the byte 0, as the Windows driver answers a wait that ended
// without the event.
void PendingEventReads::AnswerGivenUp() {
    std::list<Read> givenUp;
    {
        const Clock::time_point now = Clock::now();
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto at = reads_.begin(); at != reads_.end();) {
            const auto next = std::next(at);
            if (at->answer.giveUpAt && *at->answer.giveUpAt <= now) {
                givenUp.splice(givenUp.end(), reads_, at);
            }
            at = next;
        }
    }
    for (const Read& read : givenUp) {
        const char zero = 0;
        fuse_reply_buf(read.request, &zero, 1);
    }
}

// The card is called without our lock: its observer takes our lock with the card's held.
void PendingEventReads::AnswerDue() {
    for (int cardNumber = 0; cardNumber < presence_.CardCount(); ++cardNumber) {
        const std::shared_ptr<sim::SimXdmaCard> card = CardWaitedOn(cardNumber);
        if (!card) {
            continue;
        }
        if (card->IsRemoved()) {
            std::list<Read> failed = TakeAll(cardNumber);
            AnswerAll(failed, EIO);
            continue;
        }
        for (int event = 0; event < sim::kUserEventCount; ++event) {
            AnswerRaisedEvent(*card, cardNumber, event);
        }
        if (!presence_.IsPresent(cardNumber)) {
            std::list<Read> gone = TakeAll(cardNumber);
            AnswerAll(gone, ENODEV);
        }
    }
}

void PendingEventReads::AnswerRaisedEvent(sim::SimXdmaCard& card, int cardNumber, int event) {
    while (card.IsUserEventPending(event)) {
        std::list<Read> taken = TakeOldest(cardNumber, event);
        if (taken.empty()) {
            return;
        }
        // With no time to wait, the card's wait only takes the event that is pending.
        switch (card.WaitUserEvent(event, kNeverCancelled)) {
            case sim::SimXdmaCard::EventWait::Raised:
                AnswerRaised(taken.front().request, taken.front().answer.oneByte);
                break;
            case sim::SimXdmaCard::EventWait::Failed:
                AnswerAll(taken, EIO);
                return;
            case sim::SimXdmaCard::EventWait::TimedOut:
                PutBack(taken);
                return;
        }
    }
}

std::shared_ptr<sim::SimXdmaCard> PendingEventReads::CardWaitedOn(int cardNumber) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Read& read : reads_) {
        if (read.cardNumber == cardNumber) {
            return read.card;
        }
    }
    return nullptr;
}

std::list<PendingEventReads::Read> PendingEventReads::TakeOldest(int cardNumber, int event) {
    std::list<Read> taken;
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto at = reads_.begin(); at != reads_.end(); ++at) {
        if (at->cardNumber == cardNumber && at->event == event) {
            taken.splice(taken.end(), reads_, at);
            break;
        }
    }
    return taken;
}

std::list<PendingEventReads::Read> PendingEventReads::TakeAll(int cardNumber) {
    std::list<Read> taken;
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto at = reads_.begin(); at != reads_.end();) {
        const auto next = std::next(at);
        if (at->cardNumber == cardNumber) {
            taken.splice(taken.end(), reads_, at);
        }
        at = next;
    }
    return taken;
}

void PendingEventReads::PutBack(std::list<Read>& taken) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        // While it was taken, an interruption found nothing to answer: it is seen here instead.
        if (fuse_req_interrupted(taken.front().request) == 0) {
            reads_.splice(reads_.begin(), taken);
            return;
        }
    }
    AnswerAll(taken, EINTR);
}

}  // namespace kvpcie::simd
