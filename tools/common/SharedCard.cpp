#include "SharedCard.h"

#include "CardThread.h"

#include <cstdlib>
#include <map>
#include <mutex>
#include <vector>

namespace kvpcie::tools {
namespace {

struct OpenCard {
    // Kept for the process's life once made: the library keeps a manager's record until the
    // process ends anyway, so a path reopened later reuses its manager.
    PCIeDataManager manager;
    int leases = 0;
    bool claimed[2][4] = {};  // [Direction][channel]
};

std::mutex cardsLock;
std::map<std::string, OpenCard>& Cards() {
    static auto* const cards = new std::map<std::string, OpenCard>;
    return *cards;
}

}  // namespace

std::vector<std::string> SharedCard::ListCards() {
    std::vector<std::string> listed;
    CardThread& cardThread = CardThread::Instance();
    cardThread.Hold();
    cardThread.Run([&] {
        static PCIeDataManager lister;  // one: a manager's record is never freed
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
    });
    cardThread.Release();
    return listed;
}

bool SharedCard::ListRiffa(fpga_info_list& list) {
    bool listed = false;
    CardThread& cardThread = CardThread::Instance();
    cardThread.Hold();
    cardThread.Run([&] {
        static PCIeDataManager lister(RIFFA);
        listed = lister.GetDevices(&list);
    });
    cardThread.Release();
    return listed;
}

std::unique_ptr<SharedCard> SharedCard::Acquire(const std::string& devicePath,
                                                std::string& error) {
    std::lock_guard<std::mutex> lock(cardsLock);
    CardThread& cardThread = CardThread::Instance();
    cardThread.Hold();
    std::string path = devicePath;
    if (path.empty()) {
        const std::vector<std::string> listed = ListCards();
        if (listed.empty()) {
            cardThread.Release();
            error = "no XDMA card is listed (KVPCIE_SIM=1 presents the simulated card)";
            return nullptr;
        }
        path = listed.front();
    }
    OpenCard& card = Cards()[path];
    if (card.leases == 0) {
        bool opened = false;
        cardThread.Run([&] {
            std::string name = path;  // OpenCard takes a char*
            opened = card.manager.OpenCard(name.data());
            if (!opened) {
                error = "the card \"" + path + "\" would not open: " + card.manager.LastErrorText();
                card.manager.CloseCard();  // the engines it made anyway
            }
        });
        if (!opened) {
            cardThread.Release();
            return nullptr;
        }
    }
    ++card.leases;
    return std::unique_ptr<SharedCard>(new SharedCard(path, card.manager));
}

SharedCard::SharedCard(std::string path, PCIeDataManager manager)
    : path_(std::move(path)), manager_(std::move(manager)) {}

SharedCard::~SharedCard() {
    std::lock_guard<std::mutex> lock(cardsLock);
    OpenCard& card = Cards()[path_];
    if (--card.leases == 0) {
        CardThread::Instance().Run([&] { card.manager.CloseCard(); });
    }
    CardThread::Instance().Release();
}

bool SharedCard::Claim(Direction direction, unsigned channel) {
    std::lock_guard<std::mutex> lock(cardsLock);
    bool& claimed = Cards()[path_].claimed[static_cast<int>(direction)][channel % 4];
    if (channel >= 4 || claimed) {
        return false;
    }
    claimed = true;
    return true;
}

void SharedCard::Unclaim(Direction direction, unsigned channel) {
    if (channel >= 4) {
        return;
    }
    std::lock_guard<std::mutex> lock(cardsLock);
    Cards()[path_].claimed[static_cast<int>(direction)][channel] = false;
}

void SharedCard::Run(const std::function<void(PCIeDataManager&)>& operation) {
    CardThread::Instance().Run([&] { operation(manager_); });
}

}  // namespace kvpcie::tools
