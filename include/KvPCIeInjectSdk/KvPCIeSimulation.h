/// \file
/// Control of the simulated card: create and remove simulated devices, raise their events, and
/// look at what the host did to them. For tests, tools and demonstrations without hardware.
///
/// A simulated XDMA card is listed with the path "sim:xdma<N>" after the machine's real cards and
/// behaves towards the library like a card under the XDMA driver; a simulated RIFFA device is
/// listed as "sim:riffa<N>" after the real RIFFA devices and answers the RIFFA driver's requests.
/// The environment variable KVPCIE_SIM presents simulated devices without any code: "1" gives one
/// XDMA card and one RIFFA device, "xdma:N,riffa:M" gives N and M (0 to 8 each, numbered from 0);
/// unset or empty gives none. The variable is read at the first listing or open and again
/// whenever its value has changed.
///
/// Every function may be called from any thread. Functions taking a card or device number return
/// false (or an empty result) when there is no such card or device.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeInjectSdkGlobal.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace KvPCIeSim {

/// Registers that only the simulated card has (its simulation control block).
constexpr std::uint32_t kRegIdentity = 0x1F0000;  ///< reads kIdentityValue
constexpr std::uint32_t kIdentityValue = 0x53494D31;  ///< "SIM1"
constexpr std::uint32_t kRegSurpriseRemoval = 0x1F0008;  ///< write 1: the card drops off the bus

/// The simulation control block of channel c (0 to 3): what capture channel c's external source
/// does, and what the card made of inject channel c. Register address = ControlBlock(c) + offset.
constexpr std::uint32_t ControlBlock(unsigned channel) {
    return 0x1F1000 + channel * 0x1000;
}
/// 0: a test pattern (the default); 1: the frame last played on inject channel c; 2: a moving,
/// camera-like scene in the channel's format (gradients, a warm disc, a dark bar, the frame's
/// number drawn top right, sensor noise), for demonstrations.
constexpr std::uint32_t kCtlCaptureSource = 0x00;
/// Frames per second of the source when the card does not time the frames itself (25); 0: none.
constexpr std::uint32_t kCtlExternalFrameRate = 0x04;
///@{
/// Read-only counts since the capture channel was enabled: frames made ready, and frames lost
/// because the host had not yet taken the buffer they were due in.
constexpr std::uint32_t kCtlFramesProduced = 0x08;
constexpr std::uint32_t kCtlFramesDropped = 0x0C;
///@}
///@{
/// Read-only counts since the inject channel was enabled: buffers played, and ticks of its frame
/// clock that found no buffer ready (the last frame then plays again).
constexpr std::uint32_t kCtlInjectPlayed = 0x10;
constexpr std::uint32_t kCtlInjectUnderruns = 0x14;
///@}
/// Read-only: commands the card took from the inject channel's command mailbox.
constexpr std::uint32_t kCtlCommandsTaken = 0x18;
/// Microseconds bit 10 of the command control word reads set after the card took a command (50).
/// 0xFFFFFFFF: the card takes none; a start stays set until the host writes the word without it
/// or the card restarts.
constexpr std::uint32_t kCtlCommandBusyMicros = 0x1C;
/// N > 0: frame n is an error frame (status bit 5) when (n + 1) % N == 0; 0: none.
constexpr std::uint32_t kCtlErrorFrameEvery = 0x20;
/// N: the next N card-to-host transfers from the channel's card memory fail. Reads the count
/// still to come.
constexpr std::uint32_t kCtlDmaFaults = 0x24;
/// n (1 to 1,024): the first n bytes staged at kCtlStatusStaging become a status block, posted
/// to the channel's mailbox, or queued while the host has not emptied it. Other values: ignored.
constexpr std::uint32_t kCtlPostStatus = 0x28;
/// Read-only: the length in bytes of the last command taken.
constexpr std::uint32_t kCtlLastCommandLength = 0x2C;
/// Read-only: bytes 0-3 of the last inject frame played, least significant first; zeros past the
/// frame's end.
constexpr std::uint32_t kCtlLastInjectHead = 0x30;
/// 1: frames raise no user event.
constexpr std::uint32_t kCtlFrameEventOff = 0x34;
/// N (1 to 8): the host's writes to the status of capture buffer N - 1 do not take, so a frame
/// the card made ready there stays ready, and the frames due in it are dropped; 0: none.
constexpr std::uint32_t kCtlStuckCaptureBuffer = 0x38;
/// A capture frame's number since the channel was enabled (from 0), for kCtlReadyTimeLow/High.
constexpr std::uint32_t kCtlReadyTimeFrame = 0x3C;
///@{
/// Read-only: when the card made the frame named at kCtlReadyTimeFrame ready, in nanoseconds of
/// the machine's monotonic clock (std::chrono::steady_clock): what CaptureReadyTime gives, for a
/// process that reaches the card only through its registers (a driver model). 0 in both words
/// once the card no longer keeps that frame's time (it keeps the last 64). One reader per
/// channel: the frame number is the channel's.
constexpr std::uint32_t kCtlReadyTimeLow = 0x40;
constexpr std::uint32_t kCtlReadyTimeHigh = 0x44;
///@}
/// 1,024 bytes, each word least significant byte first.
constexpr std::uint32_t kCtlStatusStaging = 0x400;
/// Read-only: the last command taken, 1,024 bytes as kCtlStatusStaging; zeros past its length.
constexpr std::uint32_t kCtlLastCommand = 0x800;

/// One access of the host to the card, in the order the card saw them.
struct CardAccess {
    /// What the host did.
    enum Kind : std::uint32_t {
        RegisterWrite,  ///< address, value
        Restart,        ///< the driver-level restart of the device
        CardToHost,     ///< DMA read: address, value = bytes asked
        HostToCard,     ///< DMA write: address, value = bytes asked
    };
    Kind kind;               ///< what the host did
    std::uint32_t address;   ///< the register or card memory address
    std::uint32_t value;     ///< the value written, or the bytes asked
};

/// The card's running counts of what the host did to it, since the card was made.
struct CardCounters {
    std::uint64_t registerReads;        ///< register reads
    std::uint64_t registerWrites;       ///< register writes
    std::uint64_t cardToHostTransfers;  ///< DMA reads of card memory
    std::uint64_t hostToCardTransfers;  ///< DMA writes to card memory
    std::uint64_t refusedTransfers;  ///< over the driver's 8 MiB limit, or on a removed card
    std::uint64_t restarts;          ///< driver-level restarts of the device
    std::uint64_t userEventsRaised;  ///< user interrupts the card raised
    std::uint64_t openFiles;  ///< device files of the card that the host holds open now
};

/// Replaces every simulated device with those that a KVPCIE_SIM value names. False, changing
/// nothing, when the value does not parse. Devices that are replaced behave as removed towards
/// handles still open on them.
KVPCIE_EXPORT bool Configure(const char* value);

/// Adds a simulated XDMA card and returns its number (its path is XdmaCardPath of it).
KVPCIE_EXPORT int AddXdmaCard();
/// Removes the card: it is listed no more, and handles still open on it fail. False for a number
/// that names no card.
KVPCIE_EXPORT bool RemoveXdmaCard(int card);
///@{
/// The numbers of the cards present, in listing order; the path a card of that number has.
KVPCIE_EXPORT std::vector<int> XdmaCardNumbers();
KVPCIE_EXPORT std::string XdmaCardPath(int card);
///@}

/// Raises user interrupt `event` (0 to 15): one waiting read of "event_<event>" returns 1.
/// Raises that nobody has read yet merge into one, as on the card.
KVPCIE_EXPORT bool RaiseUserEvent(int card, int event);
/// How long an event read waits before it gives up with the byte 0 (3,000 ms on a card).
KVPCIE_EXPORT bool SetUserEventTimeout(int card, int milliseconds);
/// Surprise removal (true): every later transfer and event read of the card fails, as does
/// writing 1 to kRegSurpriseRemoval. The driver-level restart of the next open brings it back.
KVPCIE_EXPORT bool SetSurpriseRemoved(int card, bool removed);

/// An absent node ("user", "c2h_0", "event_2", ...) fails to open, as a driver without that
/// file would; files already open stay usable.
KVPCIE_EXPORT bool SetNodeAbsent(int card, const char* node, bool absent);

/// The accesses logged since the last call (the newest 65,536 at most), oldest first.
KVPCIE_EXPORT std::vector<CardAccess> TakeAccessLog(int card);
/// The card's running counts (CardCounters above); false for a number that names no card.
KVPCIE_EXPORT bool ReadCounters(int card, CardCounters& counters);

///@{
/// The card's own view, without going through the host's files and without being logged.
KVPCIE_EXPORT bool PeekRegister(int card, std::uint32_t address, std::uint32_t& value);
KVPCIE_EXPORT bool PeekMemory(int card, std::uint64_t address, void* buffer, std::size_t size);
KVPCIE_EXPORT bool PokeMemory(int card, std::uint64_t address, const void* data, std::size_t size);
///@}
/// Sets a register as the card itself would: not logged, not counted, and without what a host
/// write sets off (a poked enable mask starts no channel, a poked status word posts nothing).
KVPCIE_EXPORT bool PokeRegister(int card, std::uint32_t address, std::uint32_t value);

/// The external source of enabled capture channel `channel` sends `count` (1 to 8) frames at
/// once, apart from its clock. All their data is written before any of them is announced; the
/// buffer statuses, the latest-buffer register and the user events then change together, so a
/// host sees them in one pass. A frame due in a buffer the host still holds is dropped, as from
/// the clock. False when the channel is not 0 to 3 or not enabled, or the card is removed.
KVPCIE_EXPORT bool ProduceCaptureFrames(int card, int channel, int count);
/// When frame `frameNumber` (counted from 0 at the channel's enable) was made ready:
/// std::chrono::steady_clock nanoseconds since its epoch. Kept for the channel's last 64 frame
/// numbers; false for a dropped frame or one not kept.
KVPCIE_EXPORT bool CaptureReadyTime(int card, int channel, std::uint32_t frameNumber,
                                    std::int64_t& steadyNanos);
/// Since inject channel `channel` was last enabled: the longest time from the card's release of a
/// buffer (after playing it) to the host's start of refilling it, and how many refills were
/// timed. False when the channel is not 0 to 3.
KVPCIE_EXPORT bool InjectRefillTimes(int card, int channel, std::int64_t& longestNanos,
                                     std::uint64_t& count);
/// InjectRefillTimes counts from now on, as at an enable: for a host that wants its steady
/// state apart from its first filling of the ring. False when the channel is not 0 to 3.
KVPCIE_EXPORT bool RestartInjectRefillTimes(int card, int channel);

// --- RIFFA devices ---
///
// A simulated RIFFA device has its own register file behind channel 0, reached with the library's
// four-word register requests: kRegIdentity reads kIdentityValue and ignores writes, every other
// register reads 0 until written. It answers a read request with one reply on channel 0; a
// receive that finds no reply ends at once as the driver ends a request whose time-out passed.
// Its list entry: its number, 12 channels, the name "KvSimRiffa", vendor 0x10EE, device 0x7028.

/// One request of the host to the RIFFA driver, as the device saw it. Send and receive carry
/// their input record; a list request carries the slot index asked in deviceIndex; the other
/// fields are 0. `data`: the words a send carried (at most lengthWords of them); empty otherwise.
struct RiffaRequest {
    std::uint32_t controlCode;       ///< the driver request's control code
    std::int32_t deviceIndex;        ///< the device, or the slot a list request asked for
    std::int32_t channel;            ///< the RIFFA channel
    std::int32_t lengthWords;        ///< the transfer's length in 32-bit words
    std::int32_t offset;             ///< the transfer's offset in words
    std::int32_t last;               ///< 1: the last transfer of a send
    std::int64_t timeout;            ///< the request's time-out in milliseconds
    std::vector<std::uint8_t> data;  ///< the words a send carried
};

/// Adds a simulated RIFFA device and returns its number (its path is RiffaDevicePath of it).
/// A removed device fails every request of the handles still open on it.
KVPCIE_EXPORT int AddRiffaDevice();
///@{
/// Removes the device; false for a number that names none. The numbers present, in order.
KVPCIE_EXPORT bool RemoveRiffaDevice(int device);
KVPCIE_EXPORT std::vector<int> RiffaDeviceNumbers();
KVPCIE_EXPORT std::string RiffaDevicePath(int device);
///@}

/// A device that never answers (true) takes every send but acts on none: writes are not applied
/// and no reply is queued, so every receive ends as timed out.
KVPCIE_EXPORT bool SetRiffaNeverAnswers(int device, bool never);

/// The requests logged since the last call (the newest 4,096 at most), oldest first.
KVPCIE_EXPORT std::vector<RiffaRequest> TakeRiffaRequestLog(int device);

///@{
/// The device's own view of its registers, without a request and without being logged.
KVPCIE_EXPORT bool PeekRiffaRegister(int device, std::uint32_t address, std::uint32_t& value);
KVPCIE_EXPORT bool PokeRiffaRegister(int device, std::uint32_t address, std::uint32_t value);
///@}

}  ///< namespace KvPCIeSim
