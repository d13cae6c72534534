// A fixed ring of equal-sized frame slots for handing frames from one thread to another.
#pragma once

#include <cstdlib>
#include <memory>
#include <mutex>

namespace kvpcie {

// One producer copies frames in with Push; one consumer takes them out with PopPtr as pointers
// into the ring, without a copy. A full ring refuses the new frame; nothing older is dropped.
// A ring of n slots holds n - 1 frames, and the slot that the last PopPtr returned is not
// written again before the next PopPtr, so the consumer may read it until then.
// Every operation locks the queue and may be called from any thread.
class KvCycleQueue {
public:
    KvCycleQueue() = default;
    virtual ~KvCycleQueue();
    KvCycleQueue(const KvCycleQueue&) = delete;
    KvCycleQueue& operator=(const KvCycleQueue&) = delete;

    // Allocates count slots (16 when count < 1) of elementSize bytes, all zero. Refuses, leaving
    // the queue without a buffer, an elementSize <= 0, a ring of 2 GiB or more, and memory that
    // cannot be had.
    bool Init(int elementSize, int count);

    // Copies exactly elementSize bytes in. False when the size differs or data is null (full
    // untouched), or when the queue is full (full = 1, nothing stored).
    bool Push(const char* data, int size, int& full);

    // The oldest frame, or null when empty; valid until the next PopPtr.
    char* PopPtr();

    int Size();
    bool IsEmpty();
    // Empties the queue; memory stays.
    void Reset();
    void Release();

private:
    int SizeLocked() const;

    struct FreeDeleter {
        void operator()(char* block) const;
    };

    int elementSize_ = 0;
    int capacity_ = 0;
    std::unique_ptr<char[], FreeDeleter> buffer_;
    int head_ = 0;
    int tail_ = 0;
    // A standard mutex rather than QMutex: same behaviour, and ThreadSanitizer sees it (Qt's
    // library is not instrumented, so its unlocks would look like no synchronisation at all).
    std::mutex lock_;
};

}  // namespace kvpcie
