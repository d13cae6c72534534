// The simulated cards of kvpcie-simd and the FUSE operations that serve them as the Linux XDMA
// driver's device files and sysfs's PCI entries.
#pragma once

#include "InodeTable.h"
#include "ModelNodes.h"
#include "PendingEventReads.h"
#include "PollWaiters.h"
#include "RiffaExchange.h"

#include "sim/SimRiffaDevice.h"
#include "sim/SimXdmaCard.h"

#include <atomic>
#include <memory>
#include <vector>

struct fuse_lowlevel_ops;
struct fuse_req;

namespace kvpcie::simd {

class ModelFileSystem final : public CardPresence {
public:
    explicit ModelFileSystem(int cardCount);
    ~ModelFileSystem() override;
    ModelFileSystem(const ModelFileSystem&) = delete;
    ModelFileSystem& operator=(const ModelFileSystem&) = delete;

    int CardCount() const override { return static_cast<int>(cards_.size()); }
    bool IsPresent(int card) const override;

    // The operations, whose user data must be this object.
    static const fuse_lowlevel_ops& Operations();

    // Starts the threads that answer event reads and notify poll() callers. Called once the
    // process has its final form (after detaching), since a fork keeps no thread.
    void Start();
    // Ends those threads, once the session's loop has ended and before the session goes.
    void Stop();

    // The sysfs actions: the card leaves the bus (its files vanish, open ones fail), and every
    // card that left comes back restarted.
    void RemoveCard(int card);
    void Rescan();

    // One open file.
    struct OpenFile {
        Node node;
        std::shared_ptr<sim::SimXdmaCard> card;  // null for the bus's rescan
        bool countsAsOpen = false;               // a device file, not a sysfs attribute
        std::unique_ptr<RiffaExchange> riffa;    // a RIFFA node's request and answer
    };

    // The operations' bodies; they return bytes, 0, or -errno.
    int Read(OpenFile& file, char* buffer, std::size_t size, std::int64_t offset);
    int Write(OpenFile& file, const char* buffer, std::size_t size, std::int64_t offset);
    unsigned Poll(OpenFile& file, struct fuse_pollhandle* handle);
    void Release(OpenFile& file);
    // A read of an events node: answered now when it is refused, else once the event comes
    // (or, on the Windows model's nodes, once `offset` ms have passed).
    void ReadEvent(fuse_req* request, OpenFile& file, std::size_t size, std::int64_t offset);
    std::shared_ptr<sim::SimXdmaCard> Card(int card) const;
    InodeTable& Inodes() { return inodes_; }

private:
    std::vector<std::shared_ptr<sim::SimXdmaCard>> cards_;
    std::vector<std::shared_ptr<sim::SimRiffaDevice>> riffa_;  // one per card, for Wine's model
    std::unique_ptr<std::atomic<bool>[]> present_;
    PollWaiters pollWaiters_;
    PendingEventReads eventReads_{*this};
    InodeTable inodes_;
};

}  // namespace kvpcie::simd
