// An open device file of the OS layer: a driver node, a simulated node or a plain file.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace kvpcie::platform {

// Access bits, with the values of GENERIC_READ and GENERIC_WRITE so that a mask passes
// unchanged to the Windows backend.
enum : unsigned {
    kAccessRead = 0x80000000u,
    kAccessWrite = 0x40000000u,
    kAccessReadWrite = kAccessRead | kAccessWrite,
};

// Windows-style file semantics whatever the backend: Seek positions once, and each Read or
// Write moves from the position and advances it by what was moved. Failing calls set
// LastError(). One thread at a time may use a file, except for Cancel.
class DeviceFile {
public:
    virtual ~DeviceFile() = default;
    DeviceFile(const DeviceFile&) = delete;
    DeviceFile& operator=(const DeviceFile&) = delete;

    // Position from the start of the file. A negative position fails, as the driver's 32-bit
    // seek distance does for offsets of 2 GiB and more.
    virtual bool Seek(std::int64_t position) = 0;

    // One system read or write. False when the call fails; true with moved < size when the
    // call moved fewer bytes than asked.
    virtual bool Read(void* buffer, std::uint32_t size, std::uint32_t& moved) = 0;
    virtual bool Write(const void* buffer, std::uint32_t size, std::uint32_t& moved) = 0;

    // Ends a read that is waiting (event files) and makes every later read and write fail at
    // once, so that a thread blocked on the file can always be stopped. Any thread may call it.
    virtual void Cancel() = 0;

protected:
    DeviceFile() = default;
};

using DeviceFilePtr = std::unique_ptr<DeviceFile>;

// Opens "<interface path>\<node>" (node names such as "user", "c2h_0", "event_3"; each backend
// maps them to its driver's files), a path that begins with "sim:" (the simulated card, in
// every build) or a plain file path. Null on failure, with LastError() set.
DeviceFilePtr OpenDeviceFile(const std::string& path, unsigned access);

}  // namespace kvpcie::platform
