// Lazily committed card memory.
#include "SparseMemory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace kvpcie::sim {

SparseMemory::SparseMemory(std::uint64_t size)
    : size_(size),
      pageCount_(static_cast<std::size_t>((size + kPageBytes - 1) / kPageBytes)),
      pages_(new std::atomic<std::uint8_t*>[pageCount_]) {
    for (std::size_t i = 0; i < pageCount_; ++i) {
        pages_[i].store(nullptr, std::memory_order_relaxed);
    }
}

SparseMemory::~SparseMemory() {
    for (std::size_t i = 0; i < pageCount_; ++i) {
        std::free(pages_[i].load(std::memory_order_relaxed));
    }
}

std::size_t SparseMemory::Clamp(std::uint64_t address, std::size_t size) const {
    if (address >= size_) {
        return 0;
    }
    return static_cast<std::size_t>(std::min<std::uint64_t>(size, size_ - address));
}

std::uint8_t* SparseMemory::CommitPage(std::size_t page) {
    std::uint8_t* existing = pages_[page].load(std::memory_order_acquire);
    if (existing != nullptr) {
        return existing;
    }
    // calloc leaves the zero pages to the OS, so committing a page costs no memset.
    auto* fresh = static_cast<std::uint8_t*>(std::calloc(1, kPageBytes));
    if (fresh == nullptr) {
        return nullptr;
    }
    if (!pages_[page].compare_exchange_strong(existing, fresh, std::memory_order_acq_rel)) {
        std::free(fresh);  // another writer committed it first
        return existing;
    }
    return fresh;
}

std::size_t SparseMemory::Read(std::uint64_t address, void* buffer, std::size_t size) const {
    const std::size_t total = Clamp(address, size);
    auto* out = static_cast<std::uint8_t*>(buffer);
    std::size_t done = 0;
    while (done < total) {
        const std::uint64_t at = address + done;
        const std::size_t page = static_cast<std::size_t>(at / kPageBytes);
        const std::size_t offset = static_cast<std::size_t>(at % kPageBytes);
        const std::size_t piece = std::min(total - done, kPageBytes - offset);
        const std::uint8_t* data = pages_[page].load(std::memory_order_acquire);
        if (data != nullptr) {
            std::memcpy(out + done, data + offset, piece);
        } else {
            std::memset(out + done, 0, piece);
        }
        done += piece;
    }
    return total;
}

std::size_t SparseMemory::Write(std::uint64_t address, const void* buffer, std::size_t size) {
    const std::size_t total = Clamp(address, size);
    const auto* in = static_cast<const std::uint8_t*>(buffer);
    std::size_t done = 0;
    while (done < total) {
        const std::uint64_t at = address + done;
        const std::size_t page = static_cast<std::size_t>(at / kPageBytes);
        const std::size_t offset = static_cast<std::size_t>(at % kPageBytes);
        const std::size_t piece = std::min(total - done, kPageBytes - offset);
        std::uint8_t* data = CommitPage(page);
        if (data == nullptr) {
            return done;  // out of host memory: a short write, as a failing card would give
        }
        std::memcpy(data + offset, in + done, piece);
        done += piece;
    }
    return total;
}

std::size_t SparseMemory::CommittedPages() const {
    std::size_t count = 0;
    for (std::size_t i = 0; i < pageCount_; ++i) {
        if (pages_[i].load(std::memory_order_relaxed) != nullptr) {
            ++count;
        }
    }
    return count;
}

}  // namespace kvpcie::sim
