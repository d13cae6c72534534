// The C interface's results: the calling thread's error text, and a guard that keeps every
// exception inside the library.
#pragma once

#include <KvPCIeInjectSdk/kvpcie.h>

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

}  // namespace kvpcie::capi
