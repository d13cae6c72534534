// The process's registry of cards opened through the card thread: one open card per path,
// leased by every front-end that names it.
#include <KvPCIeInjectSdk/KvPCIeSharedCard.h>

#include <cstdlib>
#include <map>
#include <mutex>

namespace KvPCIe {
namespace {

struct OpenCard {
    // Kept for the process's life once made: the library keeps a manager's record until the
    // process ends anyway, so a path reopened later reuses its manager.
    PCIeDataManager manager;
    int leases = 0;                // touched on the card thread only
    bool claimed[2][4] = {};       // [Direction][channel], under registryLock
};

// Guards the map's shape and the claims; never held across a call to the card thread.
std::mutex registryLock;

OpenCard& CardAt(const std::string& path) {
    static auto* const cards = new std::map<std::string, OpenCard>;
    std::lock_guard<std::mutex> lock(registryLock);
    return (*cards)[path];  // a node of a map stays where it is
}

// On the card thread.
std::vector<std::string> ListedPaths() {
    static PCIeDataManager lister;  // one: a manager's record is never freed
    std::vector<std::string> listed;
    char* paths[4] = {};
    const int count = lister.GetDevices(paths);
    for (int i = 0; i < count && i < 4; ++i) {
        if (paths[i] != nullptr) {
            listed.emplace_back(paths[i]);
        }
    }
    for (char* path : paths) {
        std::free(path);
    }
    return listed;
}

// On the card thread: the lease ends, and the last one closes the card.
void EndLease(const std::string& path) {
    OpenCard& card = CardAt(path);
    if (--card.leases == 0) {
        card.manager.CloseCard();
    }
}

}  // namespace

struct SharedCard::Private {
    std::string path;
    PCIeDataManager manager;  // a copy of the path's manager: copies share the card
};

SharedCard::SharedCard(std::unique_ptr<Private> d) : d(std::move(d)) {}

std::vector<std::string> SharedCard::ListCards() {
    std::vector<std::string> listed;
    CardThread::Hold();
    CardThread::Run([&] { listed = ListedPaths(); });
    CardThread::Release();
    return listed;
}

bool SharedCard::ListRiffa(fpga_info_list& list) {
    bool listed = false;
    CardThread::Hold();
    CardThread::Run([&] {
        static PCIeDataManager lister(RIFFA);
        listed = lister.GetDevices(&list);
    });
    CardThread::Release();
    return listed;
}

std::unique_ptr<SharedCard> SharedCard::Acquire(const std::string& devicePath,
                                                std::string& error) {
    std::unique_ptr<SharedCard> lease;
    CardThread::Hold();
    // Opening, joining and the last lease's close all happen on the card thread, one after
    // the other, so that no lock is held while the card opens.
    CardThread::Run([&] {
        std::string path = devicePath;
        if (path.empty()) {
            const std::vector<std::string> listed = ListedPaths();
            if (listed.empty()) {
                error = "no XDMA card is listed (KVPCIE_SIM=1 presents the simulated card)";
                return;
            }
            path = listed.front();
        }
        OpenCard& card = CardAt(path);
        if (card.leases == 0) {
            std::string name = path;  // OpenCard takes a char*
            if (!card.manager.OpenCard(name.data())) {
                error = "the card \"" + path + "\" would not open: " + card.manager.LastErrorText();
                card.manager.CloseCard();  // the engines it made anyway
                return;
            }
        }
        ++card.leases;
        lease.reset(new SharedCard(std::unique_ptr<Private>(new Private{path, card.manager})));
    });
    if (!lease) {
        CardThread::Release();
    }
    return lease;
}

SharedCard::~SharedCard() {
    const std::string path = d->path;
    d.reset();
    if (CardThread::IsCurrent()) {
        // Inside a status callback or a task: closing the card there would pull the engine
        // from under the code that runs it, and the thread cannot wait for its own end.
        CardThread::Post([path] {
            EndLease(path);
            CardThread::Release();
        });
        return;
    }
    CardThread::Run([&] { EndLease(path); });
    CardThread::Release();
}

const std::string& SharedCard::Path() const {
    return d->path;
}

bool SharedCard::Claim(Direction direction, unsigned channel) {
    if (channel >= 4) {
        return false;
    }
    OpenCard& card = CardAt(d->path);
    std::lock_guard<std::mutex> lock(registryLock);
    bool& claimed = card.claimed[static_cast<int>(direction)][channel];
    if (claimed) {
        return false;
    }
    claimed = true;
    return true;
}

void SharedCard::Unclaim(Direction direction, unsigned channel) {
    if (channel >= 4) {
        return;
    }
    OpenCard& card = CardAt(d->path);
    std::lock_guard<std::mutex> lock(registryLock);
    card.claimed[static_cast<int>(direction)][channel] = false;
}

void SharedCard::Run(const std::function<void(PCIeDataManager&)>& operation) {
    PCIeDataManager& manager = d->manager;
    CardThread::Run([&] { operation(manager); });
}

PCIeDataManager& SharedCard::AnyThreadManager() {
    return d->manager;
}

}  // namespace KvPCIe
