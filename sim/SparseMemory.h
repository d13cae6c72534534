// The simulated card's memory: a large address space whose pages are committed on first write.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace kvpcie::sim {

// Reads of pages never written give zeros. Any thread may read and write; pages are committed
// lock-free, and two threads touching the same bytes must order themselves (the card's buffer
// status words do that for frames).
class SparseMemory {
public:
    explicit SparseMemory(std::uint64_t size);
    ~SparseMemory();
    SparseMemory(const SparseMemory&) = delete;
    SparseMemory& operator=(const SparseMemory&) = delete;

    std::uint64_t Size() const { return size_; }

    // Both move what lies inside the address space and return how many bytes that was.
    std::size_t Read(std::uint64_t address, void* buffer, std::size_t size) const;
    std::size_t Write(std::uint64_t address, const void* buffer, std::size_t size);

    std::size_t CommittedPages() const;

private:
    static constexpr std::size_t kPageBytes = std::size_t{1} << 20;

    std::size_t Clamp(std::uint64_t address, std::size_t size) const;
    template <typename Visit>
    std::size_t ForEachPiece(std::uint64_t address, std::size_t total, Visit visit) const;
    std::uint8_t* CommitPage(std::size_t page);

    const std::uint64_t size_;
    const std::size_t pageCount_;
    std::unique_ptr<std::atomic<std::uint8_t*>[]> pages_;
};

}  // namespace kvpcie::sim
