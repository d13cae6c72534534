// The device library of cards under the RIFFA driver: listing, opening by index, send and
// receive requests on a channel, and register access over channel 0.
#pragma once

#include "platform/ControlDevice.h"

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

namespace kvpcie::riffa {

// The open device: its handle and the index it was opened by, which every request carries.
struct fpga_t {
    platform::ControlDevicePtr deviceHandle;
    std::int32_t deviceIndex = 0;
};

// One per facade, created with it. Failures are results and messages on standard output; no
// operation throws. Register reads are serialised among themselves, register writes likewise;
// Open, Close and List take no lock, so the caller must not close or reopen the device while
// requests run.
class RiffaDevice {
public:
    RiffaDevice();
    ~RiffaDevice();
    RiffaDevice(const RiffaDevice&) = delete;
    RiffaDevice& operator=(const RiffaDevice&) = delete;

    // Fills `list` (fpgaCount from 0, one slot per device, by the driver). 0 when the
    // enumeration ended normally, else the system's error code: the code of "invalid
    // parameter" for a null `list`, and that of "more data" when a sixth device is present (the
    // record has five slots; the five listed stay counted).
    int List(fpga_info_list* list);
    // Closes the open device first, whatever happens next. Null when there is no device at
    // `index` (negative ones included) or it cannot be opened.
    fpga_t* Open(int index);
    void Close();
    bool IsOpen() const { return isOpen_.load(std::memory_order_acquire); }

    // The count the driver reports; 0 when not open or when the request failed.
    std::int32_t Send(int channel, void* data, int lengthWords, int offset, int last,
                      std::int64_t timeout);
    std::int32_t Receive(int channel, void* data, int lengthWords, std::int64_t timeout);
    void Reset();

    // 0 when not open, or when no whole reply arrived.
    std::uint32_t ReadReg(std::uint32_t address);
    // Data first, address second; the send count, 0 when not open.
    std::int32_t WriteReg(std::uint32_t data, std::uint32_t address);

private:
    platform::ControlDevicePtr OpenDeviceHandle(int index, bool overlapped);
    std::int32_t Transfer(std::uint32_t code, int channel, void* data, int lengthWords, int offset,
                          int last, std::int64_t timeout);
    // The handle of the open device; null (with the message printed) when it is unusable.
    platform::ControlDevice* UsableHandle();

    std::mutex readLock_;
    std::mutex writeLock_;
    std::unique_ptr<std::uint8_t[]> writeRequest_;
    std::unique_ptr<std::uint8_t[]> readRequest_;
    std::atomic<bool> isOpen_{false};
    std::unique_ptr<fpga_t> fpga_;
};

}  // namespace kvpcie::riffa
