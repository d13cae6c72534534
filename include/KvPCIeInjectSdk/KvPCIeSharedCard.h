/// \file
/// One card thread and one card registry per process, for hosts that have no Qt event loop of
/// their own (the GStreamer plugin, the Python module, C and .NET hosts) and for several such
/// front-ends in one process: a Python card and a GStreamer source on the same card share one
/// open card and one thread.
///
/// The card thread makes every control call of the library for the cards it holds open (open,
/// start, stop, close, each injected frame) and runs the Qt event loop that the library needs
/// on the thread that opened a card: the status timer fires there, so status callbacks run on
/// the card thread. It runs while at least one user holds it and ends after the last lets go.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeInjectSdkGlobal.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace KvPCIe {

/// The process's card thread. Every member may be called from any thread, the card thread
/// itself included (from inside a status callback or a task): there it never waits on itself.
class KVPCIE_EXPORT CardThread {
public:
    /// Starts the thread for the first holder; later holders share it.
    static void Hold();
    /// Lets go of one hold; the last one ends the thread. From another thread it returns once
    /// the thread has ended; on the card thread, the thread ends after the running task or
    /// callback returns.
    static void Release();
    /// Runs `task` on the card thread and returns once it has run; on the card thread it runs at
    /// once. Only between Hold and Release.
    static void Run(const std::function<void()>& task);
    /// Queues `task` for the card thread and returns at once; it runs after the task or callback
    /// running now. Only between Hold and Release; the task must release what it holds.
    static void Post(std::function<void()> task);
    /// True on the card thread.
    static bool IsCurrent();

    CardThread() = delete;
};

/// A lease on one open card, shared by every user in the process that names the same path:
/// four capture streams on four channels, or a capture and an injection on one card, drive
/// copies of one PCIeDataManager. The card opens with the first lease and closes with the
/// last. Every control call goes through Run, on the card thread.
class KVPCIE_EXPORT SharedCard {
public:
    /// Opens the card at `devicePath` ("" = the first XDMA card listed), or joins the users
    /// that have it open. Null, with `error` saying why, when it would not open. From any
    /// thread but a frame callback's.
    static std::unique_ptr<SharedCard> Acquire(const std::string& devicePath, std::string& error);
    /// The same for RIFFA device number `index` (registers only): the first lease opens it,
    /// the last one closes it, and nothing else. Its Path() is "riffa:" and the number.
    static std::unique_ptr<SharedCard> AcquireRiffa(int index, std::string& error);
    /// The last lease of a path closes its card. On the card thread (inside a status callback)
    /// the close follows when the callback has returned; from another thread it has happened
    /// when the destructor returns. Not from inside a frame callback.
    ~SharedCard();

    /// The XDMA card paths the library lists (four at most).
    static std::vector<std::string> ListCards();
    /// The RIFFA device list; false when the driver gave none.
    static bool ListRiffa(fpga_info_list& list);

    /// The card's path, as the listing gives it.
    const std::string& Path() const;
    /// True for a RIFFA device's lease.
    bool IsRiffa() const;

    /// The two uses of a channel, each claimed on its own.
    enum class Direction {
        Capture,  ///< the capture channel
        Inject    ///< the inject channel
    };
    /// One user per channel and direction: a second start of a channel would take over the
    /// first one's frames. False when another user has the channel, or for a channel outside
    /// 0 to 3. Any thread.
    bool Claim(Direction direction, unsigned channel);
    /// Gives a claimed channel back; the user stops it first. Any thread.
    void Unclaim(Direction direction, unsigned channel);

    /// Runs `operation` with the card's manager on the card thread and returns once it has run.
    /// LastErrorText inside `operation` speaks of its own calls.
    void Run(const std::function<void(PCIeDataManager&)>& operation);
    /// For the calls that the library takes from any thread (statistics, commands).
    PCIeDataManager& AnyThreadManager();

    /// `callback` is called once, on the card thread, when the card is found gone (at once if
    /// it already is); an empty one switches it off. Each lease has its own. Any thread.
    void SetLostCallback(std::function<void()> callback);
    /// True once the card was found gone (PCIeDataManager::IsCardLost). Any thread.
    bool IsLost();

    SharedCard(const SharedCard&) = delete;
    SharedCard& operator=(const SharedCard&) = delete;

private:
    struct Private;
    explicit SharedCard(std::unique_ptr<Private> d);
    std::unique_ptr<Private> d;
};

}  // namespace KvPCIe
