// The OS layer's last-error value, the same for every backend.
#include "platform/SystemError.h"

namespace kvpcie::platform {
namespace {

thread_local int tLastError = 0;

}  // namespace

int LastError() {
    return tLastError;
}

void SetLastError(int code) {
    tLastError = code;
}

}  // namespace kvpcie::platform
