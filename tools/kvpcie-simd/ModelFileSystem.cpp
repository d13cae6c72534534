// The driver model's FUSE operations: the Linux XDMA driver's behaviour on each node.
#define FUSE_USE_VERSION 312
#include "ModelFileSystem.h"

#include "DmaNode.h"
#include "EventNode.h"
#include "NodeSizes.h"
#include "PciAttributeNode.h"
#include "RegisterNode.h"
#include "RiffaNode.h"

#include <fuse_lowlevel.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kvpcie::simd {
namespace {

// Cards leave and return: nothing the kernel remembers about a name may outlive a call.
constexpr double kNoCaching = 0.0;

// FUSE calls the operations from C: an exception must not leave them. Only allocations can
// throw here, always before the answer, and a request that meets one is answered as the kernel
// answers a lack of memory.
template <typename Body>
void Guarded(fuse_req_t request, Body body) {
    try {
        body();
    } catch (...) {
        fuse_reply_err(request, ENOMEM);
    }
}

ModelFileSystem& Model(fuse_req_t request) {
    return *static_cast<ModelFileSystem*>(fuse_req_userdata(request));
}

ModelFileSystem::OpenFile& FileOf(fuse_file_info* info) {
    return *reinterpret_cast<ModelFileSystem::OpenFile*>(info->fh);
}

mode_t NodeMode(NodeKind kind) {
    switch (kind) {
        case NodeKind::Directory:
            return S_IFDIR | 0755;
        case NodeKind::PciVendor:
        case NodeKind::PciDevice:
            return S_IFREG | 0444;
        case NodeKind::PciRemove:
        case NodeKind::PciRescan:
        case NodeKind::WineRestart:
            return S_IFREG | 0200;
        case NodeKind::Events:
        case NodeKind::WineEvent:
        case NodeKind::CardToHost:
            return S_IFREG | 0444;
        case NodeKind::HostToCard:
            return S_IFREG | 0222;
        default:
            return S_IFREG | 0666;
    }
}

// Regular files rather than character devices: the kernel would open a device node's own
// driver, not ours.
struct stat Attributes(fuse_req_t request, const Node& node, fuse_ino_t inode) {
    struct stat attributes {};
    attributes.st_ino = inode;
    attributes.st_mode = NodeMode(node.kind);
    attributes.st_nlink = node.kind == NodeKind::Directory ? 2 : 1;
    attributes.st_uid = fuse_req_ctx(request)->uid;
    attributes.st_gid = fuse_req_ctx(request)->gid;
    if (node.kind != NodeKind::Directory) {
        attributes.st_size = static_cast<off_t>(NodeBytes(node.kind));
    }
    return attributes;
}

// The path and node that `inode` names now; nullopt when its card has left the bus.
std::optional<std::pair<std::string, Node>> NodeOf(fuse_req_t request, fuse_ino_t inode) {
    std::optional<std::string> path = Model(request).Inodes().PathOf(inode);
    if (!path) {
        return std::nullopt;
    }
    const std::optional<Node> node = FindNode(*path, Model(request));
    if (!node) {
        return std::nullopt;
    }
    return std::make_pair(std::move(*path), *node);
}

void Lookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
    Guarded(request, [&] {
        ModelFileSystem& model = Model(request);
        const std::optional<std::string> directory = model.Inodes().PathOf(parent);
        const std::string path = directory ? InodeTable::ChildPath(*directory, name) : "";
        const std::optional<Node> node = FindNode(path, model);
        if (!node) {
            fuse_reply_err(request, ENOENT);
            return;
        }
        fuse_entry_param entry{};
        entry.ino = model.Inodes().NumberOf(path);
        entry.attr = Attributes(request, *node, entry.ino);
        entry.attr_timeout = kNoCaching;
        entry.entry_timeout = kNoCaching;
        fuse_reply_entry(request, &entry);
    });
}

void GetAttr(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
    Guarded(request, [&] {
        const auto node = NodeOf(request, inode);
        if (!node) {
            fuse_reply_err(request, ENOENT);
            return;
        }
        const struct stat attributes = Attributes(request, node->second, inode);
        fuse_reply_attr(request, &attributes, kNoCaching);
    });
}

// Only a truncation is taken, and does nothing: shells write sysfs attributes with O_TRUNC
// ("echo 1 > remove"). Modes, owners and times cannot be set.
void SetAttr(fuse_req_t request, fuse_ino_t inode, struct stat*, int toSet, fuse_file_info*) {
    Guarded(request, [&] {
        const auto node = NodeOf(request, inode);
        if (!node) {
            fuse_reply_err(request, ENOENT);
            return;
        }
        if ((toSet & (FUSE_SET_ATTR_MODE | FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID |
                      FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_MTIME)) != 0) {
            fuse_reply_err(request, ENOSYS);
            return;
        }
        const struct stat attributes = Attributes(request, node->second, inode);
        fuse_reply_attr(request, &attributes, kNoCaching);
    });
}

void ReadDir(fuse_req_t request, fuse_ino_t inode, size_t size, off_t offset, fuse_file_info*) {
    Guarded(request, [&] {
        ModelFileSystem& model = Model(request);
        const std::optional<std::string> path = model.Inodes().PathOf(inode);
        const std::optional<std::vector<std::string>> names =
            path ? ListDirectory(*path, model) : std::nullopt;
        if (!names) {
            fuse_reply_err(request, ENOTDIR);
            return;
        }
        std::vector<std::string> entries{".", ".."};
        entries.insert(entries.end(), names->begin(), names->end());
        std::vector<char> buffer(size);
        std::size_t used = 0;
        for (std::size_t index = offset < 0 ? 0 : static_cast<std::size_t>(offset);
             index < entries.size(); ++index) {
            struct stat attributes {};
            if (index < 2) {
                attributes.st_mode = S_IFDIR;
            } else {
                const std::string child = InodeTable::ChildPath(*path, entries[index]);
                const std::optional<Node> node = FindNode(child, model);
                attributes.st_mode = node ? NodeMode(node->kind) : 0;
                attributes.st_ino = model.Inodes().NumberOf(child);
            }
            // Each entry carries the offset of the next, where a later call goes on.
            const std::size_t length = fuse_add_direntry(request, buffer.data() + used, size - used,
                                                         entries[index].c_str(), &attributes,
                                                         static_cast<off_t>(index + 1));
            if (length > size - used) {
                break;
            }
            used += length;
        }
        fuse_reply_buf(request, buffer.data(), used);
    });
}

void Open(fuse_req_t request, fuse_ino_t inode, fuse_file_info* info) {
    Guarded(request, [&] {
        const auto found = NodeOf(request, inode);
        if (!found) {
            fuse_reply_err(request, ENOENT);
            return;
        }
        const Node& node = found->second;
        if (node.kind == NodeKind::Directory) {
            fuse_reply_err(request, EISDIR);
            return;
        }
        std::unique_ptr<ModelFileSystem::OpenFile> file = Model(request).Open(node);
        info->fh = reinterpret_cast<std::uint64_t>(file.get());
        // Every call reaches the card with its own offset and size, as on a driver's node: no
        // page cache, no read-ahead, no merged writes.
        info->direct_io = 1;
        info->keep_cache = 0;
        if (fuse_reply_open(request, info) == -ENOENT) {
            file->handler->Release();  // the open was interrupted: no release will come for it
            return;
        }
        file.release();
    });
}

void Read(fuse_req_t request, fuse_ino_t, size_t size, off_t offset, fuse_file_info* info) {
    ModelFileSystem::OpenFile& file = FileOf(info);
    if (file.handler->TakeRead(request, size, offset)) {
        return;
    }
    const std::unique_ptr<char[]> buffer(new (std::nothrow) char[size == 0 ? 1 : size]);
    if (!buffer) {
        fuse_reply_err(request, ENOMEM);
        return;
    }
    const int result = Model(request).Read(file, buffer.get(), size, offset);
    if (result < 0) {
        fuse_reply_err(request, -result);
    } else {
        fuse_reply_buf(request, buffer.get(), static_cast<std::size_t>(result));
    }
}

void Write(fuse_req_t request, fuse_ino_t, const char* buffer, size_t size, off_t offset,
           fuse_file_info* info) {
    const int result = Model(request).Write(FileOf(info), buffer, size, offset);
    if (result < 0) {
        fuse_reply_err(request, -result);
    } else {
        fuse_reply_write(request, static_cast<std::size_t>(result));
    }
}

void Release(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
    const std::unique_ptr<ModelFileSystem::OpenFile> file(&FileOf(info));
    file->handler->Release();
    fuse_reply_err(request, 0);
}

void Poll(fuse_req_t request, fuse_ino_t, fuse_file_info* info, fuse_pollhandle* handle) {
    Guarded(request, [&] { fuse_reply_poll(request, FileOf(info).handler->Poll(handle)); });
}

void Init(void* model, fuse_conn_info* connection) {
    // The pieces of one large write come one after the other, in order: a RIFFA request is
    // put together from them.
    connection->want &= ~FUSE_CAP_ASYNC_DIO;
    static_cast<ModelFileSystem*>(model)->Start();
}

fuse_lowlevel_ops MakeOperations() {
    fuse_lowlevel_ops operations{};
    operations.init = Init;
    operations.lookup = Lookup;
    operations.getattr = GetAttr;
    operations.setattr = SetAttr;
    operations.readdir = ReadDir;
    operations.open = Open;
    operations.read = Read;
    operations.write = Write;
    operations.release = Release;
    operations.poll = Poll;
    return operations;
}

}  // namespace

ModelFileSystem::ModelFileSystem(int cardCount)
    : present_(std::make_unique<std::atomic<bool>[]>(static_cast<std::size_t>(cardCount))) {
    for (int number = 0; number < cardCount; ++number) {
        riffa_.push_back(std::make_shared<sim::SimRiffaDevice>(number));
        auto card = std::make_shared<sim::SimXdmaCard>(number);
        // Event reads wait in eventReads_, not in the card: its wait need only take an event
        // already raised.
        card->SetEventTimeout(std::chrono::milliseconds(0));
        card->SetEventObserver([this, number](int event) {
            pollWaiters_.EventRaised(number, event);
            eventReads_.Wake();
        });
        cards_.push_back(std::move(card));
        present_[static_cast<std::size_t>(number)].store(true);
    }
}

ModelFileSystem::~ModelFileSystem() {
    for (const auto& card : cards_) {
        card->SetEventObserver(nullptr);  // before the waiters that it calls go away
    }
}

const fuse_lowlevel_ops& ModelFileSystem::Operations() {
    static const fuse_lowlevel_ops operations = MakeOperations();
    return operations;
}

void ModelFileSystem::Start() {
    pollWaiters_.Start();
    eventReads_.Start();
}

void ModelFileSystem::Stop() {
    eventReads_.Stop();
    pollWaiters_.Stop();
}

bool ModelFileSystem::IsPresent(int card) const {
    return card >= 0 && card < CardCount() && present_[static_cast<std::size_t>(card)].load();
}

std::shared_ptr<sim::SimXdmaCard> ModelFileSystem::Card(int card) const {
    return card >= 0 && card < CardCount() ? cards_[static_cast<std::size_t>(card)] : nullptr;
}

void ModelFileSystem::RemoveCard(int card) {
    if (IsPresent(card)) {
        present_[static_cast<std::size_t>(card)].store(false);
        pollWaiters_.EventRaised(card, -1);  // pollers see the hang-up at once
        eventReads_.Wake();                  // and readers the card's absence
    }
}

void ModelFileSystem::Rescan() {
    for (int card = 0; card < CardCount(); ++card) {
        if (!present_[static_cast<std::size_t>(card)].exchange(true)) {
            cards_[static_cast<std::size_t>(card)]->Restart();
        }
    }
}

std::unique_ptr<ModelFileSystem::OpenFile> ModelFileSystem::Open(const Node& node) {
    auto file = std::make_unique<OpenFile>(OpenFile{node, nullptr});
    std::shared_ptr<sim::SimXdmaCard> card = Card(node.card);
    switch (node.kind) {
        case NodeKind::User:
        case NodeKind::Control:
            file->handler = std::make_unique<RegisterNode>(std::move(card), node.kind);
            break;
        case NodeKind::CardToHost:
            file->handler =
                std::make_unique<DmaNode>(std::move(card), DmaNode::Direction::CardToHost);
            break;
        case NodeKind::HostToCard:
            file->handler =
                std::make_unique<DmaNode>(std::move(card), DmaNode::Direction::HostToCard);
            break;
        case NodeKind::Events:
        case NodeKind::WineEvent:
            file->handler = std::make_unique<EventNode>(std::move(card), node, *this, eventReads_,
                                                        pollWaiters_);
            break;
        case NodeKind::WineRiffa:
            file->handler =
                std::make_unique<RiffaNode>(riffa_[static_cast<std::size_t>(node.card)]);
            break;
        case NodeKind::PciVendor:
        case NodeKind::PciDevice:
        case NodeKind::PciRemove:
        case NodeKind::PciRescan:
        case NodeKind::WineRestart:
            file->handler = std::make_unique<PciAttributeNode>(*this, node, std::move(card));
            break;
        case NodeKind::Directory:
            return nullptr;  // refused before, with EISDIR
    }
    return file;
}

int ModelFileSystem::Read(OpenFile& file, char* buffer, std::size_t size, std::int64_t offset) {
    if (file.node.card >= 0 && !IsPresent(file.node.card)) {
        return -ENODEV;
    }
    return file.handler->Read(buffer, size, offset);
}

int ModelFileSystem::Write(OpenFile& file, const char* buffer, std::size_t size,
                           std::int64_t offset) {
    if (file.node.card >= 0 && !IsPresent(file.node.card)) {
        return -ENODEV;
    }
    return file.handler->Write(buffer, size, offset);
}

}  // namespace kvpcie::simd
