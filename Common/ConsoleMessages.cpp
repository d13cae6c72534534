// Where the library's console lines go.
#include "ConsoleMessages.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace kvpcie {

std::FILE* ConsoleMessages() {
    const char* where = std::getenv("KVPCIE_CONSOLE");
    if (where == nullptr) {
        return stdout;
    }
    if (std::strcmp(where, "stderr") == 0) {
        return stderr;
    }
    return std::strcmp(where, "off") == 0 ? nullptr : stdout;
}

void PrintConsoleMessage(const char* format, ...) {
    std::FILE* out = ConsoleMessages();
    if (out == nullptr) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(out, format, arguments);
    va_end(arguments);
}

}  // namespace kvpcie
