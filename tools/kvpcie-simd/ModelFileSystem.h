// The simulated cards of kvpcie-simd and the FUSE operations that serve them as the Linux XDMA
// driver's device files and sysfs's PCI entries.
#pragma once

#include "InodeTable.h"
#include "ModelNodes.h"
#include "NodeHandler.h"
#include "PendingEventReads.h"
#include "PollWaiters.h"

#include "sim/SimRiffaDevice.h"
#include "sim/SimXdmaCard.h"

#include <atomic>
#include <memory>
#include <vector>

struct fuse_lowlevel_ops;

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

    // One open file: its node, and the handler of the node's kind.
    struct OpenFile {
        Node node;
        std::unique_ptr<NodeHandler> handler;
    };

    // A file of `node`, which is no directory. A device file counts as open on its card from
    // here until its handler's Release.
    std::unique_ptr<OpenFile> Open(const Node& node);
    // The handler's read or write while the node's card is on the bus; -ENODEV once it left.
    int Read(OpenFile& file, char* buffer, std::size_t size, std::int64_t offset);
    int Write(OpenFile& file, const char* buffer, std::size_t size, std::int64_t offset);
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
