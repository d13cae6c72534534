// The frame ring.
#include "KvCycleQueue.h"

#include <cstdint>
#include <cstring>

#ifdef _WIN32
#include <malloc.h>
#endif

namespace kvpcie {
namespace {
constexpr int kDefaultCapacity = 16;
constexpr std::int64_t kPageBytes = 4096;
// Slack behind the last slot, kept from the card's original ring layout; never written.
constexpr std::int64_t kSlackBytes = 4096;
// Slots start on a page: with a frame size that is a multiple of the page, a recorder can hand
// a slot straight to a write that bypasses the page cache.
char* AllocatePages(std::size_t bytes) {
#ifdef _WIN32
    return static_cast<char*>(_aligned_malloc(bytes, kPageBytes));
#else
    void* block = nullptr;
    return posix_memalign(&block, kPageBytes, bytes) == 0 ? static_cast<char*>(block) : nullptr;
#endif
}

}  // namespace

void KvCycleQueue::FreeDeleter::operator()(char* block) const {
#ifdef _WIN32
    _aligned_free(block);
#else
    std::free(block);
#endif
}

KvCycleQueue::~KvCycleQueue() {
    Release();
}

bool KvCycleQueue::Init(int elementSize, int count) {
    Release();
    std::lock_guard<std::mutex> locker(lock_);
    if (elementSize <= 0) {
        return false;
    }
    const int capacity = count >= 1 ? count : kDefaultCapacity;
    const std::int64_t bytes = std::int64_t{capacity} * elementSize + kSlackBytes;
    if (bytes > INT32_MAX) {
        return false;  // the ring is addressed with 32-bit offsets: refuse rather than wrap
    }
    char* block = AllocatePages(static_cast<std::size_t>(bytes));
    if (block == nullptr) {
        return false;
    }
    std::memset(block, 0, static_cast<std::size_t>(bytes));
    // Touch every page now, at channel setup, so that the first pass over the ring does not
    // take a page fault per 4 KiB inside the frame path. The memset alone may not do it: a
    // compiler may turn allocation + memset into calloc, whose fresh pages are mapped only on
    // first use.
    volatile char* const pages = block;
    for (std::int64_t offset = 0; offset < bytes; offset += kPageBytes) {
        pages[offset] = 0;
    }
    buffer_.reset(block);
    elementSize_ = elementSize;
    capacity_ = capacity;
    head_ = 0;
    tail_ = 0;
    return true;
}

bool KvCycleQueue::Push(const char* data, int size, int& full) {
    std::lock_guard<std::mutex> locker(lock_);
    if (data == nullptr || size != elementSize_ || buffer_ == nullptr) {
        return false;
    }
    full = 0;
    const int next = (tail_ + 1) % capacity_;
    if (next == head_) {
        full = 1;
        return false;
    }
    std::memcpy(buffer_.get() + std::int64_t{tail_} * elementSize_, data,
                static_cast<std::size_t>(size));
    tail_ = next;
    return true;
}

char* KvCycleQueue::PopPtr() {
    std::lock_guard<std::mutex> locker(lock_);
    if (buffer_ == nullptr || head_ == tail_) {
        return nullptr;
    }
    char* slot = buffer_.get() + std::int64_t{head_} * elementSize_;
    head_ = (head_ + 1) % capacity_;
    return slot;
}

int KvCycleQueue::SizeLocked() const {
    if (tail_ >= head_) {
        return tail_ - head_;
    }
    return capacity_ + tail_ - head_;
}

int KvCycleQueue::Size() {
    std::lock_guard<std::mutex> locker(lock_);
    return SizeLocked();
}

bool KvCycleQueue::IsEmpty() {
    return Size() == 0;
}

void KvCycleQueue::Reset() {
    std::lock_guard<std::mutex> locker(lock_);
    head_ = 0;
    tail_ = 0;
}

void KvCycleQueue::Release() {
    std::lock_guard<std::mutex> locker(lock_);
    buffer_.reset();
    head_ = 0;
    tail_ = 0;
}

}  // namespace kvpcie
