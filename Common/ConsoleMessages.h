// The library's own lines for a console (the device files it opens, what stopped a listing).
// They go to standard output unless KVPCIE_CONSOLE says otherwise: "stderr" sends them to
// standard error, so that a tool's standard output holds its results alone; "off" drops them.
#pragma once

#include <cstdio>

namespace kvpcie {

// Where the lines go now; null when they are dropped. Read at each call: the lines are few.
std::FILE* ConsoleMessages();

// printf to ConsoleMessages().
#if defined(__GNUC__)
__attribute__((format(printf, 1, 2)))
#endif
void PrintConsoleMessage(const char* format, ...);

}  // namespace kvpcie
