// What an open file of the driver model does: one handler per kind of node (registers, DMA,
// events, PCI attributes, RIFFA requests), chosen when the file is opened.
#pragma once

#include "sim/SimXdmaCard.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

struct fuse_req;
struct fuse_pollhandle;

namespace kvpcie::simd {

// Read and Write come only while the node's card is on the bus; the model answers ENODEV
// otherwise. The answers are bytes, 0, or -errno.
class NodeHandler {
public:
    virtual ~NodeHandler() = default;

    // A read that waits for the card takes the request over and answers it later: true then.
    virtual bool TakeRead(fuse_req* request, std::size_t size, std::int64_t offset);
    // A node that is only written refuses reads, and one only read refuses writes.
    virtual int Read(char* buffer, std::size_t size, std::int64_t offset);
    virtual int Write(const char* buffer, std::size_t size, std::int64_t offset);
    // A node that never waits is always ready.
    virtual unsigned Poll(fuse_pollhandle* handle);
    // Once, when the file is closed or its open was interrupted, before that is answered.
    virtual void Release() {}
};

// A device file of a card: the card counts it as open from its open to its release.
class CardFileNode : public NodeHandler {
public:
    void Release() override { card_->FileClosed(); }

protected:
    explicit CardFileNode(std::shared_ptr<sim::SimXdmaCard> card) : card_(std::move(card)) {
        card_->FileOpened();
    }

    const std::shared_ptr<sim::SimXdmaCard> card_;
};

}  // namespace kvpcie::simd
