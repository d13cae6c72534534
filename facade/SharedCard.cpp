// The process's registry of cards opened through the card thread: one open card per path (or
// RIFFA device number), leased by every front-end that names it.
#include <KvPCIeInjectSdk/KvPCIeSharedCard.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <map>
#include <tuple>
#include <vector>
#include <mutex>

namespace KvPCIe {
namespace {

struct OpenCard {
    explicit OpenCard(ePCIeFrameworkType framework) : manager(framework) {}
    // Kept for the process's life once made: the library keeps a manager's record until the
    // process ends anyway, so a path reopened later reuses its manager.
    PCIeDataManager manager;
    int leases = 0;                // touched on the card thread only
    bool claimed[2][4] = {};       // [Direction][channel], under registryLock
    // What each lease wants called when the card is found gone, by lease; under registryLock.
    std::map<const void*, std::function<void()>> lostCallbacks;
};

// Guards the map's shape, the claims and the lost callbacks; never held across a call to the
// card thread or to a callback.
std::mutex registryLock;

// On the card thread, from its event loop: every lease of the card hears of it.
void TellLeasesCardLost(const char*, void* context) {
    auto* card = static_cast<OpenCard*>(context);
    std::vector<std::function<void()>> callbacks;
    {
        std::lock_guard<std::mutex> lock(registryLock);
        for (const auto& entry : card->lostCallbacks) {
            callbacks.push_back(entry.second);
        }
    }
    for (const auto& callback : callbacks) {
        callback();
    }
}

// A RIFFA device's key: no XDMA path looks like it, and the two kinds are kept apart anyway.
std::string RiffaKey(int index) {
    return "riffa:" + std::to_string(index);
}

OpenCard& CardAt(const std::string& key, bool riffa) {
    static auto* const cards = new std::array<std::map<std::string, OpenCard>, 2>;
    std::lock_guard<std::mutex> lock(registryLock);
    auto& kind = (*cards)[riffa ? 1 : 0];
    auto found = kind.find(key);
    if (found == kind.end()) {
        found = kind.emplace(std::piecewise_construct, std::forward_as_tuple(key),
                             std::forward_as_tuple(riffa ? RIFFA : XDMA_MM))
                    .first;
    }
    return found->second;  // a node of a map stays where it is
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
void EndLease(const std::string& key, bool riffa) {
    OpenCard& card = CardAt(key, riffa);
    if (--card.leases == 0) {
        if (riffa) {
            card.manager.CloseRiffaCard();
        } else {
            card.manager.CloseCard();
        }
    }
}

}  // namespace

struct SharedCard::Private {
    std::string path;
    PCIeDataManager manager;  // a copy of the path's manager: copies share the card
    bool riffa;
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
        OpenCard& card = CardAt(path, false);
        if (card.leases == 0) {
            std::string name = path;  // OpenCard takes a char*
            card.manager.SetCardLostCallback(&TellLeasesCardLost, &card);
            if (!card.manager.OpenCard(name.data())) {
                error = "the card \"" + path + "\" would not open: " + card.manager.LastErrorText();
                card.manager.CloseCard();  // the engines it made anyway
                return;
            }
        }
        ++card.leases;
        lease.reset(
            new SharedCard(std::unique_ptr<Private>(new Private{path, card.manager, false})));
    });
    if (!lease) {
        CardThread::Release();
    }
    return lease;
}

std::unique_ptr<SharedCard> SharedCard::AcquireRiffa(int index, std::string& error) {
    std::unique_ptr<SharedCard> lease;
    CardThread::Hold();
    CardThread::Run([&] {
        const std::string key = RiffaKey(index);
        OpenCard& card = CardAt(key, true);
        if (card.leases == 0 && !card.manager.OpenCard(index)) {
            error = card.manager.LastErrorText();
            if (error.empty()) {
                error = "RIFFA device " + std::to_string(index) + " would not open";
            }
            return;
        }
        ++card.leases;
        lease.reset(
            new SharedCard(std::unique_ptr<Private>(new Private{key, card.manager, true})));
    });
    if (!lease) {
        CardThread::Release();
    }
    return lease;
}

SharedCard::~SharedCard() {
    const std::string path = d->path;
    const bool riffa = d->riffa;
    {
        OpenCard& card = CardAt(path, riffa);
        std::lock_guard<std::mutex> lock(registryLock);
        card.lostCallbacks.erase(d.get());
    }
    d.reset();
    if (CardThread::IsCurrent()) {
        // Inside a status callback or a task: closing the card there would pull the engine
        // from under the code that runs it, and the thread cannot wait for its own end.
        CardThread::Post([path, riffa] {
            EndLease(path, riffa);
            CardThread::Release();
        });
        return;
    }
    CardThread::Run([&] { EndLease(path, riffa); });
    CardThread::Release();
}

const std::string& SharedCard::Path() const {
    return d->path;
}

bool SharedCard::IsRiffa() const {
    return d->riffa;
}

bool SharedCard::Claim(Direction direction, unsigned channel) {
    if (channel >= 4) {
        return false;
    }
    OpenCard& card = CardAt(d->path, d->riffa);
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
    OpenCard& card = CardAt(d->path, d->riffa);
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

void SharedCard::SetLostCallback(std::function<void()> callback) {
    OpenCard& card = CardAt(d->path, d->riffa);
    if (callback) {
        // Once per lease, though the loss may be told both by the card thread and at once below.
        auto told = std::make_shared<std::atomic<bool>>(false);
        callback = [callback, told] {
            if (!told->exchange(true)) {
                callback();
            }
        };
    }
    {
        std::lock_guard<std::mutex> lock(registryLock);
        if (callback) {
            card.lostCallbacks[d.get()] = callback;
        } else {
            card.lostCallbacks.erase(d.get());
        }
    }
    // A card found gone before the callback was set is told at once, on the card thread.
    if (callback && IsLost()) {
        CardThread::Hold();
        CardThread::Post([callback] {
            callback();
            CardThread::Release();
        });
    }
}

bool SharedCard::IsLost() {
    return !d->riffa && d->manager.IsCardLost();
}

}  // namespace KvPCIe
