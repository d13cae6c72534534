// Access to XDMA cards: listing, and per open card its open and close, registers, the user
// space and DMA transfers through the driver's device files.
//
// Locking, which the engines rely on:
// - Open and close hold the card's lock exclusively; every register access, user-space block and
//   DMA transfer holds it shared for its whole duration. A close therefore waits for the
//   transfers in flight (each is bounded: one DMA piece is at most 8 MiB), goes before any
//   transfer that starts after it, and every later call finds the handles closed and fails
//   with its usual result. Engine threads may keep running
//   across a close or a reopen: they see failures, never a freed handle.
// - Register and user-space access is serialised by the register lock; DMA reads by a
//   card-to-host lock and DMA writes by a host-to-card lock, so that an engine's transfer and a
//   host's ReadData/WriteData never interleave their seek and their reads on one handle.
// - Event files belong to whoever opens them (the capture engine), not to this state: a close
//   does not touch them, and their owner cancels them before it stops waiting.
//
// A card knows whether it is still there: a transfer that fails with an error saying that the
// device is gone (an I/O error counts when a register read right after fails too) marks it
// lost; the next open clears it. The engines stop handing frames over to a lost card, and the
// capture engine tells the facade.
#pragma once

#include "Common/WriterFirstSharedMutex.h"
#include "platform/DeviceFile.h"
#include "platform/DeviceInterfaces.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace kvpcie::xdma {

// Borrowed handle of an open device file; null is the invalid handle.
using XdmaFileHandle = platform::DeviceFile*;

constexpr int kPathBufferBytes = 261;     // so at most 260 characters
constexpr int kListedPathMaxBytes = 256;  // what a listed path may fill of its buffer
constexpr int kPathSlots = 4;

// Results of XdmaReadDevice/XdmaWriteDevice besides the size moved.
constexpr int kTransferCallFailed = -1;
constexpr int kTransferShort = -2;
constexpr int kTransferSeekFailed = -3;

// Fills paths[0..3] with four new zeroed 261-byte buffers (malloc'ed; the caller frees them)
// and copies the interface paths found into them. A fifth interface and later ones are not
// listed: the result counts the paths written, at most four. Null `paths` gives 0.
int XdmaGetDevices(const platform::Guid& interfaceClass, char** paths);

// One XDMA card as this process opens it: its device files, its locks and its open flag. Every
// open card is an object of its own, so one process drives several cards side by side and a
// handle never reaches a card other than its own. The engines and the facade hold the card
// they belong to; the operations keep their names as members.
class XdmaCard {
public:
    XdmaCard();
    // Closes the card (host-detach word and all) when it is open.
    ~XdmaCard();
    XdmaCard(const XdmaCard&) = delete;
    XdmaCard& operator=(const XdmaCard&) = delete;

    // Closes the card if open, restarts the devices at the driver level and opens the files
    // below `interfacePath`. A failed open closes what it had opened and leaves the card closed.
    bool XdmaOpen(const char* interfacePath);
    // Writes the host-detach word and closes the files; nothing when the card is not open.
    void XdmaClose();
    bool XdmaIsOpen() const;
    // The interface path of the open card; empty while closed.
    std::string Path() const;

    // 0 when the card is closed or the read fails.
    unsigned XdmaReadReg(unsigned address);
    // The transfer result (4 on success); -1 when the card is closed or `value` is null.
    int XdmaWriteReg(unsigned address, const unsigned* value);
    // The same for a value at hand, for the engines, which do not look at the result.
    void XdmaWriteRegValue(unsigned address, unsigned value) { XdmaWriteReg(address, &value); }
    // Whole 32-bit words of the user space. False only when the card is closed or `buffer` is
    // null with a size; a failed transfer is not reported.
    bool XdmaReadUser(unsigned address, void* buffer, unsigned size);
    bool XdmaWriteUser(unsigned address, const void* buffer, unsigned size);

    // DMA between card memory and the caller's buffer, in pieces of 8 MiB, straight into or out
    // of that buffer. False when the card is closed or the transfer failed.
    bool XdmaReadData(unsigned address, unsigned size, void* buffer);
    bool XdmaWriteData(unsigned address, unsigned size, const void* buffer);

    // A register read that says whether it worked: false when the card is closed or the read
    // failed (XdmaReadReg gives 0 for both).
    bool ReadRegChecked(unsigned address, unsigned& value);

    // --- whether the card is still there ---
    bool IsLost() const { return lost_.load(std::memory_order_acquire); }
    // When it was found lost, in milliseconds since 1970 (UTC), and the system's text for the
    // failure; 0 and "" while it is not lost.
    std::int64_t LostAtMs() const;
    std::string LostReason() const;
    // A call on one of the card's files outside this object (its event files) failed with
    // `code`, the OS layer's last error; `openCount` is what OpenCount() said before the call.
    void NoteFailure(int code, std::uint64_t openCount);
    // Counts the opens, so that a failure of an earlier open is not held against this one.
    std::uint64_t OpenCount() const { return openCount_.load(std::memory_order_acquire); }

private:
    void CloseLocked();
    // `move` on `file` under the card's lock and `lock`: its result, or none when the file is
    // not open. A failure is checked for a lost card once the locks are let go.
    template <typename Move>
    std::optional<int> Transfer(std::mutex& lock, const platform::DeviceFilePtr& file, Move move);
    // Whether the card still answers a register read.
    bool StillAnswers();

    mutable WriterFirstSharedMutex access_;  // shared per transfer, exclusive to open/close
    std::mutex regLock_;
    std::mutex c2hLock_;
    std::mutex h2cLock_;
    platform::DeviceFilePtr user_;
    platform::DeviceFilePtr h2c_;
    platform::DeviceFilePtr c2h_;
    platform::DeviceFilePtr control_;
    std::string path_;
    bool isOpen_ = false;

    std::atomic<std::uint64_t> openCount_{0};
    std::atomic<bool> lost_{false};
    mutable std::mutex lostLock_;  // the fields below
    std::int64_t lostAtMs_ = 0;
    std::string lostReason_;
};

// `size` on success, else kTransferCallFailed, kTransferShort or kTransferSeekFailed. Offsets
// must stay below 2 GiB (the driver's signed 32-bit seek); sizes above 2 GiB - 1 cannot be
// reported and fail as calls. The caller keeps transfers on one handle apart.
int XdmaReadDevice(XdmaFileHandle file, unsigned offset, unsigned size, void* buffer);
int XdmaWriteDevice(XdmaFileHandle file, unsigned offset, unsigned size, const void* buffer);

// Opens interfacePath + "\" + node. Paths over 260 characters are refused.
platform::DeviceFilePtr XdmaOpenDeviceFile(const char* interfacePath, const char* node,
                                           unsigned access);
// The driver-level restart before an open: of the card at `cardPath` alone where the OS can
// name its device, else of every Xilinx device that is not in use.
void XdmaRestartDevices(const char* cardPath);

}  // namespace kvpcie::xdma
