// The simulated cards of kvpcie-simd and the FUSE operations that serve them as the Linux XDMA
// driver's device files and sysfs's PCI entries.
#pragma once

#include "ModelNodes.h"
#include "PollWaiters.h"

#include "sim/SimXdmaCard.h"

#include <atomic>
#include <memory>
#include <vector>

struct fuse_operations;

namespace kvpcie::simd {

class ModelFileSystem final : public CardPresence {
public:
    explicit ModelFileSystem(int cardCount);
    ~ModelFileSystem() override;
    ModelFileSystem(const ModelFileSystem&) = delete;
    ModelFileSystem& operator=(const ModelFileSystem&) = delete;

    int CardCount() const override { return static_cast<int>(cards_.size()); }
    bool IsPresent(int card) const override;

    // The operations, whose private data must be this object.
    static const fuse_operations& Operations();

    // Starts the notifier of poll() callers. Called once the process has its final form (after
    // detaching), since a fork keeps no thread.
    void Start() { pollWaiters_.Start(); }

    // The sysfs actions: the card leaves the bus (its files vanish, open ones fail), and every
    // card that left comes back restarted.
    void RemoveCard(int card);
    void Rescan();

    // One open file.
    struct OpenFile {
        Node node;
        std::shared_ptr<sim::SimXdmaCard> card;  // null for the bus's rescan
        bool countsAsOpen = false;               // a device file, not a sysfs attribute
    };

    // The operations' bodies; they return what FUSE expects (bytes, 0, or -errno).
    int Read(OpenFile& file, char* buffer, std::size_t size, std::int64_t offset);
    int Write(OpenFile& file, const char* buffer, std::size_t size, std::int64_t offset);
    unsigned Poll(OpenFile& file, struct fuse_pollhandle* handle);
    void Release(OpenFile& file);
    std::shared_ptr<sim::SimXdmaCard> Card(int card) const;

private:
    int ReadEvent(OpenFile& file, char* buffer, std::size_t size);

    std::vector<std::shared_ptr<sim::SimXdmaCard>> cards_;
    std::unique_ptr<std::atomic<bool>[]> present_;
    PollWaiters pollWaiters_;
};

}  // namespace kvpcie::simd
