// The driver model's FUSE operations: the Linux XDMA driver's behaviour on each node.
#define FUSE_USE_VERSION 312
#include "ModelFileSystem.h"

#include "sim/SimCardRegisters.h"

#include <fuse.h>
#include <fuse_lowlevel.h>
#include <poll.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <optional>

namespace kvpcie::simd {
namespace {

// A read on an events node waits for ever on the driver; the model waits in slices of this,
// so that an interrupted or stopping request ends soon.
constexpr std::chrono::milliseconds kEventWaitSlice{100};
// The XDMA driver's control (config BAR) space.
constexpr std::uint64_t kControlSpaceBytes = 0x10000;
// What sysfs shows as the size of every attribute.
constexpr std::uint64_t kAttributeBytes = 4096;

// FUSE calls the operations from C: an exception must not leave them. Only allocations can
// throw here, and a request that meets one is answered as the kernel answers a lack of memory.
template <typename Body>
int Guarded(Body body) {
    try {
        return body();
    } catch (...) {
        return -ENOMEM;
    }
}

ModelFileSystem& Model() {
    return *static_cast<ModelFileSystem*>(fuse_get_context()->private_data);
}

ModelFileSystem::OpenFile& FileOf(fuse_file_info* info) {
    return *reinterpret_cast<ModelFileSystem::OpenFile*>(info->fh);
}

std::uint64_t NodeBytes(NodeKind kind) {
    switch (kind) {
        case NodeKind::User:
            return sim::kUserSpaceBytes;
        case NodeKind::Control:
            return kControlSpaceBytes;
        case NodeKind::CardToHost:
        case NodeKind::HostToCard:
            return sim::kCardMemoryBytes;
        case NodeKind::Events:
            return 4;
        default:
            return kAttributeBytes;
    }
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
            return S_IFREG | 0200;
        case NodeKind::Events:
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
int GetAttr(const char* path, struct stat* attributes, fuse_file_info*) {
    return Guarded([&] {
        const std::optional<Node> node = FindNode(path, Model());
        if (!node) {
            return -ENOENT;
        }
        std::memset(attributes, 0, sizeof *attributes);
        attributes->st_mode = NodeMode(node->kind);
        attributes->st_nlink = node->kind == NodeKind::Directory ? 2 : 1;
        attributes->st_uid = fuse_get_context()->uid;
        attributes->st_gid = fuse_get_context()->gid;
        if (node->kind != NodeKind::Directory) {
            attributes->st_size = static_cast<off_t>(NodeBytes(node->kind));
        }
        return 0;
    });
}

int ReadDir(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*,
            fuse_readdir_flags) {
    return Guarded([&] {
        const std::optional<std::vector<std::string>> names = ListDirectory(path, Model());
        if (!names) {
            return -ENOTDIR;
        }
        fill(buffer, ".", nullptr, 0, fuse_fill_dir_flags{});
        fill(buffer, "..", nullptr, 0, fuse_fill_dir_flags{});
        for (const std::string& name : *names) {
            fill(buffer, name.c_str(), nullptr, 0, fuse_fill_dir_flags{});
        }
        return 0;
    });
}

int Open(const char* path, fuse_file_info* info) {
    return Guarded([&] {
        const std::optional<Node> node = FindNode(path, Model());
        if (!node) {
            return -ENOENT;
        }
        if (node->kind == NodeKind::Directory) {
            return -EISDIR;
        }
        const bool cardNode = node->card >= 0 && node->kind != NodeKind::PciVendor &&
                              node->kind != NodeKind::PciDevice &&
                              node->kind != NodeKind::PciRemove;
        auto* file = new (std::nothrow) ModelFileSystem::OpenFile{*node, Model().Card(node->card)};
        if (file == nullptr) {
            return -ENOMEM;
        }
        file->countsAsOpen = cardNode;
        if (cardNode) {
            file->card->FileOpened();
        }
        info->fh = reinterpret_cast<std::uint64_t>(file);
        // Every call reaches the card with its own offset and size, as on a driver's node: no page
        // cache, no read-ahead, no merged writes.
        info->direct_io = 1;
        info->keep_cache = 0;
        return 0;
    });
}

int Read(const char*, char* buffer, size_t size, off_t offset, fuse_file_info* info) {
    return Model().Read(FileOf(info), buffer, size, offset);
}

int Write(const char*, const char* buffer, size_t size, off_t offset, fuse_file_info* info) {
    return Model().Write(FileOf(info), buffer, size, offset);
}

int Release(const char*, fuse_file_info* info) {
    ModelFileSystem::OpenFile* file = &FileOf(info);
    Model().Release(*file);
    delete file;
    return 0;
}

int Poll(const char*, fuse_file_info* info, fuse_pollhandle* handle, unsigned* events) {
    return Guarded([&] {
        *events = Model().Poll(FileOf(info), handle);
        return 0;
    });
}

// sysfs attributes are written with O_TRUNC by shells ("echo 1 > remove").
int Truncate(const char* path, off_t, fuse_file_info*) {
    return Guarded([&] { return FindNode(path, Model()) ? 0 : -ENOENT; });
}

void* Init(fuse_conn_info*, fuse_config* config) {
    // Cards leave and return: nothing the kernel remembers about a name may outlive a call.
    config->entry_timeout = 0;
    config->attr_timeout = 0;
    config->negative_timeout = 0;
    config->direct_io = 1;
    // A client that is killed while it waits on an event has its request interrupted: FUSE
    // then sends SIGUSR1 to the serving thread, whose handler main() installs.
    config->intr = 1;
    Model().Start();
    return fuse_get_context()->private_data;
}

fuse_operations MakeOperations() {
    fuse_operations operations{};
    operations.getattr = GetAttr;
    operations.readdir = ReadDir;
    operations.open = Open;
    operations.read = Read;
    operations.write = Write;
    operations.release = Release;
    operations.poll = Poll;
    operations.truncate = Truncate;
    operations.init = Init;
    return operations;
}

// The driver moves exactly one aligned 32-bit word per register call; past the register space
// nothing moves. What the call returns instead of the access, or nullopt to go on.
std::optional<int> RefuseRegisterAccess(NodeKind kind, std::size_t size, std::int64_t offset) {
    if (size != 4 || offset % 4 != 0) {
        return -EINVAL;
    }
    if (offset < 0 || static_cast<std::uint64_t>(offset) >= NodeBytes(kind)) {
        return 0;
    }
    return std::nullopt;
}

// "1" (with or without a newline) is what sysfs's remove and rescan take.
bool SaysOne(const char* buffer, std::size_t size) {
    return size >= 1 && buffer[0] == '1' && (size == 1 || buffer[1] == '\n');
}

}  // namespace

ModelFileSystem::ModelFileSystem(int cardCount)
    : present_(std::make_unique<std::atomic<bool>[]>(static_cast<std::size_t>(cardCount))) {
    for (int number = 0; number < cardCount; ++number) {
        auto card = std::make_shared<sim::SimXdmaCard>(number);
        card->SetEventTimeout(kEventWaitSlice);
        card->SetEventObserver(
            [this, number](int event) { pollWaiters_.EventRaised(number, event); });
        cards_.push_back(std::move(card));
        present_[static_cast<std::size_t>(number)].store(true);
    }
}

ModelFileSystem::~ModelFileSystem() {
    for (const auto& card : cards_) {
        card->SetEventObserver(nullptr);  // before the waiters that it calls go away
    }
}

const fuse_operations& ModelFileSystem::Operations() {
    static const fuse_operations operations = MakeOperations();
    return operations;
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
    }
}

void ModelFileSystem::Rescan() {
    for (int card = 0; card < CardCount(); ++card) {
        if (!present_[static_cast<std::size_t>(card)].exchange(true)) {
            cards_[static_cast<std::size_t>(card)]->Restart();
        }
    }
}

int ModelFileSystem::Read(OpenFile& file, char* buffer, std::size_t size, std::int64_t offset) {
    const Node& node = file.node;
    if (node.card >= 0 && !IsPresent(node.card)) {
        return -ENODEV;
    }
    switch (node.kind) {
        case NodeKind::User:
        case NodeKind::Control: {
            if (const std::optional<int> refusal = RefuseRegisterAccess(node.kind, size, offset)) {
                return *refusal;
            }
            std::uint32_t value = 0;
            if (node.kind == NodeKind::User &&
                !file.card->ReadRegister(static_cast<std::uint32_t>(offset), value)) {
                return -EIO;
            }
            std::memcpy(buffer, &value, 4);
            return 4;
        }
        case NodeKind::CardToHost: {
            if (offset < 0) {
                return -EINVAL;
            }
            std::uint32_t moved = 0;
            if (!file.card->ReadMemory(static_cast<std::uint64_t>(offset), buffer,
                                       static_cast<std::uint32_t>(size), moved)) {
                return -EIO;
            }
            return static_cast<int>(moved);
        }
        case NodeKind::Events:
            return ReadEvent(file, buffer, size);
        case NodeKind::PciVendor:
        case NodeKind::PciDevice: {
            const std::string text = PciAttributeText(node.kind);
            if (offset < 0 || static_cast<std::size_t>(offset) >= text.size()) {
                return 0;
            }
            const std::size_t length =
                std::min(size, text.size() - static_cast<std::size_t>(offset));
            std::memcpy(buffer, text.data() + offset, length);
            return static_cast<int>(length);
        }
        default:
            return -EINVAL;  // host-to-card, remove and rescan are written only
    }
}

int ModelFileSystem::ReadEvent(OpenFile& file, char* buffer, std::size_t size) {
    if (size < 4) {
        return -EINVAL;
    }
    const std::atomic<bool> neverCancelled{false};
    for (;;) {
        switch (file.card->WaitUserEvent(file.node.event, neverCancelled)) {
            case sim::SimXdmaCard::EventWait::Raised: {
                // Interrupts since the last read merge into one.
                const std::uint32_t one = 1;
                std::memcpy(buffer, &one, 4);
                return 4;
            }
            case sim::SimXdmaCard::EventWait::Failed:
                return -EIO;
            case sim::SimXdmaCard::EventWait::TimedOut:
                break;
        }
        // A client killed while it waits, or the daemon unmounting: the request ends.
        if (fuse_interrupted() != 0 ||
            fuse_session_exited(fuse_get_session(fuse_get_context()->fuse)) != 0) {
            return -EINTR;
        }
        if (!IsPresent(file.node.card)) {
            return -ENODEV;
        }
    }
}

int ModelFileSystem::Write(OpenFile& file, const char* buffer, std::size_t size,
                           std::int64_t offset) {
    const Node& node = file.node;
    if (node.card >= 0 && !IsPresent(node.card)) {
        return -ENODEV;
    }
    switch (node.kind) {
        case NodeKind::User:
        case NodeKind::Control: {
            if (const std::optional<int> refusal = RefuseRegisterAccess(node.kind, size, offset)) {
                return *refusal;
            }
            std::uint32_t value = 0;
            std::memcpy(&value, buffer, 4);
            if (node.kind == NodeKind::User &&
                !file.card->WriteRegister(static_cast<std::uint32_t>(offset), value)) {
                return -EIO;
            }
            return 4;
        }
        case NodeKind::HostToCard: {
            if (offset < 0) {
                return -EINVAL;
            }
            std::uint32_t moved = 0;
            if (!file.card->WriteMemory(static_cast<std::uint64_t>(offset), buffer,
                                        static_cast<std::uint32_t>(size), moved)) {
                return -EIO;
            }
            return static_cast<int>(moved);
        }
        case NodeKind::PciRemove:
            if (!SaysOne(buffer, size)) {
                return -EINVAL;
            }
            // Every process restarts the card when it opens it. A card whose files another
            // process holds is not pulled from under that process: the removal is refused, as
            // a device in use vetoes it, and the opener goes on without a restart.
            if (file.card->ReadCounters().openFiles > 0) {
                return -EBUSY;
            }
            RemoveCard(node.card);
            return static_cast<int>(size);
        case NodeKind::PciRescan:
            if (!SaysOne(buffer, size)) {
                return -EINVAL;
            }
            Rescan();
            return static_cast<int>(size);
        default:
            return -EINVAL;  // card-to-host, events and the read-only attributes
    }
}

unsigned ModelFileSystem::Poll(OpenFile& file, fuse_pollhandle* handle) {
    const Node& node = file.node;
    if (node.kind != NodeKind::Events) {
        if (handle != nullptr) {
            fuse_pollhandle_destroy(handle);  // always ready: nothing to notify
        }
        return POLLIN | POLLRDNORM | POLLOUT | POLLWRNORM;
    }
    // Kept before the test, so that an event raised in between still notifies the handle.
    if (handle != nullptr) {
        pollWaiters_.Keep(&file, node.card, node.event, handle);
    }
    if (!IsPresent(node.card) || file.card->IsRemoved()) {
        return POLLERR | POLLHUP;
    }
    return file.card->IsUserEventPending(node.event) ? POLLIN | POLLRDNORM : 0;
}

void ModelFileSystem::Release(OpenFile& file) {
    pollWaiters_.Forget(&file);
    if (file.countsAsOpen) {
        file.card->FileClosed();
    }
}

}  // namespace kvpcie::simd
