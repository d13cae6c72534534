// The C interface's results: the calling thread's error text, and a guard that keeps every
// exception inside the library.
#pragma once

#include <KvPCIeInjectSdk/kvpcie.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

namespace kvpcie::capi {

// Sets the calling thread's text and returns `status`.
kvpcie_status Fail(kvpcie_status status, const std::string& text);
// Clears the text; KVPCIE_OK.
kvpcie_status Succeed();
const char* LastErrorText();

// Runs `body`, which returns a status; an exception (an allocation that failed) becomes
// KVPCIE_ERROR with a text.
template <typename Body>
kvpcie_status Guarded(Body body) {
    try {
        return body();
    } catch (...) {
        return Fail(KVPCIE_ERROR, "out of memory");
    }
}

bool ChannelValid(int channel);
kvpcie_status BadChannel(int channel);

// `text` with its terminating 0 into the caller's `buffer` of `capacity` bytes; refused, saying
// how many bytes it needs, when it does not fit (the buffer is then left as it was).
kvpcie_status CopyText(const std::string& text, char* buffer, std::size_t capacity);

// The caller's record gets the first `size` bytes of ours: an older caller's shorter record
// is filled as far as it goes; `size` itself stays the caller's.
template <typename Record>
kvpcie_status CopyOut(const Record& ours, Record* theirs) {
    const std::uint32_t size = theirs->size;
    if (size < sizeof(std::uint32_t)) {
        return Fail(KVPCIE_BAD_ARGUMENT, "set the record's size before the call");
    }
    std::memcpy(theirs, &ours, std::min<std::size_t>(size, sizeof(Record)));
    theirs->size = size;
    return Succeed();
}

}  // namespace kvpcie::capi
