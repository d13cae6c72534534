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

// Walks [address, address + total) page by page; `visit` (page, offset in page, bytes done,
// piece) returns false to stop early. Returns the bytes visited.
template <typename Visit>
std::size_t SparseMemory::ForEachPiece(std::uint64_t address, std::size_t total,
                                       Visit visit) const {
    std::size_t done = 0;
    while (done < total) {
        const std::uint64_t at = address + done;
        const auto page = static_cast<std::size_t>(at / kPageBytes);
        const auto offset = static_cast<std::size_t>(at % kPageBytes);
        const std::size_t piece = std::min(total - done, kPageBytes - offset);
        if (!visit(page, offset, done, piece)) {
            break;
        }
        done += piece;
    }
    return done;
}

std::size_t SparseMemory::Read(std::uint64_t address, void* buffer, std::size_t size) const {
    auto* out = static_cast<std::uint8_t*>(buffer);
    return ForEachPiece(
        address, Clamp(address, size),
        [&](std::size_t page, std::size_t offset, std::size_t done, std::size_t piece) {
            const std::uint8_t* data = pages_[page].load(std::memory_order_acquire);
            if (data != nullptr) {
                std::memcpy(out + done, data + offset, piece);
            } else {
                std::memset(out + done, 0, piece);
            }
            return true;
        });
}

std::size_t SparseMemory::Write(std::uint64_t address, const void* buffer, std::size_t size) {
    const auto* in = static_cast<const std::uint8_t*>(buffer);
    // Out of host memory ends the write short, as a failing card would.
    return ForEachPiece(
        address, Clamp(address, size),
        [&](std::size_t page, std::size_t offset, std::size_t done, std::size_t piece) {
            std::uint8_t* data = CommitPage(page);
            if (data != nullptr) {
                std::memcpy(data + offset, in + done, piece);
            }
            return data != nullptr;
        });
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
