// Captured frames into one raw file.
#include "FrameFileWriter.h"

#include "Commands.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kvpcie::cli {
namespace {

// Enough slots to ride out a slow write of a few frames, and never more than 256 MiB of them.
constexpr std::size_t kMostSlots = 32;
constexpr std::size_t kSlotBytesBudget = std::size_t{256} << 20;

std::size_t SlotCount(std::size_t frameBytes) {
    return std::clamp<std::size_t>(kSlotBytesBudget / std::max<std::size_t>(frameBytes, 1), 2,
                                   kMostSlots);
}

}  // namespace

FrameFileWriter::FrameFileWriter(const std::string& path, std::size_t frameBytes,
                                 std::uint64_t frameLimit)
    : frameBytes_(frameBytes),
      frameLimit_(frameLimit),
      slotCount_(SlotCount(frameBytes)),
      slots_(slotCount_ * frameBytes) {
    file_ = std::fopen(path.c_str(), "wb");
    if (file_ == nullptr) {
        throw RuntimeError{"cannot write " + path + ": " + std::strerror(errno)};
    }
    writer_ = std::thread([this] { WriteLoop(); });
}

FrameFileWriter::~FrameFileWriter() {
    Finish();
}

void FrameFileWriter::Offer(const char* frame) {
    if (finishing_.load(std::memory_order_acquire) ||
        taken_.load(std::memory_order_relaxed) >= frameLimit_) {
        return;
    }
    const std::uint64_t head = head_.load(std::memory_order_relaxed);
    if (head - tail_.load(std::memory_order_acquire) >= slotCount_) {
        lost_.fetch_add(1, std::memory_order_release);
    } else {
        std::memcpy(&slots_[(head % slotCount_) * frameBytes_], frame, frameBytes_);
        head_.store(head + 1, std::memory_order_release);
        std::lock_guard<std::mutex> lock(wakeLock_);
        wake_.notify_one();
    }
    taken_.fetch_add(1, std::memory_order_release);
}

void FrameFileWriter::Finish() {
    {
        std::lock_guard<std::mutex> lock(wakeLock_);
        finishing_.store(true, std::memory_order_release);
        wake_.notify_one();
    }
    if (writer_.joinable()) {
        writer_.join();
    }
    if (file_ != nullptr) {
        if (std::fclose(file_) != 0) {
            std::lock_guard<std::mutex> lock(errorLock_);
            if (error_.empty()) {
                error_ = std::strerror(errno);
            }
        }
        file_ = nullptr;
    }
}

std::string FrameFileWriter::Error() {
    std::lock_guard<std::mutex> lock(errorLock_);
    return error_;
}

void FrameFileWriter::WriteLoop() {
    for (;;) {
        const std::uint64_t tail = tail_.load(std::memory_order_relaxed);
        if (tail == head_.load(std::memory_order_acquire)) {
            std::unique_lock<std::mutex> lock(wakeLock_);
            if (finishing_.load(std::memory_order_acquire) &&
                tail == head_.load(std::memory_order_acquire)) {
                return;
            }
            wake_.wait(lock, [&] {
                return finishing_.load(std::memory_order_acquire) ||
                       tail != head_.load(std::memory_order_acquire);
            });
            continue;
        }
        const char* slot = &slots_[(tail % slotCount_) * frameBytes_];
        if (std::fwrite(slot, 1, frameBytes_, file_) == frameBytes_) {
            written_.fetch_add(1, std::memory_order_release);
        } else {
            lost_.fetch_add(1, std::memory_order_release);
            std::lock_guard<std::mutex> lock(errorLock_);
            if (error_.empty()) {
                error_ = std::strerror(errno);
            }
        }
        tail_.store(tail + 1, std::memory_order_release);
    }
}

}  // namespace kvpcie::cli
