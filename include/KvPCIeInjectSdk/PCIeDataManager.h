/// \file
/// PCIeDataManager: the one class through which a Qt host application drives FPGA PCI Express
/// frame cards. Including this header brings the public records and callbacks with it.
///
/// Threads. Call every operation from one thread, the host's control thread, except
/// WriteControlCmd, GetCaptureStatistics, GetInjectStatistics and LastErrorText, which any thread
/// may call at any time, also while the control thread opens or closes the card. Run a Qt event
/// loop on the thread that opens the card: the status timer of the capture engine fires there.
/// Frame callbacks run on the capture engine's polling thread.
///
/// Calling back in. A frame callback or a status callback may call StartCapture, StopCapture,
/// StartRecord, StopRecord and ImgSnapShot on its own channel or another one, and StartInject,
/// WriteControlCmd and the statistics, without a deadlock. A frame callback that stops or
/// restarts its own channel gets no further frame of the old run: the stop takes effect when the
/// callback returns (its buffer is not used after that). StopRecord there writes the frames on
/// their way first, which holds up the polling of every channel for as long. CloseCard and
/// OpenCard inside a callback return at once with no effect (false) and an error text: they
/// would destroy the engine that runs the callback. What cannot be helped: a callback that waits
/// for another thread while that thread is inside StopCapture, StopRecord or CloseCard waits
/// forever, since those wait for the callback to return.
///
/// Lifetime. The object holds one pointer to a private record. Copy and move share that record,
/// so copies drive the same card and engines. The record lives until the process ends; call
/// CloseCard before you drop the last copy to stop the engines' threads.
///
/// Several cards. Each manager holds the XDMA card that it opened, with engines of its own:
/// managers on different cards work side by side in one process, and a manager's OpenCard and
/// CloseCard close only its own card. One card has one holder: while a manager (or a copy) has a
/// channel capturing or injecting on its card, another manager's OpenCard of that card, and its
/// StartCapture or StartInject that would open it, are refused with an error text. A card that
/// another manager holds idle is taken over: that manager's card closes, and its calls fail
/// ("no XDMA card is open") rather than reach a card it no longer holds. Share one card through
/// copies of one manager.
///
/// Results. Nothing throws. Operations that forward to a capture or inject engine do nothing and
/// return false, 0 or null while no engine exists (before OpenCard, after CloseCard). After a
/// call that failed, LastErrorText says why in one line.
///
/// Simulated card. With KVPCIE_SIM=1 in the environment (or through KvPCIeSimulation.h) a
/// simulated card is listed after the real ones as "sim:xdma0" and behaves like a card.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeInjectSdkGlobal.h>
#include <KvPCIeInjectSdk/KvPCIeStatistics.h>
#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <QByteArray>

class QObject;
struct PCIeDataManagerPrivate;

/// Called once when the manager's open card is found gone (removed, its driver or driver model
/// ended): `devicePath` names it, `userContext` is what SetCardLostCallback was given.
typedef void (*CardLostCallback)(const char* devicePath, void* userContext);

/// The library's version, "major.minor.patch", as built.
KVPCIE_EXPORT const char* KvPCIeInjectSdkVersionString();

/// Drives the XDMA and RIFFA cards of the machine: open, capture, record, inject, commands,
/// status blocks, registers and card memory (the file's description says how to call it).
class KVPCIE_EXPORT PCIeDataManager {
public:
    /// Opens nothing. `parent` is accepted for Qt-style construction and not used.
    explicit PCIeDataManager(ePCIeFrameworkType type = XDMA_MM, QObject* parent = nullptr);
    ///@{
    /// Copies and moves share the private record (see Lifetime above); nothing is opened or
    /// closed by them.
    PCIeDataManager(const PCIeDataManager& other);
    PCIeDataManager& operator=(const PCIeDataManager& other);
    PCIeDataManager& operator=(PCIeDataManager&& other);
    ///@}

    // --- cards ---
    /// Closes the open card, opens the XDMA card at `devicePath` (a path from GetDevices: this
    /// restarts the device and writes the host-attach word) and creates the engines, even when
    /// the open failed; returns the open's result. A null path only creates the engines: the card
    /// stays as it is, and engines that existed are destroyed (their threads stopped) rather than
    /// left running out of reach.
    bool OpenCard(char* devicePath);
    /// Opens RIFFA device number `deviceIndex` (0 for the first listed), closing the RIFFA device
    /// that was open first, and replaces the RIFFA engines. False when there is no such device
    /// (a negative index included) or it does not open: the RIFFA device is then closed and the
    /// engines stay. Messages of the RIFFA device library go to standard output.
    bool OpenCard(int deviceIndex);
    /// Closes the XDMA card, then destroys the XDMA engines. The RIFFA side is untouched.
    void CloseCard();
    /// Destroys the RIFFA engines, then closes the RIFFA device that OpenCard(int) opened; the
    /// XDMA side is untouched. Nothing when no RIFFA device is open.
    void CloseRiffaCard();
    /// Always true.
    bool IsCardOpen();
    /// Stores four new zeroed 261-byte buffers (malloc'ed; free them) in paths[0..3] and copies
    /// the XDMA card paths into them. Returns how many were listed: four at most, so a fifth card
    /// is not listed. 0 for a null `paths`.
    int GetDevices(char** paths);
    /// Lists RIFFA devices into `list`, whatever the framework: fpgaCount and one slot per
    /// device. True when the listing succeeded. False for a null `list`, and when a sixth device
    /// is present: the record has five slots, which stay filled and counted.
    bool GetDevices(fpga_info_list* list);

    // --- capture (XDMA) ---
    ///@{
    /// Starts capturing `channel` (0 to 3) into `frameBuffer`, which must hold one frame
    /// (KvFrameSizeBytes) and stay valid until StopCapture returns. Opens the first card when
    /// none is open. `cardTiming`: the card generates the frame timing at 25 frames per second.
    /// Starting a started channel sets it up again, with two things to know: the new call's
    /// callback, `userContext` and `frameBuffer` replace the old ones only where they are not
    /// null (a null one keeps the old one; with a plain and an Ex callback both set, the plain
    /// one is called), and a recording in progress ends (call StartRecord again). StopCapture
    /// first for a clean slate. Sets `error` to ERR_NO_CARD when no card could be opened, else
    /// ERR_NONE; RIFFA mode returns false and leaves `error` alone.
    /// Refused with false and ERR_NO_CARD before anything reaches the card: a channel outside 0
    /// to 3, a null `frameBuffer`, a pixel type outside UYVY422..PIXEL32, a width or height
    /// outside 1 to 65535 (the card's 16-bit geometry fields), and a frame larger than one
    /// 20 MiB card buffer (20,971,520 bytes). A null `callback` is allowed: the channel's
    /// frames are then only recorded.
    bool StartCapture(unsigned int channel, bool cardTiming, int width, int height,
                      ePixelType pixelType, eErrorCode& error, CaptureFrameCallback callback,
                      void* userContext, char* frameBuffer);
    bool StartCapture(unsigned int channel, bool cardTiming, int width, int height,
                      ePixelType pixelType, eErrorCode& error, CaptureFrameCallbackEx callback,
                      void* userContext, char* frameBuffer);
    ///@}
    /// Whether StartCapture would take this channel and format, by the same checks and without
    /// touching the card: for a host that sizes its buffers only for a format the card can
    /// take. When not, LastErrorText says why, in StartCapture's words.
    bool IsCaptureFormatAcceptable(unsigned int channel, int width, int height,
                                   ePixelType pixelType);
    /// When it returns, the channel's frame buffer and callback are no longer used (called from
    /// the channel's own callback: once that callback returns). Channels outside 0 to 3 are
    /// ignored here and in every other operation that takes a channel (false or null results).
    void StopCapture(int channel);
    /// True while the channel is capturing (from StartCapture to StopCapture).
    bool IsStartCapture(int channel);
    /// Records the channel's frames to raw files below the application directory's
    /// "VideoRecord" folder (or the root chosen with KvPCIe::SetRecordRoot,
    /// KvPCIeRecording.h); false when the channel is not capturing.
    bool StartRecord(int channel);
    /// Ends the channel's recording; the frames still on their way are written before it
    /// returns. The recording thread stops when no channel records.
    void StopRecord(int channel);
    /// The folder of the channel's running or last take (absolute); "" when the channel has
    /// not recorded since the card was opened.
    QString GetRecordTakeFolder(int channel);
    /// Marks a snapshot request for the channel. The library itself keeps no picture: a host
    /// takes its snapshot from the frames its callback receives (kvpcie capture --snapshot).
    void ImgSnapShot(int channel);
    /// Status blocks that the card posts for `channel` are delivered to `callback` on the thread
    /// that opened the card, every 20 ms from its event loop. A null `callback` counts as
    /// switched off: the card's blocks then wait in its mailbox.
    void SetSystemStatusCallback(int channel, SystemStatusCallback callback, void* userContext,
                                 bool enable);
    /// Eight records, one per card buffer of the channel; owned by the library, overwritten by
    /// the next call and valid as long as the manager (CloseCard does not free them). Null
    /// without a capture engine.
    tagCaptureDelayStatusInfo* GetCaptureDelayStatus(int channel);
    /// Switches the card's display delay test on (register 0x100024 = 0x10) or off (0) and marks
    /// the channel; the records of GetCaptureDelayStatus carry the channel's test count.
    void SetImgDisplayDelayTest(int channel, bool enable);
    /// Accepted and not used: the library draws nothing of the capture channels itself.
    void SetCaptureFullScreenWgt(int channel, void* widget);

    // --- injection (XDMA) ---
    /// Queues one frame for `channel` (0 to 3), copied from `frameData`; call it once per frame.
    /// The first call on a stopped channel opens the first card when none is open, programs the
    /// channel at `frameRate` and returns after 50 to 100 ms; later calls ignore every argument
    /// but the channel and the data, which must hold one frame of the size fixed at the start
    /// (KvFrameSizeBytes, plus one line when UpdateParamSimulate switched the parameter line on).
    /// The card plays one frame per period; the library keeps its eight buffers filled from a
    /// queue of 15 frames. No buffer goes to the card before the first frame of the run, so
    /// nothing of an earlier run is ever played; when the queue runs dry, a buffer that comes
    /// free goes back with the newest frame again (an underrun repeats the newest picture). Results: true with ERR_NONE when queued; false with ERR_QUEUE_FULL
    /// when 15 frames wait (the frame is not taken: offer it again later); false with
    /// ERR_NO_CARD when no card could be opened. Refused with false and ERR_NO_CARD before
    /// anything reaches the card: on every call a channel outside 0 to 3 and a null
    /// `frameData`; on the first call of a run also a frame rate below 1, a pixel type outside
    /// UYVY422..BGR24 (PIXEL32 cannot be injected), a width or line count outside 1 to 65535,
    /// and a frame larger than one 20 MiB card buffer.
    /// False with ERR_NONE: a frame that outgrows those limits only with its parameter line.
    /// RIFFA mode returns false and leaves `error` alone.
    /// The counter stamp: as a frame goes to the card, the library writes its number (0 for the
    /// first frame after a start, counting up) over the frame's first pixel, least significant
    /// byte first: 1 byte for Y8, 2 for UYVY422 and Y16, 3 for Y16_Y8 and BGR24. The caller's
    /// data is not touched; the copy in the queue is.
    bool StartInject(unsigned int channel, int frameRate, int width, int height,
                     ePixelType pixelType, int linePeriod, char* frameData, eErrorCode& error);
    /// Whether the first StartInject of a run would take this channel and format, by the same
    /// checks and without touching the card (a parameter line switched on is not counted).
    /// When not, LastErrorText says why, in StartInject's words.
    bool IsInjectFormatAcceptable(unsigned int channel, int frameRate, int width, int height,
                                  ePixelType pixelType);
    /// Stops handing the channel's frames to the card and drops those still queued; the card
    /// stops playing the channel. Blocks 50 ms.
    void StopInject(int channel);
    /// True from the first StartInject of the channel to StopInject.
    bool IsStartInject(int channel);
    /// Eight records, one per card buffer of the channel, in seconds; owned by the library,
    /// overwritten by the next call and valid as long as the manager (CloseCard does not free
    /// them). Null without an inject engine.
    tagInjectDelayStatusInfo* GetInjectDelayStatus(int channel);
    /// `widget` is a GLWidget (KvPCIeInjectSdk/GLWidget.h): it is sized to the channel's frames.
    /// The library keeps no reference to it and pushes no pictures to it.
    void SetInjectFullScreenWgt(int channel, void* widget);
    /// `enable`: frames of the channel carry one parameter line after the image, from the
    /// channel's next start; StopInject switches it off again.
    void UpdateParamSimulate(int channel, bool enable, tagThermalImgParams params);
    /// Sends a control command (1 to 1,024 bytes) to the channel's command mailbox; true when it
    /// reached the card within 40 ms. From any thread. A false result leaves the command
    /// pending: it still goes out when the card is free, unless a newer command for the channel
    /// replaces it first. An empty command is never sent (false after 40 ms); a channel outside
    /// 0 to 3 or a command over 1,024 bytes is refused at once with false. The channel has one
    /// "sent" flag: a caller still waiting when another thread's newer command replaced its own
    /// is told true once the newer one goes out; commandsReplaced of GetInjectStatistics counts
    /// such replacements.
    bool WriteControlCmd(int channel, QByteArray command);

    // --- registers and card memory ---
    /// XDMA: the user register; 0 when no card is open. RIFFA: a register request over channel 0
    /// of the device opened by OpenCard(int); 0 when none is open or no whole reply came (a card
    /// that never answers is given up on after the driver's 25 s time-out).
    unsigned int ReadReg(unsigned int address);
    /// XDMA: 4 on success, -1/-2/-3 when the transfer failed, 0 when no card is open. RIFFA: the
    /// register request is sent, and 0 is returned.
    int WriteReg(unsigned int address, int value);
    /// XDMA: the user register into `value`; false, with `value` 0 and a reason, when no card is
    /// open or the read failed (ReadReg gives 0 for both). RIFFA: ReadReg's value, false only
    /// when no device is open.
    bool ReadReg(unsigned int address, unsigned int& value);
    ///@{
    /// DMA between card memory and `buffer`; false when no card is open, `buffer` is null or the
    /// transfer failed (an address at or past 2 GiB, or the end of card memory).
    bool ReadData(unsigned int address, unsigned int size, unsigned char* buffer);
    bool WriteData(unsigned int address, unsigned int size, unsigned char* buffer);
    ///@}

    // --- settings ---
    ///@{
    /// Flags of the engines that exist now (false in new engines). SetSaveLog switches the
    /// capture polling's per-buffer lines in the "./Log/Capture_AllChannel" log on; the other two
    /// are stored and change nothing the library produces (it draws no on-screen text).
    void SetSaveLog(bool on);
    void SetOsdHidden(bool on);
    void SetShowErrorFrame(bool on);
    ///@}

    // --- statistics and error texts ---
    ///@{
    /// The channel's stream counts (KvPCIeStatistics.h says what each counts and since when).
    /// False for a channel outside 0 to 3 and while no engine exists. From any thread; the
    /// frame paths count without a lock, so reading costs them nothing.
    bool GetCaptureStatistics(int channel, KvCaptureStatistics& out);
    bool GetInjectStatistics(int channel, KvInjectStatistics& out);
    ///@}
    /// Why the calling thread's last call on a PCIeDataManager failed, in one English line
    /// ("channel 7 is outside 0 to 3"); "" after a call that succeeded. Kept per thread, as
    /// errno is; valid until the thread's next call. The error codes and messages of the other
    /// operations are unchanged by it.
    const char* LastErrorText();

    // --- a card that goes away ---
    /// True once the open XDMA card was found gone: a transfer or event wait failed with the
    /// OS's word for a removed device (or an I/O error, and the card then answered no register
    /// read). From then on no frame is handed over in either direction, the statistics carry
    /// cardLost, and the calls that reach the card fail with a text that says so; CloseCard and
    /// an OpenCard once the card is back start afresh. From any thread.
    bool IsCardLost();
    /// `callback` is called once per open card that is found gone, on the thread that opened the
    /// card from its event loop (as status callbacks are), within 20 ms of the finding. Inside
    /// it, stop channels if you like; CloseCard and OpenCard are refused there (call them once
    /// it has returned). A null callback switches it off.
    void SetCardLostCallback(CardLostCallback callback, void* userContext);

    // --- CPU cores for pinned worker threads ---
    /// The lowest free core, now marked used; 0 (shared) when every core is in use.
    unsigned int GetIdealCpuCoreIndex();
    /// Marks `core` free again; a core outside the table is ignored.
    void ResetUsedCpuCoreIndex(unsigned int core);

private:
    bool PreProcCapture(KvFrameFormat& format, unsigned int channel, bool cardTiming, int width,
                        int height, ePixelType pixelType);

    PCIeDataManagerPrivate* d;
};
