// One open card per device path, shared by every user in the process that names it (GStreamer
// elements, Python cards): four sources on four channels, or a source and a sink on one card,
// drive copies of one PCIeDataManager. The card opens with the first lease and closes with the
// last. Every control call goes through Run, on the card thread.
#pragma once

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kvpcie::tools {

class SharedCard {
public:
    // Opens the card at `devicePath` ("" = the first XDMA card listed), or joins the elements
    // that have it open. Null, with `error` saying why, when it would not open.
    static std::unique_ptr<SharedCard> Acquire(const std::string& devicePath, std::string& error);
    ~SharedCard();  // the last lease of a path closes its card

    // The XDMA card paths the library lists (four at most), and the RIFFA device list; both
    // on the card thread.
    static std::vector<std::string> ListCards();
    static bool ListRiffa(fpga_info_list& list);

    const std::string& Path() const { return path_; }

    // One user per channel and direction: a second start of a channel would take over the
    // first one's frames. False when another user has the channel.
    enum class Direction { Capture, Inject };
    bool Claim(Direction direction, unsigned channel);
    void Unclaim(Direction direction, unsigned channel);

    // Runs `operation` with the card's manager on the card thread, which every control call
    // must use; returns once it has run. LastErrorText in `operation` speaks of its own calls.
    void Run(const std::function<void(PCIeDataManager&)>& operation);
    // The calls that the library takes from any thread (statistics, commands) use this one.
    PCIeDataManager& AnyThreadManager() { return manager_; }

    SharedCard(const SharedCard&) = delete;
    SharedCard& operator=(const SharedCard&) = delete;

private:
    SharedCard(std::string path, PCIeDataManager manager);

    std::string path_;
    PCIeDataManager manager_;  // a copy of the path's manager: copies share the card
};

}  // namespace kvpcie::tools
