// The subcommands of kvpcie and what they share.
#pragma once

#include "Arguments.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <atomic>
#include <string>
#include <vector>

namespace kvpcie::cli {

// A failure while running: the message goes to standard error on one line, and the exit code
// is 1.
struct RuntimeError {
    std::string message;
};

// Set by Ctrl-C; long-running commands end cleanly when they see it.
extern std::atomic<bool> interrupted;
void CatchInterrupts();

// Prints `help` and returns true when the arguments ask for it (--help or -h).
bool PrintHelpIfAsked(const std::vector<std::string>& args, const char* help);

// A runtime error unless `path` names a regular file that can be opened for reading: a folder
// or a missing file is reported in one line, before any stream reads it.
void RequireReadableFile(const std::string& path);

// The cards that --card chose, by their index in the XDMA listing ({0} by default); only
// loopback takes more than one.
extern std::vector<int> chosenCards;
// Opens the XDMA card of index `card` in the listing (the first chosen one by default); a
// runtime error that says how to use the simulated card when none is found, and one that says
// how many are listed when that one is not. Returns the card's path.
std::string OpenChosenCard(PCIeDataManager& manager, int card = -1);
// A command's card: opened by the constructor as OpenChosenCard does (its errors thrown), and
// closed on every way out of the command, a thrown error or Ctrl-C included.
class OpenedCard {
public:
    explicit OpenedCard(int card = -1) : path_(OpenChosenCard(manager_, card)) {}
    ~OpenedCard() { manager_.CloseCard(); }
    OpenedCard(const OpenedCard&) = delete;
    OpenedCard& operator=(const OpenedCard&) = delete;

    PCIeDataManager& Manager() { return manager_; }
    const std::string& Path() const { return path_; }

private:
    PCIeDataManager manager_;
    std::string path_;
};
// The number of the simulated card in this process that `path` names; -1 for any other card
// (a real one, or the driver model's in its own process).
int InProcessSimCardNumber(const std::string& path);
// True once the open card was found gone (removed, or its driver ended); the first time, a line
// on standard error says so. A run that finds it ends there and exits with 1.
bool CardIsGone(PCIeDataManager& manager, int card = -1);
// The simulated card answers its identity register.
bool IsSimulatedCard(PCIeDataManager& manager);

// The simulated card's control block of a channel, reached with ordinary register access.
constexpr unsigned ControlBlock(int channel) {
    return 0x1F1000 + static_cast<unsigned>(channel) * 0x1000;
}

// Each returns the process's exit code; usage and runtime errors are thrown.
int RunList(const std::vector<std::string>& args);
int RunReg(const std::vector<std::string>& args);
int RunMem(const std::vector<std::string>& args);
int RunCmd(const std::vector<std::string>& args);
int RunStatus(const std::vector<std::string>& args);
int RunCapture(const std::vector<std::string>& args);
int RunInject(const std::vector<std::string>& args);
int RunLoopback(const std::vector<std::string>& args);
int RunRaw(const std::vector<std::string>& args);

}  // namespace kvpcie::cli
