// Per-thread error texts of the facade.
#include "ErrorText.h"

#include <cstdarg>
#include <cstdio>

namespace kvpcie {
namespace {
// A fixed array, not a string: setting a reason allocates nothing.
thread_local char errorText[256] = {};
}  // namespace

void ClearErrorText() {
    errorText[0] = '\0';
}

void SetErrorText(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(errorText, sizeof errorText, format, arguments);
    va_end(arguments);
}

const char* ErrorText() {
    return errorText;
}

std::string GroupedDigits(std::uint64_t value) {
    std::string digits = std::to_string(value);
    for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3) {
        digits.insert(static_cast<std::size_t>(at), 1, ',');
    }
    return digits;
}

}  // namespace kvpcie
